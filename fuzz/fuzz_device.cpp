// A whole update over USB, on a virtual clock, of a simulated device that is tampered with. The input
// names the family and the flags, then in turn an answer and the bytes that come in its place or, at any
// moment, before it. After that the device goes on as ever, or is silent; the update must end.
#include <optional>

#include "fuzz/input.h"
#include "simulator/frame.h"
#include "tests/support/station.h"

namespace tavo::fuzz {
namespace {

using namespace std::chrono_literals;

// The time that a silent device may cost: seven tries of one request, then the closing plan with a
// tunnel to close and seven signs of life, and the waits for a quiet line in between.
constexpr std::chrono::milliseconds kSilenceBound = 180s;
// The same for a talkative one: each request of the update at the end of its tries.
constexpr std::chrono::milliseconds kTimeBound = 1h;
constexpr unsigned kReadBound = 200'000;

tavosim::DeviceOptions SmallDevice(std::uint32_t number) {
  tavosim::Family family = tavosim::kFamilies[number % tavosim::kFamilies.size()];
  family.applicationKiB = 1;  // a few blocks say as much as many
  return tavosim::OptionsFor(family);
}

class TamperedUpdate {
 public:
  explicit TamperedUpdate(Input input)
      : m_input(input), m_station(SmallDevice(TakeNumber(m_input, 1))) {
    const std::uint32_t flags = TakeNumber(m_input, 1);
    m_fallsSilent = (flags & 8) != 0;
    NextChange();
    m_station.usb.failReceive = [this] { return Fails(); };
    m_station.usb.tamper = [this](std::vector<std::uint8_t>& said) { Tamper(said); };
    m_station.UpdateOverUsb({(flags & 1) == 0, (flags & 2) != 0, (flags & 4) != 0});
    Expect(!m_silentSince || Now() - *m_silentSince <= kSilenceBound,
           "an update ends soon after the device has become silent");
    Expect(m_station.usb.handles == 0, "the device is closed again");
  }

 private:
  // One change: the answers to leave alone before it, and what is said instead. The high bit of the
  // count says that it does not wait for an answer. The bytes follow a length: 0x7F fails the read, and
  // with the high bit they are an id and a payload, said as a good frame, whose checksum is hard to guess.
  void NextChange() {
    m_pending = !m_input.empty();
    if (!m_pending && m_fallsSilent) m_silentSince = Now();
    const std::uint32_t count = TakeNumber(m_input, 1);
    const std::uint32_t length = TakeNumber(m_input, 1);
    m_leaveAlone = count % 0x80;
    m_waitsForAnswer = count < 0x80;
    m_fails = length == 0x7F;
    const Input bytes = Take(m_input, m_fails ? 0 : length % 0x80);
    m_instead = {bytes.begin(), bytes.end()};
    if (length < 0x80 || bytes.size() < 2) return;
    const auto id = static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
    m_instead = tavosim::EncodeFrame({id, {bytes.begin() + 2, bytes.end()}});
  }

  bool Fails() {
    Expect(++m_reads < kReadBound, "an update ends after so many reads");
    Expect(Now() < kTimeBound, "an update ends in time");
    const bool fails = m_pending && m_leaveAlone == 0 && m_fails;
    if (fails) NextChange();
    return fails;
  }

  void Tamper(std::vector<std::uint8_t>& said) {
    if (m_silentSince) return said.clear();
    if (!m_pending || (said.empty() && (m_waitsForAnswer || m_leaveAlone > 0))) return;
    if (m_leaveAlone > 0) {
      --m_leaveAlone;
    } else {
      said = m_instead;
      NextChange();
    }
  }

  std::chrono::milliseconds Now() { return m_station.platform.MonotonicNow(); }

  Input m_input;
  test::Station m_station;
  bool m_fallsSilent = false;
  std::optional<std::chrono::milliseconds> m_silentSince{};
  bool m_pending = false;
  std::uint32_t m_leaveAlone = 0;
  bool m_waitsForAnswer = false;
  bool m_fails = false;
  std::vector<std::uint8_t> m_instead{};
  unsigned m_reads = 0;
};

}  // namespace
}  // namespace tavo::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const tavo::fuzz::TamperedUpdate update({bytes, size});
  return 0;
}
