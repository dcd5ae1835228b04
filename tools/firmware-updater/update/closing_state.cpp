#include "update/closing_state.h"

#include <algorithm>
#include <array>

namespace tavo::tool {
namespace {

// The command that helps.
enum class Cure { None, Again, Update, Recover };

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
      "The device was not updated; its flash was not changed.",
      Cure::Again, ExitCode::FailedUnknown},
  ConditionRow{DeviceCondition::OldApplicationRuns, "old-application-runs",
      "The device runs its old firmware; nothing was written.",
      Cure::Update, ExitCode::FailedRuns},
  ConditionRow{DeviceCondition::UpdatedAndVerified, "updated-and-verified",
      "The device runs the new firmware, verified.",
      Cure::None, ExitCode::FailedRuns},
  ConditionRow{DeviceCondition::UpdatedNotVerified, "updated-not-verified",
      "The device runs the new firmware; its flash is not verified.",
      Cure::Update, ExitCode::FailedRuns},
  ConditionRow{DeviceCondition::RunsIncomplete, "runs-incomplete",
      "The device runs the new firmware, verified; the state of its label and modules is unknown.",
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
      "The state of the device is unknown: an answer that would show it is missing.",
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

std::string Flags(const Task& task) {
  std::string text;
  if (!task.flags.checkIdentity) text += " --skip-identity-check";
  if (task.flags.extendedErase) text += " --extended-erase";
  if (task.purpose == Purpose::Recover) return text;
  if (task.flags.bootloaderOnly) text += " --bootloader-only";
  if (task.flags.dryRun) text += " --dry-run";
  return text;
}

std::string CommandWith(const Task& task, const std::string& file) {
  return std::string("firmware-updater ") + NameOf(task.purpose) + " " + file + " " +
         TargetOptions(task.target) + Flags(task);
}

std::string CommandOf(const ConditionRow& row, Ending ending, Advice advice, Task task) {
  if (row.cure == Cure::None || ending == Ending::Succeeded) return {};
  // A dry run begins by leading the device back to its application, so that another one may do it;
  // where it has failed to, there is no application.
  const bool again = task.flags.dryRun && row.condition != DeviceCondition::BootloaderAsFound;
  if (again || row.cure == Cure::Update) task.purpose = Purpose::Update;
  if (!again && row.cure == Cure::Recover) task.purpose = Purpose::Recover;
  switch (advice) {
    case Advice::Again: break;
    case Advice::SkipIdentity: task.flags.checkIdentity = false; break;
    case Advice::OpenTunnel: task.flags.bootloaderOnly = false; break;
    case Advice::AnotherFile:
      return row.cure == Cure::Recover ? CommandWith(task, "FILE") : std::string();
  }
  return CommandLine(task);
}

bool IsUsable(const ConditionRow& row) {
  return RunsApplication(row.condition) || row.condition == DeviceCondition::Untouched;
}

}  // namespace

bool RunsApplication(DeviceCondition condition) {
  return RowOf(condition).exit == ExitCode::FailedRuns;
}

std::string_view NameOf(DeviceCondition condition) { return RowOf(condition).name; }

std::string_view SentenceOf(DeviceCondition condition) { return RowOf(condition).sentence; }

const char* NameOf(Purpose purpose) { return purpose == Purpose::Update ? "update" : "recover"; }

std::string FileWord(const std::string& file) {
  return ShellWord(file.starts_with('-') ? "./" + file : file);
}

std::string CommandLine(const Task& task) { return CommandWith(task, FileWord(task.file)); }

std::string RecoverCommand(const Task& task) {
  Task next = task;
  next.purpose = task.flags.dryRun ? Purpose::Update : Purpose::Recover;
  return CommandLine(next);
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
  const char* const aim = tries       ? " To try again, run: "
                          : needsFile ? " To recover it, run this with the update file for it: "
                                      : " To recover it, run: ";
  return sentence + aim + command;
}

ClosingState CloseWith(const DeviceEvidence& evidence, Ending ending, Advice advice,
                       const Task& task) {
  const ConditionRow& row = RowOf(evidence.device);
  ClosingState state{.device = std::string(row.name),
                     .tunnel = std::string(TunnelName(evidence.tunnel)),
                     .sentence = std::string(row.sentence),
                     .command = CommandOf(row, ending, advice, task),
                     .tries = IsUsable(row),
                     .needsFile = advice == Advice::AnotherFile,
                     .exit = ExitOf(row, ending)};
  if (evidence.tunnel == TunnelCondition::LeftOpen) {
    state.sentence += " The tunnel to it is still open; the next update closes it.";
  }
  return state;
}

ClosingState ClosingStateIn(const Json& result) {
  const Json& state = result["state"];
  ClosingState closing{.device = state["device"].String(),
                       .tunnel = state["tunnel"].String(),
                       .sentence = state["text"].String(),
                       .command = state["next"].String()};
  const auto row = std::ranges::find(kConditions, closing.device, &ConditionRow::name);
  closing.tries = row != kConditions.end() && IsUsable(*row);
  closing.needsFile = closing.command.find(" FILE ") != std::string::npos;
  closing.exit = static_cast<ExitCode>(result["exit"].Number());
  return closing;
}

}  // namespace tavo::tool
