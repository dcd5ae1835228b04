#include "closing_state.h"

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

std::string CommandOf(const ConditionRow& row, Ending ending, const std::string& file,
                      const Target& target) {
  if (row.cure == Cure::None || ending == Ending::Succeeded) return {};
  const char* const verb = row.cure == Cure::Recover ? "recover " : "update ";
  return "firmware-updater " + (verb + ShellWord(file)) + " " + TargetOptions(target);
}

}  // namespace

bool RunsApplication(DeviceCondition condition) {
  return RowOf(condition).exit == ExitCode::FailedRuns;
}

std::string_view SentenceOf(DeviceCondition condition) { return RowOf(condition).sentence; }

ClosingState CloseWith(const DeviceEvidence& evidence, Ending ending, const std::string& file,
                       const Target& target) {
  const ConditionRow& row = RowOf(evidence.device);
  ClosingState state{.device = std::string(row.name),
                     .tunnel = std::string(TunnelName(evidence.tunnel)),
                     .sentence = std::string(row.sentence),
                     .command = CommandOf(row, ending, file, target),
                     .exit = ExitOf(row, ending)};
  if (evidence.tunnel == TunnelCondition::LeftOpen) {
    state.sentence += " The tunnel to it is still open; the next update closes it.";
  }
  return state;
}

}  // namespace tavo::tool
