#include "device/examination.h"

#include <algorithm>
#include <array>

#include "device/dialogue.h"
#include "device/refused_text.h"
#include "package/image_blocks.h"
#include "text/text_format.h"
#include "transport/frame_codec.h"

namespace tavo::tool {
namespace {

using std::chrono::milliseconds;

// Longer than an update waits: an answer that is just too late is seen as such.
constexpr milliseconds kLateAnswer{6000};
constexpr milliseconds kLateErase{60000};
constexpr milliseconds kLongestStart{40000};
constexpr milliseconds kSilence{500};

constexpr std::array<std::uint8_t, 1> kNormalErase{0x01};

// A device that enumerates anew in its other program may leave the bus after these.
bool MayRestart(const Command& command) {
  return command.bearing == Bearing::CallsBootloader ||
         command.bearing == Bearing::StartsApplication;
}

Command ForApplication(Command command, std::uint16_t id) {
  command.id = id;
  return command;
}

std::array<std::uint8_t, 4> LittleEndian(std::uint32_t value) {
  return {static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8),
          static_cast<std::uint8_t>(value >> 16), static_cast<std::uint8_t>(value >> 24)};
}

// A block that spoils the next one when it is written there too: it clears a bit that has to stay set.
std::uint32_t BlockToRepeat(const ImageBlocks& blocks, std::uint32_t blockSize) {
  const auto keeps = [](std::uint8_t byte, std::uint8_t next) { return (~byte & next) == 0; };
  for (std::uint32_t at = 0; at + blockSize < blocks.ImageSize(); at = blocks.NextToWrite(at)) {
    if (!std::ranges::equal(blocks.At(at), blocks.At(at + blockSize), keeps)) return at;
  }
  return 0;
}

}  // namespace

std::size_t FrameLength(const TavoMessage& message) {
  FrameBuffer frame{};
  kFrameCodecs[0].Encode(message, frame);
  std::uint8_t end = 0;
  bool acceptable = false;
  kFrameCodecs[0].ParseHeader(frame[0], &end, &acceptable);
  return std::size_t{end} + 1;
}

const Asked* Findings::Find(std::string_view name) const {
  const auto found = asked.find(name);
  return found == asked.end() ? nullptr : &found->second;
}

std::uint32_t Findings::Value(std::string_view name, std::size_t first, std::size_t size) const {
  const Asked* const found = Find(name);
  if (found == nullptr || !found->answer) return 0;
  std::uint32_t value = 0;
  for (std::size_t i = size; i-- > 0;) value = value << 8 | found->answer->payload[first + i];
  return value;
}

std::uint32_t Findings::Processor() const {
  const std::uint32_t value = Value("processor", 0, 3);  // its most significant byte comes first
  return (value & 0xFF) << 16 | (value & 0xFF00) | value >> 16;
}

bool Findings::Verified(std::string_view name) const {
  const Asked* const found = Find(name);
  return found != nullptr && found->answer && found->answer->length >= 8 &&
         Value(name, 0, 4) == Value(name, 4, 4);
}

bool Findings::Written() const {
  const Asked* const end = Find("end-position");
  return end != nullptr && end->answer && (Find("verified") == nullptr || Verified("verified"));
}

bool Examination::Ask(std::string_view name, const Command& command, Arguments arguments,
                      Patience patience) {
  if (m_stopped() || m_findings.lost) return false;
  Asked asked;
  // A second WRITE has the id of the first, so an answer that came twice must not serve it.
  if (m_clean && !m_place.empty() && name != "repeated-write") m_inquiry.LeaveOutDiscarding();
  asked.answer = m_inquiry.Ask(command, arguments, patience);
  asked.took = m_heard.SinceSent();
  asked.place = m_place;
  asked.refused = NoAnswerAmong(m_transport.Refused());
  if (asked.answer || !m_heard.bytes.empty() || patience == Patience::Brief) {
    // So that bytes beside the answer are counted; blocks are too many to listen after each.
    if (m_place.empty()) m_transport.DiscardInput();
  } else {
    ListenFor(command.bearing == Bearing::Erases ? kLateErase : kLateAnswer);
    const std::optional<TavoMessage> late = MessageIn(m_heard.bytes);
    asked.late = late && late->id == command.id;
    asked.took = m_heard.firstAfter;
  }
  asked.heard = m_heard.bytes.size();
  if (asked.answer) asked.surplus = asked.heard - std::min(asked.heard, FrameLength(*asked.answer));
  m_clean = asked.answer && asked.surplus == 0;
  m_findings.lost = !asked.answer && Unreachable() && !MayRestart(command);
  if (m_findings.lost) return false;
  const bool answered = asked.answer || asked.late;
  Keep(name, std::move(asked));
  return answered;
}

