#include "update/failure.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace tavo::tool {
namespace {

// The table of error codes names two causes where a code has two; the text of the first says that a
// request could not be sent.
struct SecondCause {
  ErrorCode code;
  std::string_view notSent;
  std::string_view otherwise;
};

constexpr std::string_view kNotSent = "A request could not be sent to the device.";

constexpr std::array kSecondCauses{
    SecondCause{ErrorCode::BootloaderVersion, "Error: Bootloader Version Request",
                "The bootloader is incompatible."},
    SecondCause{ErrorCode::HardwareId, "Error: Sending Hardware ID Request",
                "The file is not for this device."},
    SecondCause{ErrorCode::ApplicationSize, "Error: Sending Application Size Request",
                "The firmware does not have the size of the device's application."},
    SecondCause{ErrorCode::Verify, "Error: Sending Verify Request",
                "The checksums differ: the flash does not hold the firmware."},
    SecondCause{ErrorCode::Firmware, "-", "No firmware in the file is for this device."},
};

const SecondCause* SecondCauseOf(ErrorCode code) {
  const auto row = std::ranges::find(kSecondCauses, code, &SecondCause::code);
  return row == kSecondCauses.end() ? nullptr : &*row;
}

// The name of a code with two causes stands for the one that is not a transmission failure.
std::string NameOf(ErrorCode code, const std::string& text) {
  const SecondCause* const causes = SecondCauseOf(code);
  if (causes != nullptr && text == causes->notSent) return "not-sent";
  return std::string(kErrorTable[static_cast<std::size_t>(code)].name);
}

std::string SentenceOf(ErrorCode code, const std::string& text) {
  const SecondCause* const causes = SecondCauseOf(code);
  if (causes != nullptr) return std::string(text == causes->notSent ? kNotSent : causes->otherwise);
  return std::string(kErrorTable[static_cast<std::size_t>(code)].meaning);
}

struct HintRow {
  ErrorCode code;
  std::string_view hint;
};

std::string_view LineHint(TransportKind kind) {
  return kind == TransportKind::Ftdi ? "Check the power, the line and --baud."
                                     : "Check the cable and the power.";
}
constexpr std::string_view kFile =
    "Use the update file for this device: `firmware-updater inspect FILE` shows which devices a "
    "file is "
    "for.";

constexpr std::array kHints{
    HintRow{ErrorCode::BootloaderVersion, "This tool cannot update a device with this bootloader."},
    HintRow{ErrorCode::HardwareId, kFile},
    HintRow{ErrorCode::ApplicationSize, kFile},
    HintRow{ErrorCode::Firmware, kFile},
    HintRow{ErrorCode::Verify, "Write the flash again."},
    HintRow{ErrorCode::SetLabel, "The new firmware runs without its label: run the update again."},
};

std::string_view HintOf(ErrorCode code, TransportKind kind) {
  const auto row = std::ranges::find(kHints, code, &HintRow::code);
  return row == kHints.end() ? LineHint(kind) : row->hint;
}

}  // namespace

Failure FailureOf(ErrorCode code, const std::string& text, TransportKind kind) {
  std::string sentence = SentenceOf(code, text);
  if (!text.empty()) sentence += " (" + text + ")";
  return {.name = NameOf(code, text),
          .code = static_cast<int>(code),
          .text = sentence,
          .hint = std::string(HintOf(code, kind))};
}

}  // namespace tavo::tool
