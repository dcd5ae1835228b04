#include "device/refused_text.h"

#include <algorithm>

#include "text/text_format.h"
#include "transport/frame_codec.h"

namespace tavo::tool {
namespace {

struct ReasonRow {
  RefusalReason reason;
  const char* name;  // stable, for scripts
  const char* text;
  const char* hint;  // for the author of a device; a line that damages bytes comes before it
};

constexpr std::array kReasons{
    ReasonRow{RefusalReason::NoHeader, "noHeader", "no frame begins with them",
              "its frames begin with a byte 0xA3 to 0xAF"},
    ReasonRow{RefusalReason::TooShort, "tooShort", "the frame is not finished",
              "the size code in the header says how many bytes its frames have"},
    ReasonRow{RefusalReason::Checksum, "checksum", "checksum wrong",
              "its CRC-8 covers the frame from the header on; \"123456789\" gives 0x94"},
    ReasonRow{RefusalReason::Parity, "parity", "identifier parity wrong",
              "bits 0 and 1 of the identifier are the parities of the message id"},
    ReasonRow{RefusalReason::Unawaited, "unawaited", "id not awaited",
              "an answer has the id of its request and comes within 4 s"},
    ReasonRow{RefusalReason::Behind, "behind", "behind another frame",
              "it sends one frame for each request and nothing unasked"},
};

constexpr bool RowNBelongsToReasonN() {
  for (std::size_t i = 0; i < kReasons.size(); ++i) {
    if (static_cast<std::size_t>(kReasons[i].reason) != i) return false;
  }
  return kReasons.size() == kRefusalReasons;
}
static_assert(RowNBelongsToReasonN());

std::uint16_t Swapped(std::uint16_t word) {
  return static_cast<std::uint16_t>(word << 8 | word >> 8);
}

// Either the identifier went out high byte first, or the id was swapped before its parity was added.
bool IsSwapped(const RefusedBytes& refused) {
  return Swapped(ProtectId(refused.unawaitedId)) == ProtectId(refused.awaitedId) ||
         Swapped(refused.unawaitedId) == refused.awaitedId;
}

std::string TextOf(const ReasonRow& row, const RefusedBytes& refused) {
  if (row.reason != RefusalReason::Unawaited) return row.text;
  return row.text + (": " + Hex(refused.unawaitedId, 3)) + " instead of " +
         Hex(refused.awaitedId, 3) +
         (IsSwapped(refused) ? ", which is the same with its bytes swapped" : "");
}

}  // namespace

std::string ReasonsOf(const RefusedBytes& refused) {
  std::string text;
  for (const ReasonRow& row : kReasons) {
    const std::uint32_t bytes = refused.Count(row.reason);
    if (bytes == 0) continue;
    text += (text.empty() ? "" : ", ") + TextOf(row, refused);
    if (bytes != refused.Total()) text += " (" + std::to_string(bytes) + ")";
  }
  return text;
}

std::string NoAnswerAmong(const RefusedBytes& refused) {
  const std::uint32_t bytes = refused.Total();
  if (bytes == 0) return {};
  return (bytes == 1 ? "1 byte" : std::to_string(bytes) + " bytes") +
         " came, no answer among them: " + ReasonsOf(refused);
}

std::string HintOn(const RefusedBytes& refused, TransportKind kind) {
  if (refused.Total() == 0) return {};
  const auto most = std::ranges::max_element(refused.counts) - refused.counts.begin();
  return std::string(kind == TransportKind::Ftdi ? "Check --baud and the line"
                                                 : "Unplug the device and plug it in again") +
         ". On a new device: " + kReasons[static_cast<std::size_t>(most)].hint + ".";
}

Json RefusedJson(const RefusedBytes& refused) {
  Json json = Json::Object();
  for (const ReasonRow& row : kReasons) {
    if (refused.Count(row.reason) > 0) json.Set(row.name, refused.Count(row.reason));
  }
  return json;
}

}  // namespace tavo::tool