// The worst counts of what was asked for many blocks, and a reason is kept when a second form brings none.
void Examination::Keep(std::string_view name, Asked asked) {
  const auto worth = [](const Asked& one) { return std::pair(one.answer.has_value(), -one.took); };
  const auto earlier = m_findings.asked.find(name);
  if (earlier != m_findings.asked.end() && !earlier->second.answer && asked.refused.empty()) {
    asked.refused = earlier->second.refused;
  }
  if (!m_place.empty() && earlier != m_findings.asked.end()) {
    const std::size_t surplus = std::max(earlier->second.surplus, asked.surplus);
    if (worth(earlier->second) < worth(asked)) asked = std::move(earlier->second);
    asked.surplus = surplus;
  }
  m_findings.asked[name] = std::move(asked);
}

bool Examination::AskUntilAnswered(std::string_view name, const Command& command) {
  if (m_findings.lost) return false;
  const milliseconds start = m_platform.MonotonicNow();
  milliseconds passed{0};
  while (!m_stopped() && passed < kLongestStart) {
    m_findings.lost = false;  // a device may be off the bus while it starts
    if (Ask(name, command, {}, Patience::Brief)) {
      m_findings.asked[name].took += passed;
      return true;
    }
    passed = m_platform.MonotonicNow() - start;
  }
  m_findings.asked[name].took = passed;
  if (m_stopped()) m_findings.asked.erase(name);
  return false;
}

// An adapter that was unplugged fails only to send, while a device at USB may refuse bytes.
bool Examination::Unreachable() const {
  return m_heard.readFailed || (!m_findings.usb && m_heard.sendFailed);
}

// VERSION with a bit turned over, in the identifier under a right checksum.
void Examination::SendDamaged(std::string_view name, std::size_t byte) {
  if (m_stopped() || m_findings.lost) return;
  constexpr std::size_t kChecksum = kFrameOverhead - kCrcSize;
  FrameBuffer frame{};
  kFrameCodecs[0].Encode({.id = kCheckVersion.id}, frame);
  frame[byte] ^= 1;
  if (byte < kChecksum) frame[kChecksum] = Crc8({frame.data(), kChecksum});
  m_transport.DiscardLeftovers();
  const bool sent = m_transport.SendRawData(frame.data(), kFrameOverhead);
  ListenFor(kSilence);
  m_findings.lost = Unreachable();
  if (sent && !m_findings.lost) m_findings.asked[name].heard = m_heard.bytes.size();
}

void Examination::ListenFor(milliseconds bound) {
  const milliseconds start = m_platform.MonotonicNow();
  while (m_heard.bytes.empty() && !Unreachable() && m_platform.MonotonicNow() - start < bound) {
    m_transport.DiscardInput();
  }
}

void Examination::AskApplication() {
  if (!Ask("sign-of-life", kWaitForApplication)) return;
  if (!Ask("device-id", kRequestDeviceId)) Ask("device-id", kRequestDeviceIdAdmin);
  if (!Ask("software-id", kRequestSoftwareId) &&
      Ask("software-id", ForApplication(kRequestSoftwareId, kAlternativeApplicationRequest))) {
    m_applicationId = kAlternativeApplicationRequest;
  }
  Ask("application-silent", kCheckVersion, {}, Patience::Brief);
  Ask("call", ForApplication(kCallBootloader, m_applicationId));
}

