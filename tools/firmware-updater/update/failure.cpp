#include "update/failure.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace tavo::tool {
namespace {

struct HintRow {
  ErrorCode code;
  std::string_view hint;
};

constexpr std::string_view kLine =
    "Check the cable, the power and the line, then run the command below.";
constexpr std::string_view kFile =
    "Take the update file for this device; `firmware-updater inspect FILE` tells what a file fits, "
    "`firmware-updater info` what the device is.";

constexpr std::array kHints{
    HintRow{ErrorCode::Timeout,
            "Check power, line and baud rate; a device that hangs may need its power switched off "
            "and on. Then run the command below."},
    HintRow{
        ErrorCode::BootloaderVersion,
        "A device with bootloader version 0 cannot be updated with this tool; behind an adapter "
        "it may be the line that gives back what is sent: try --echo. Otherwise check the cable "
        "and try again."},
    HintRow{ErrorCode::HardwareId, kFile},
    HintRow{ErrorCode::ApplicationSize, kFile},
    HintRow{ErrorCode::Firmware, kFile},
    HintRow{ErrorCode::Verify,
            "The flash content is wrong: write it again with the command below."},
    HintRow{ErrorCode::SetLabel,
            "The new firmware runs without its label: run the full update again."},
};

std::string_view HintOf(ErrorCode code) {
  const auto row = std::ranges::find(kHints, code, &HintRow::code);
  return row == kHints.end() ? kLine : row->hint;
}

}  // namespace

Failure FailureOf(ErrorCode code, const std::string& text) {
  const ErrorDescription& row = kErrorTable[static_cast<std::size_t>(code)];
  std::string sentence(row.meaning);
  if (!text.empty()) sentence += " (" + text + ")";
  return {.name = std::string(row.name),
          .code = static_cast<int>(code),
          .text = sentence,
          .hint = std::string(HintOf(code))};
}

}  // namespace tavo::tool
