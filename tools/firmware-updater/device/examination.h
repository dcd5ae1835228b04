// Asks a device everything that its author wants judged, and keeps the answers; device_rules.h judges them.
// Only Write changes the flash. Every wait is bounded. A late answer is awaited beyond the protocol's 4 s,
// because its delay points at its cause.
//
//   Examination examination(inquiry, session.Transport(), heard, platform, true, stopped);
//   examination.AskApplication();  // it ends in its bootloader
//   examination.AskBootloader(true);
//   examination.StartApplication(false);
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "device/inquiry.h"
#include "package/firmware_image.h"
#include "transport/observed_transport.h"

namespace tavo::tool {

// The outcome of one question.
struct Asked {
  std::optional<TavoMessage> answer{};
  std::chrono::milliseconds took{0};  // until the answer, or until bytes came too late
  bool late = false;
  std::size_t heard = 0;    // bytes received, whatever they were
  std::size_t surplus = 0;  // of them, beside the answer
  std::string refused{};    // why they are no answer
  std::string place{};      // " at 0x00004010", of a block
};

// The bytes of its frame.
std::size_t FrameLength(const TavoMessage& message);

inline constexpr std::uint32_t kTakesTransfers = 2;  // from this version on: a frame in one
inline constexpr std::uint32_t kVerifies = 3;        // from this version on

struct Findings {
  bool usb = true;
  bool lost = false;  // the device left the bus where it may not; nothing was asked after that
  std::map<std::string_view, Asked> asked{};  // by the name of a rule; only what was asked
  std::size_t blankBytes = 0;                 // that the writing left out

  const Asked* Find(std::string_view name) const;
  // Bytes of an answer, low byte first; 0 for those that did not come.
  std::uint32_t Value(std::string_view name, std::size_t first, std::size_t size) const;
  std::uint32_t Version() const { return Value("version", 0, 1); }
  std::uint32_t BlockSize() const { return Value("version", 1, 1); }
  std::uint32_t ApplicationBytes() const { return Value("application-size", 0, 2) * 1024; }
  std::uint32_t Processor() const;
  // The bootloader's two checksums are equal.
  bool Verified(std::string_view name) const;
  // Every block was acknowledged and, where the bootloader can tell, the image is right.
  bool Written() const;
};

// Keeps the bytes that come after a request, and notices a device that cannot be reached.
class Heard : public TransportObserver {
 public:
  explicit Heard(Platform& platform) : m_platform(platform) {}
  void BytesSent(bool ok, Bytes /*bytes*/) override {
    bytes.clear();
    sendFailed = !ok;
    readFailed = false;
    m_sent = m_platform.MonotonicNow();
  }
  void BytesReceived(bool ok, Bytes received, std::chrono::milliseconds /*took*/) override {
    if (bytes.empty()) firstAfter = SinceSent();
    bytes.insert(bytes.end(), received.begin(), received.end());
    readFailed |= !ok;
  }
  std::chrono::milliseconds SinceSent() const { return m_platform.MonotonicNow() - m_sent; }

  std::vector<std::uint8_t> bytes;
  bool sendFailed = false;
  bool readFailed = false;
  std::chrono::milliseconds firstAfter{0};  // with the first bytes

 private:
  Platform& m_platform;
  std::chrono::milliseconds m_sent{0};
};

class Examination {
 public:
  // Once `stopped` returns true, nothing but StartApplication asks. All must outlive the examination.
  Examination(Inquiry& inquiry, ICommInterface& transport, const Heard& heard, Platform& platform,
              bool usb, std::function<bool()> stopped)
      : m_inquiry(inquiry),
        m_transport(transport),
        m_heard(heard),
        m_platform(platform),
        m_stopped(std::move(stopped)) {
    m_findings.usb = usb;
  }

  // A running application, and at last to start its bootloader. Silence at first ends it.
  void AskApplication();
  // `starting`: it has been called and may take its time.
  void AskBootloader(bool starting);
  // Erases, and writes an image that fits the device.
  void Write(const FirmwareImage& image);
  void StartApplication(bool written);

  const Findings& Results() const { return m_findings; }

  std::function<void(unsigned percent)> onWritten = [](unsigned) {};

 private:
  using Arguments = std::span<const std::uint8_t>;

  // True when an answer came, even a late one.
  bool Ask(std::string_view name, const Command& command, Arguments arguments = {},
           Patience patience = Patience::Full);
  bool AskUntilAnswered(std::string_view name, const Command& command);
  void Keep(std::string_view name, Asked asked);
  bool Unreachable() const;
  void SendDamaged(std::string_view name, std::size_t byte);
  void ListenFor(std::chrono::milliseconds bound);
  bool WriteBlocks(const FirmwareImage& image, bool repeatOne);
  bool WriteOne(std::uint32_t address, Arguments block, bool repeat);

  Inquiry& m_inquiry;
  ICommInterface& m_transport;
  const Heard& m_heard;
  Platform& m_platform;
  std::function<bool()> m_stopped;
  std::uint16_t m_applicationId = kApplicationRequest;
  std::string m_place;   // of the block being written
  bool m_clean = false;  // the last answer came without other bytes
  Findings m_findings;
};

}  // namespace tavo::tool
