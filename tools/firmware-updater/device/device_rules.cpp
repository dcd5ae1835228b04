#include "device/device_rules.h"

#include <algorithm>
#include <array>
#include <vector>

#include "package/hardware_identity.h"
#include "package/image_blocks.h"
#include "simulator/checksum.h"
#include "text/text_format.h"
#include "transport/frame_codec.h"

namespace tavo::tool {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kBootloaderStart{30000};
constexpr milliseconds kApplicationStart{25000};

Ruling Pass(std::string text) { return {Mark::Pass, std::move(text)}; }
Ruling Hint(std::string text) { return {Mark::Hint, std::move(text)}; }
Ruling Fail(std::string text) { return {Mark::Fail, std::move(text)}; }
Ruling NotAsked(std::string text) { return {Mark::NotAsked, std::move(text)}; }

// The first questions of the stages, without which no other is asked.
constexpr std::array kBegins{"sign-of-life", "version", "erase", "start"};
constexpr std::array kWhen{"asked of a running application", "asked of a bootloader",
                           "asked with --write and a file that fits",
                           "asked when the application ran before, or after writing"};

Ruling NotAsked(const Rule& rule, const Findings& findings) {
  const auto stage = static_cast<std::size_t>(rule.stage);
  if (rule.usbOnly && !findings.usb) return NotAsked("asked over USB");
  const bool versionKnown = findings.Version() != 0;
  if (versionKnown && findings.Version() < rule.fromVersion) {
    return NotAsked("asked from version " + std::to_string(rule.fromVersion) + " on");
  }
  const bool cut = findings.lost && rule.stage != Stage::Writing;
  return NotAsked(cut || findings.Find(kBegins[stage]) != nullptr ? "not reached" : kWhen[stage]);
}

std::string Duration(milliseconds time) {
  return time < milliseconds(1000) ? Format("%d ms", static_cast<int>(time.count()))
                                   : Format("%.1f s", static_cast<double>(time.count()) / 1000);
}

std::string Bytes(std::size_t count) {
  return std::to_string(count) + (count == 1 ? " byte" : " bytes");
}

Ruling NotAnswered(const Asked& asked) {
  if (asked.late) return Fail("answered after " + Duration(asked.took) + asked.place);
  if (asked.refused.empty() && asked.heard > 0) {
    return Fail(Bytes(asked.heard) + " came after " + Duration(asked.took) + asked.place);
  }
  return Fail((asked.refused.empty() ? "not answered" : asked.refused) + asked.place);
}

// --- judges of many rules ---

Ruling Answered(const Findings& /*findings*/, const Asked& asked) {
  return asked.answer ? Pass("answered after " + Duration(asked.took)) : NotAnswered(asked);
}

Ruling ShouldBeAnswered(const Findings& findings, const Asked& asked) {
  return asked.answer ? Answered(findings, asked) : Hint(NotAnswered(asked).text);
}

Ruling Silent(const Findings& /*findings*/, const Asked& asked) {
  return asked.heard == 0 ? Pass("silent") : Fail(Bytes(asked.heard) + " came");
}

// The payload has this many bytes, which `text` shows.
Ruling HasLength(const Asked& asked, std::size_t length, const std::string& text) {
  if (!asked.answer) return NotAnswered(asked);
  const std::size_t found = asked.answer->length;
  if (found < length) return Fail(Bytes(found) + " instead of " + std::to_string(length));
  if (found > length) return Hint(text + "; " + Bytes(found - length) + " too many, not read");
  return Pass(text);
}

Ruling HoldsId(const Findings& /*findings*/, const Asked& asked) {
  const auto& payload = asked.answer.value_or(TavoMessage{}).payload;
  return HasLength(asked, 2, Hex(static_cast<std::uint32_t>(payload[0] | payload[1] << 8)));
}

Ruling StartsWithin(const Asked& asked, milliseconds limit) {
  if (!asked.answer) return Fail(NotAnswered(asked).text + "; waited " + Duration(asked.took));
  const std::string text = "after " + Duration(asked.took);
  return asked.took <= limit ? Pass(text) : Fail(text + "; an update waits " + Duration(limit));
}

Ruling SameAsVersion(const Findings& findings, const Asked& asked) {
  const Asked& version = *findings.Find("version");
  if (!asked.answer || !version.answer) return NotAnswered(asked);
  const bool same = asked.answer->payload == version.answer->payload;
  return same ? Pass("answered") : Fail("answered with other values");
}

// --- judges of one rule ---

Ruling SoftwareId(const Findings& findings, const Asked& asked) {
  return asked.answer ? HoldsId(findings, asked) : Hint(NotAnswered(asked).text);
}

Ruling BootloaderStart(const Findings& /*findings*/, const Asked& asked) {
  return StartsWithin(asked, kBootloaderStart);
}

Ruling Version(const Findings& findings, const Asked& asked) {
  Ruling ruling = HasLength(asked, 2, "version " + std::to_string(findings.Version()));
  return ruling.mark != Mark::Fail && findings.Version() == 0 ? Fail(ruling.text) : ruling;
}

Ruling BlockSize(const Findings& findings, const Asked& asked) {
  if (!asked.answer || asked.answer->length < 2)
    return NotAsked("VERSION was not answered in full");
  const std::uint32_t block = findings.BlockSize();
  const std::uint32_t size = findings.ApplicationBytes();
  const std::string text = Bytes(block) + (size == 0 ? "" : " of " + std::to_string(size));
  if (block > kMaxPayload) return Fail(text + ": more than a frame holds");
  if (block == 0 || size % block != 0) return Fail(text + ": no whole number of blocks");
  const TavoMessage message{.id = 0, .length = static_cast<std::uint8_t>(block)};
  const std::size_t sent = FrameLength(message) - kFrameOverhead;
  return sent == block ? Pass(text) : Hint(text + "; they come padded to " + std::to_string(sent));
}

Ruling Processor(const Findings& findings, const Asked& asked) {
  const auto known = [](std::uint32_t id) {
    return std::ranges::find(McuTable, id, &McuRow::processorId) != McuTable.end();
  };
  const std::uint32_t id = findings.Processor();
  const std::uint32_t swapped = findings.Value("processor", 0, 3);
  Ruling ruling = HasLength(asked, 3, Hex(id, 6));
  if (ruling.mark == Mark::Fail || known(id)) return ruling;
  return Hint(ruling.text + (known(swapped) ? ": unknown, while " + Hex(swapped, 6) +
                                                  " is known; the bytes seem to be swapped"
                                            : ": unknown; only files without MCU-ID fit"));
}

Ruling ApplicationSize(const Findings& findings, const Asked& asked) {
  const std::uint32_t size = findings.Value("application-size", 0, 2);
  Ruling ruling = HasLength(asked, 2, std::to_string(size) + " KiB");
  if (ruling.mark == Mark::Fail || size == 0) return Fail(ruling.text);
  constexpr std::uint32_t kLarge = 2048;  // more than any known processor has
  if (size < kLarge || size % 256 != 0) return ruling;
  return Hint(ruling.text + "; with its bytes swapped " + std::to_string(size / 256) + " KiB");
}

Ruling HardwareId(const Findings& findings, const Asked& asked) {
  const auto id = static_cast<std::uint16_t>(findings.Value("hardware-id", 0, 2));
  return HasLength(asked, 2, Hex(id) + " (" + HardwareIdText(id) + ")");
}

Ruling Checksums(const Findings& /*findings*/, const Asked& asked) {
  return HasLength(asked, 8, "two checksums");
}

// The bootloader's checksum shows it when it is the CRC-32 of files from `pack`; else a verified image does
// whose blank blocks were not written.
Ruling ErasedBytes(const Findings& findings, const Asked& /*asked*/) {
  const std::vector<std::uint8_t> erased(findings.ApplicationBytes() - 4, kErasedByte);
  if (findings.Value("erased-bytes", 0, 4) == tavosim::Crc32(erased)) return Pass("read 0xFF");
  if (findings.Find("verified") == nullptr) return Hint("no verification shows it");
  const std::string blank = Bytes(findings.blankBytes) + " of 0xFF not written";
  if (!findings.Verified("verified")) return Fail(blank + ", and the image is not right");
  return findings.blankBytes > 0 ? Pass(blank) : Hint("use a file with blank blocks to check this");
}

Ruling IncompleteImage(const Findings& findings, const Asked& asked) {
  return asked.answer ? Answered(findings, *findings.Find("incomplete-image"))
                      : Fail("the bootloader no longer responds");
}

Ruling RepeatedWrite(const Findings& findings, const Asked& asked) {
  if (!asked.answer) return NotAnswered(asked);
  if (!findings.Verified("verified")) return Hint("answered; no verification shows its place");
  return findings.Find("verified-with-repeat") == nullptr
             ? Pass("written to the same address")
             : Fail("without the repeat the image is right: the write address advances");
}

Ruling Verified(const Findings& findings, const Asked& asked) {
  const std::string text = "calculated " + Hex(findings.Value("verified", 0, 4), 8) +
                           ", reference " + Hex(findings.Value("verified", 4, 4), 8);
  const Ruling ruling = HasLength(asked, 8, text);
  return findings.Verified("verified") || ruling.mark == Mark::Fail ? ruling : Fail(text);
}

Ruling ApplicationStart(const Findings& /*findings*/, const Asked& asked) {
  return StartsWithin(asked, kApplicationStart);
}

Ruling AnswersOnce(const Findings& findings, const Asked& version) {
  if (!version.answer) return NotAsked("VERSION was not answered");
  for (const auto& [name, asked] : findings.asked) {
    if (asked.surplus > 0) {
      return Fail(Bytes(asked.surplus) + " beside the answer (" + std::string(name) + ")");
    }
  }
  return Pass("nothing beside the answers");
}

// --- the table ---

constexpr const char* kMustBeAnswered =
    "Must be answered: DEVICE ID in one of its forms (with descriptor type 5, the first), ALIVE, "
    "LABEL.";
constexpr const char* kCostsTime = "Silence to the others only costs time.";
constexpr const char* kSilentBootloader = "A bootloader stays silent to all of these but LEAVE.";
constexpr const char* kDropsDamage =
    "A frame with a wrong CRC or parity is dropped, by a device too.";
constexpr const char* kChecksums =
    "calculated checksum, reference checksum, 32 bits each; equal: the image is right";

using enum Stage;

// clang-format off
constexpr std::array kRules{
  Rule{Application, "sign-of-life", "ALIVE", kMustBeAnswered, Answered},
  Rule{Application, "device-id", "DEVICE ID", kMustBeAnswered, HoldsId},
  Rule{Application, "software-id", "SOFTWARE ID", kCostsTime, SoftwareId},
  Rule{Application, "application-silent", "VERSION",
       "An application stays silent to 0x120 to 0x136, except LEAVE, which it may answer.", Silent},
  Rule{Application, "call", "CALL", kCostsTime, ShouldBeAnswered},

  Rule{Bootloader, "bootloader-start", "VERSION after CALL",
       "The last one goes out after 30 s: the time to start up", BootloaderStart},
  Rule{Bootloader, "version", "VERSION", "version, block size in bytes (1 to 128)", Version},
  Rule{Bootloader, "block-size", "VERSION",
       "A size of 0, or one that does not divide the application section, is refused before the erase (code 13).", BlockSize, "version"},
  Rule{Bootloader, "processor", "PROCESSOR", "processor id, 3 bytes, most significant first", Processor},
  Rule{Bootloader, "application-size", "SIZE",
       "size of the application section in KiB, 16 bits", ApplicationSize},
  Rule{Bootloader, "hardware-id", "HARDWARE", "hardware id, 16 bits", HardwareId},
  Rule{Bootloader, "checksums", "VERIFY, from version 3 on", kChecksums, Checksums, nullptr, kVerifies},
  Rule{Bootloader, "silent-to-alive", "ALIVE", kSilentBootloader, Silent},
  Rule{Bootloader, "silent-to-device-id", "DEVICE ID", kSilentBootloader, Silent},
  Rule{Bootloader, "silent-to-software-id", "SOFTWARE ID", kSilentBootloader, Silent},
  Rule{Bootloader, "silent-to-call", "CALL", kSilentBootloader, Silent},
  Rule{Bootloader, "escape-bytes", "VERSION after 1B 1B 1B",
       "Bytes that begin no frame are skipped, by a device too: before two of the requests three bytes 0x1B come", SameAsVersion},
  Rule{Bootloader, "wrong-checksum", "VERSION with a wrong CRC", kDropsDamage, Silent},
  Rule{Bootloader, "wrong-parity", "VERSION with a wrong parity", kDropsDamage, Silent},
  Rule{Bootloader, "after-damage", "VERSION after those two",
       "After damage a receiver searches the bytes it has for the next 0xA0 to 0xAF.", SameAsVersion},
  Rule{Bootloader, "one-transfer", "VERSION in one USB transfer, from version 2 on",
       "one byte a transfer, from bootloader version 2 on one frame a transfer", SameAsVersion, nullptr, kTakesTransfers, true},

  Rule{Writing, "erase", "ERASE", "any payload, when the flash is erased: within 4 s", Answered},
  Rule{Writing, "erased-bytes", "VERIFY after ERASE, from version 3 on",
       "So an erased byte must read 0xFF.", ErasedBytes, nullptr, kVerifies},
  Rule{Writing, "incomplete-image", "START after ERASE",
       "Never start an incomplete image, but do answer.", IncompleteImage, "still-in-bootloader"},
  Rule{Writing, "position", "POSITION", "Every block is positioned.", Answered},
  Rule{Writing, "write", "WRITE", "any payload, when it is written", Answered},
  Rule{Writing, "repeated-write", "WRITE, the same block again",
       "A lost answer brings the same block a second time: it belongs to the same address.", RepeatedWrite},
  Rule{Writing, "end-position", "POSITION past the image",
       "POSITION with the address just past the image ends the writing and must be answered too.", Answered},
  Rule{Writing, "verified", "VERIFY, from version 3 on", kChecksums, Verified, nullptr, kVerifies},

  Rule{Start, "start", "LEAVE, or START after --write", "a bootloader answers with any payload and starts its application", Answered},
  Rule{Start, "application-start", "ALIVE", "up to 7 times in 25 s", ApplicationStart},
  Rule{Start, "answers-once", "all of them",
       "the first is taken, the second is lost: answer once, and send nothing unasked", AnswersOnce, "version"},
};
// clang-format on

}  // namespace

std::span<const Rule> Rules() { return kRules; }

Ruling Judge(const Rule& rule, const Findings& findings) {
  const Asked* const asked = findings.Find(rule.question == nullptr ? rule.name : rule.question);
  return asked == nullptr ? NotAsked(rule, findings) : rule.judge(findings, *asked);
}

}  // namespace tavo::tool
