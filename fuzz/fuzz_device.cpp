// A whole update over USB, on a virtual clock, of a device that says what it likes when it likes. When
// its script is at its end the device is silent, and the update must come to its end too.
#include <algorithm>
#include <array>
#include <optional>
#include <span>

#include "api/update_commands.h"
#include "fuzz/device_script.h"
#include "fuzz/expect.h"
#include "simulator/firmware_builder.h"
#include "simulator/frame.h"
#include "tests/support/plain_usb.h"
#include "tests/support/virtual_platform.h"
#include "transport/comm_win_usb.h"
#include "transport/transport_factory.h"

namespace tavo::fuzz {
namespace {

using std::chrono::milliseconds;
using namespace std::chrono_literals;

// The time that a silent device may cost: seven tries of one request, then the closing plan with a
// tunnel to close and seven signs of life, and the waits for a quiet line in between.
constexpr milliseconds kSilenceBound = 180s;
// The same for a talkative one: each request of the update at the end of its tries.
constexpr milliseconds kTimeBound = 1h;
constexpr unsigned kCallBound = 200'000;

constexpr const char* kPort = "1";

// One device at one port; whatever is sent to it is lost.
class ScriptedUsb : public test::PlainUsb {
 public:
  ScriptedUsb(test::VirtualPlatform& platform, std::span<const std::uint8_t> script)
      : m_platform(platform), m_script(script) {
    NextSaying();
  }

  milliseconds SilentFor() const {
    return m_silentSince ? m_platform.MonotonicNow() - *m_silentSince : 0ms;
  }
  int OpenHandles() const { return m_openHandles; }

  std::ptrdiff_t GetDeviceList(libusb_context* /*context*/, libusb_device*** list) override {
    *list = m_list.data();
    return 1;
  }
  int GetDeviceDescriptor(libusb_device* /*device*/, libusb_device_descriptor* to) override {
    to->idVendor = 0x03EB;
    to->idProduct = 0x2404;
    return 0;
  }
  int GetPortNumbers(libusb_device* /*device*/, std::uint8_t* ports, int /*capacity*/) override {
    ports[0] = 1;
    return 1;
  }
  int Open(libusb_device* /*device*/, libusb_device_handle** handle) override {
    *handle = reinterpret_cast<libusb_device_handle*>(this);
    ++m_openHandles;
    return 0;
  }
  void Close(libusb_device_handle* /*handle*/) override { --m_openHandles; }
  int ControlTransfer(libusb_device_handle* /*handle*/, std::uint8_t /*requestType*/,
                      std::uint8_t /*request*/, std::uint16_t /*value*/, std::uint16_t /*index*/,
                      unsigned char* /*data*/, std::uint16_t length,
                      unsigned /*timeoutMs*/) override {
    return length;
  }
  int BulkTransfer(libusb_device_handle* /*handle*/, unsigned char endpoint, unsigned char* data,
                   int length, int* transferred, unsigned timeoutMs) override {
    Expect(++m_calls < kCallBound, "an update ends after so many transfers");
    Expect(m_platform.MonotonicNow() < kTimeBound, "an update ends in time");
    *transferred = 0;
    if ((endpoint & LIBUSB_ENDPOINT_IN) != 0) {
      return In({data, static_cast<std::size_t>(length)}, transferred, milliseconds(timeoutMs));
    }
    *transferred = length;
    return 0;
  }

 private:
  void NextSaying() {
    if (m_script.size() < 2) {
      m_script = {};
      m_silentSince = m_platform.MonotonicNow();
      return;
    }
    m_delay = DelayOf(m_script[0]);
    m_fails = m_script[1] == kReadFails;
    const bool framed = (m_script[1] & kFramed) != 0;
    const std::size_t length = m_fails ? 0 : m_script[1] & kMaxSaid;
    const auto bytes = m_script.subspan(2, std::min(length, m_script.size() - 2));
    m_script = m_script.subspan(2 + bytes.size());
    m_said = {bytes.begin(), bytes.end()};
    if (framed && bytes.size() >= kMessageIdSize) {
      const auto id = static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
      m_said = tavosim::EncodeFrame({id, {bytes.begin() + kMessageIdSize, bytes.end()}});
    }
    m_speaks = true;
  }

  int In(std::span<unsigned char> buffer, int* transferred, milliseconds timeout) {
    const milliseconds waited = m_speaks ? std::min(m_delay, timeout) : timeout;
    m_platform.Advance(waited);
    m_delay -= m_speaks ? waited : 0ms;
    if (!m_speaks || m_delay > 0ms) return LIBUSB_ERROR_TIMEOUT;
    const std::size_t count = std::min(buffer.size(), m_said.size());
    std::copy_n(m_said.begin(), count, buffer.begin());
    *transferred = static_cast<int>(count);
    m_said.erase(m_said.begin(), m_said.begin() + *transferred);
    const bool fails = m_fails;
    if (m_said.empty()) {
      m_speaks = false;
      NextSaying();
    }
    return fails ? LIBUSB_ERROR_IO : 0;
  }

  test::VirtualPlatform& m_platform;
  std::span<const std::uint8_t> m_script;
  std::array<libusb_device*, 2> m_list{reinterpret_cast<libusb_device*>(this), nullptr};
  std::vector<std::uint8_t> m_said;
  milliseconds m_delay{0};
  std::optional<milliseconds> m_silentSince{};  // none while there is something left to say
  bool m_speaks = false;
  bool m_fails = false;
  unsigned m_calls = 0;
  int m_openHandles = 0;
};

// The log is written, but nobody keeps it.
class FuzzPlatform : public test::VirtualPlatform {
 public:
  FileHandle OpenLog(const std::string& /*path*/, Links links) override {
    return VirtualPlatform::OpenLog("/dev/null", links);
  }
};

std::string UpdateFile(std::size_t number) {
  static const test::VirtualPlatform platform;  // for its folder
  static const std::vector<std::string> files = [] {
    std::vector<std::string> paths;
    for (const tavosim::Family& row : tavosim::kFamilies) {
      paths.push_back(platform.Folder() + std::string(row.name) + ".hex");
      const tavosim::Family family = SmallFamily(paths.size() - 1);
      const tavosim::Firmware firmware = tavosim::BuildFirmware(tavosim::RecipeFor(family));
      tavosim::WriteFile(paths.back(), tavosim::HexText(firmware));
    }
    return paths;
  }();
  return files[number % files.size()];
}

void Update(std::span<const std::uint8_t> input) {
  FuzzPlatform platform;
  ScriptedUsb usb(platform, input.subspan(kScriptHeader));
  {
    Logger log(platform);
    TavoLink link;
    TransportHolder holder(platform, [&](TransportKind) {
      return std::make_unique<CCommWinUSB>(link, platform, log, usb);
    });
    FirmwareUpdater engine(platform, log, holder);
    UpdateDevice({engine, holder, platform}, {TransportKind::Usb, kPort}, UpdateFile(input[0]),
                 FlagsOf(input[1]));
    Expect(usb.SilentFor() <= kSilenceBound,
           "an update ends soon after the device has become silent");
  }
  Expect(usb.OpenHandles() == 0, "the device is closed again");
}

}  // namespace
}  // namespace tavo::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
  if (size >= tavo::fuzz::kScriptHeader) tavo::fuzz::Update({input, size});
  return 0;
}