void Examination::AskBootloader(bool starting) {
  if (starting && !AskUntilAnswered("bootloader-start", kCheckVersion)) return;
  if (!Ask("version", kCheckVersion)) return;
  Ask("processor", kRequestProcessorId);
  Ask("application-size", kCheckApplicationSize);
  Ask("hardware-id", kCheckHardwareId);
  if (m_findings.Version() >= kVerifies) Ask("checksums", kVerify);

  const auto askBriefly = [this](std::string_view name, const Command& command) {
    Ask(name, command, {}, Patience::Brief);
  };
  askBriefly("silent-to-alive", kWaitForApplication);
  askBriefly("silent-to-device-id", kRequestDeviceId);
  askBriefly("silent-to-software-id", ForApplication(kRequestSoftwareId, m_applicationId));
  askBriefly("silent-to-call", ForApplication(kCallBootloader, m_applicationId));

  m_transport.SendRawData(kEscapeSequence.data(), std::int32_t{kEscapeSequence.size()});
  Ask("escape-bytes", kCheckVersion);
  SendDamaged("wrong-checksum", kFrameOverhead - kCrcSize);
  SendDamaged("wrong-parity", kHeaderSize);
  Ask("after-damage", kCheckVersion);
  if (!m_findings.usb || m_findings.Version() < kTakesTransfers) return;
  m_transport.SetSendMode(SendMode::Buffer);
  if (!Ask("one-transfer", kCheckVersion)) m_transport.SetSendMode(SendMode::Byte);
}

void Examination::Write(const FirmwareImage& image) {
  const bool verifies = m_findings.Version() >= kVerifies;
  if (!Ask("erase", kEraseApplication, kNormalErase)) return;
  if (verifies) Ask("erased-bytes", kVerify);
  Ask("incomplete-image", kStartApplication);
  if (!AskUntilAnswered("still-in-bootloader", kCheckVersion)) return;
  if (!WriteBlocks(image, true) || !verifies) return;
  Ask("verified", kVerify);
  if (m_findings.Verified("verified")) return;
  // Either the flash is wrong or the place of the repeated block: this shows which.
  m_findings.asked["verified-with-repeat"] = m_findings.asked["verified"];
  if (!Ask("erase", kEraseApplication, kNormalErase) || !WriteBlocks(image, false)) return;
  Ask("verified", kVerify);
}

bool Examination::WriteBlocks(const FirmwareImage& image, bool repeatOne) {
  const ImageBlocks blocks(image.data, m_findings.BlockSize());
  const std::uint32_t repeated = BlockToRepeat(blocks, m_findings.BlockSize());
  m_findings.blankBytes = 0;
  for (std::uint32_t at = 0, next = 0; at < image.data.size(); at = next) {
    if (!WriteOne(image.startAddress + at, blocks.At(at), repeatOne && at == repeated))
      return false;
    next = blocks.NextToWrite(at);
    onWritten(static_cast<unsigned>(std::uint64_t{next} * 100 / image.data.size()));
    m_findings.blankBytes += next - at - blocks.At(at).size();
  }
  m_place.clear();
  const auto end = static_cast<std::uint32_t>(image.startAddress + image.data.size());
  return Ask("end-position", kPositionFlash, LittleEndian(end));
}

bool Examination::WriteOne(std::uint32_t address, Arguments block, bool repeat) {
  m_place = " at " + Hex(address, 8);
  return Ask("position", kPositionFlash, LittleEndian(address)) &&
         Ask("write", kWriteFlash, block) && (!repeat || Ask("repeated-write", kWriteFlash, block));
}

void Examination::StartApplication(bool written) {
  m_stopped = [] { return false; };
  Ask("start", written ? kStartApplication : kLeaveBootloader);
  AskUntilAnswered("application-start", kWaitForApplication);
}

}  // namespace tavo::tool
