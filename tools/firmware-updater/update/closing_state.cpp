#include "update/closing_state.h"

#include <algorithm>
#include <array>

namespace tavo::tool {
namespace {

// What gets the device going.
enum class Cure { None, Update, Recover };

struct ConditionRow {
  DeviceCondition condition;
  std::string_view name;
  std::string_view sentence;
  Cure cure;
  ExitCode exit;  // of an update that failed
};

// clang-format off
constexpr std::array kConditions{
  ConditionRow{DeviceCondition::Untouched, "untouched",
      "The device was not heard from, and its flash was not changed.",
      Cure::Update, ExitCode::FailedUnknown},
  ConditionRow{DeviceCondition::OldApplicationRuns, "old-application-runs",
      "The device runs its old firmware; nothing was written.",
      Cure::Update, ExitCode::FailedRuns},
  ConditionRow{DeviceCondition::UpdatedAndVerified, "updated-and-verified",
      "The device runs the new firmware, verified.",
      Cure::None, ExitCode::FailedRuns},
  ConditionRow{DeviceCondition::UpdatedNotVerified, "updated-not-verified",
      "The device runs the new firmware; nothing has verified its flash.",
      Cure::Update, ExitCode::FailedRuns},
  ConditionRow{DeviceCondition::RunsIncomplete, "runs-incomplete",
      "The device runs the new firmware, verified; whether its label and modules are right is unknown.",
      Cure::Update, ExitCode::FailedRuns},
  ConditionRow{DeviceCondition::BootloaderAsFound, "bootloader-as-found",
      "The device is in its bootloader, as it was found; its flash was not changed.",
      Cure::Recover, ExitCode::FailedInBootloader},
  ConditionRow{DeviceCondition::BootloaderFlashIntact, "bootloader-flash-intact",
      "The device is in its bootloader with a whole firmware in its flash.",
      Cure::Recover, ExitCode::FailedInBootloader},
  ConditionRow{DeviceCondition::BootloaderFlashErased, "bootloader-flash-erased",
      "The device is in its bootloader; its application is erased or partly written.",
      Cure::Recover, ExitCode::FailedInBootloader},
  ConditionRow{DeviceCondition::Unknown, "unknown",
      "The state of the device is unknown: an answer that would tell is missing.",
      Cure::Recover, ExitCode::FailedUnknown},
};
// clang-format on

constexpr bool RowNBelongsToConditionN() {
  for (std::size_t i = 0; i < kConditions.size(); ++i) {
    if (static_cast<std::size_t>(kConditions[i].condition) != i) return false;
  }
  return true;
}
static_assert(RowNBelongsToConditionN());

const ConditionRow& RowOf(DeviceCondition condition) {
  return kConditions[static_cast<std::size_t>(condition)];
}

std::string_view TunnelName(TunnelCondition tunnel) {
  switch (tunnel) {
    case TunnelCondition::NotAsked: return "not-asked";
    case TunnelCondition::Closed: return "closed";
    case TunnelCondition::LeftOpen: return "left-open";
    case TunnelCondition::Unknown: break;
  }
  return "unknown";
}

ExitCode ExitOf(const ConditionRow& row, Ending ending) {
  switch (ending) {
    case Ending::Succeeded: return ExitCode::Done;
    case Ending::Stopped: return ExitCode::Stopped;
    case Ending::Failed: break;
  }
  return row.exit;
}

std::string Flags(const UpdateFlags& flags, Cure cure) {
  std::string text;
  if (!flags.checkIdentity) text += " --skip-identity-check";
  if (flags.extendedErase) text += " --extended-erase";
  if (flags.bootloaderOnly && cure == Cure::Update) text += " --bootloader-only";
  if (flags.dryRun && cure == Cure::Update) text += " --dry-run";
  return text;
}

std::string CommandFor(Cure cure, const Task& task, const std::string& file) {
  const char* const verb = cure == Cure::Recover ? "recover " : "update ";
  return "firmware-updater " + (verb + file) + " " + TargetOptions(task.target) +
         Flags(task.flags, cure);
}

// One that begins with a hyphen would be taken for an option.
std::string FileWord(const std::string& file) {
  return ShellWord(file.starts_with('-') ? "./" + file : file);
}

bool FirmwareDoesNotFit(ErrorCode failure) {
  constexpr std::array kCodes{ErrorCode::HardwareId, ErrorCode::ApplicationSize,
                              ErrorCode::Firmware};
  return std::ranges::count(kCodes, failure) > 0;
}

std::string CommandOf(const ConditionRow& row, Ending ending, ErrorCode failure, const Task& task) {
  if (row.cure == Cure::None || ending == Ending::Succeeded) return {};
  // A dry run begins by leading the device back to its application, so that another one may do it;
  // where it has failed to, there is no application.
  const bool again = task.flags.dryRun && row.condition != DeviceCondition::BootloaderAsFound;
  const Cure cure = again ? Cure::Update : row.cure;
  if (ending != Ending::Failed || !FirmwareDoesNotFit(failure)) {
    return CommandFor(cure, task, FileWord(task.file));
  }
  return cure == Cure::Recover ? CommandFor(cure, task, "FILE") : std::string();
}

}  // namespace

bool RunsApplication(DeviceCondition condition) {
  return RowOf(condition).exit == ExitCode::FailedRuns;
}

std::string_view NameOf(DeviceCondition condition) { return RowOf(condition).name; }

std::string_view SentenceOf(DeviceCondition condition) { return RowOf(condition).sentence; }

std::string RecoverCommand(const Task& task) {
  return CommandFor(task.flags.dryRun ? Cure::Update : Cure::Recover, task, FileWord(task.file));
}

DeviceCondition Following(DeviceCondition earlier, DeviceCondition later) {
  const bool written = earlier == DeviceCondition::UpdatedAndVerified ||
                       earlier == DeviceCondition::UpdatedNotVerified ||
                       earlier == DeviceCondition::RunsIncomplete;
  if (!written) return later;
  switch (later) {
    case DeviceCondition::OldApplicationRuns: return DeviceCondition::RunsIncomplete;
    case DeviceCondition::BootloaderAsFound: return DeviceCondition::BootloaderFlashIntact;
    case DeviceCondition::Untouched: return DeviceCondition::Unknown;
    default: return later;
  }
}

std::string ClosingState::Line() const {
  if (command.empty()) return sentence;
  const bool mayRun = exit == ExitCode::FailedRuns ||
                      device == NameOf(DeviceCondition::OldApplicationRuns) ||
                      device == NameOf(DeviceCondition::Untouched);
  return sentence + (mayRun ? " To try again: " : " To get it going: ") + command;
}

ClosingState CloseWith(const DeviceEvidence& evidence, Ending ending, ErrorCode failure,
                       const Task& task) {
  const ConditionRow& row = RowOf(evidence.device);
  ClosingState state{.device = std::string(row.name),
                     .tunnel = std::string(TunnelName(evidence.tunnel)),
                     .sentence = std::string(row.sentence),
                     .command = CommandOf(row, ending, failure, task),
                     .exit = ExitOf(row, ending)};
  if (evidence.tunnel == TunnelCondition::LeftOpen) {
    state.sentence += " The tunnel to it is still open; the next update closes it.";
  }
  return state;
}

}  // namespace tavo::tool
