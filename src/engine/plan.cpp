// The plan of an update: which steps run, in which order, under which flags.
#include <array>
#include <cassert>

#include "engine/firmware_updater.h"

namespace tavo {
namespace {

enum class When {
  Always,
  FullPlan,          // unless the update uses the bootloader only
  FullPlanIdentity,  // the same, and only with identity checks on
  OutsideBootloader,
  HardwareCheck,  // the same, or when that check is requested by itself
  Changing,       // unless it is a dry run
  FullPlanChanging,
};

struct PlannedStep {
  Step step;
  When when;
};

using U = FirmwareUpdater;

// clang-format off
constexpr std::array<PlannedStep, 21> kPlan{{
    {{&U::CheckFirmware,          "Check Firmware"},                 When::Always},
    {{&U::LeaveBootloader,        "Start Application"},              When::FullPlan},
    {{&U::TunnelStatus,           "Tunnel Status"},                  When::FullPlan},
    {{&U::RequestDeviceId,        "Device-ID"},                      When::FullPlanIdentity},
    {{&U::RequestDeviceIdAdmin,   "Device-ID (Admin)"},              When::FullPlanIdentity},
    {{&U::PlanTunnel,             "-"},                              When::FullPlan},
    {{&U::RequestSoftwareId,      "Software-ID"},                    When::FullPlan},
    {{&U::CallBootloader,         "Call Bootloader"},                When::OutsideBootloader},
    {{&U::CheckVersion,           "Check Version"},                  When::Always},
    {{&U::RequestProcessorId,     "Request Prozessor-ID"},           When::Always},
    {{&U::SelectFirmware,         "Select Firmware"},                When::Always},
    {{&U::CheckApplicationSize,   "Check Application Section Size"}, When::Always},
    {{&U::CheckHardwareId,        "Check HardwareId"},               When::HardwareCheck},
    {{&U::EraseApplication,       "Erase Application Memory"},       When::Changing},
    {{&U::WriteBlock,             "Write Block"},                    When::Changing},
    {{&U::Verify,                 "Verify"},                         When::Changing},
    {{&U::StartApplication,       "Start Application"},              When::Always},
    {{&U::WaitForApplication,     "Wait for Application"},           When::Always},
    {{&U::SetLabel,               "Set Label"},                      When::FullPlanChanging},
    {{&U::WaitForApplication,     "Wait for Application"},           When::FullPlanChanging},
    {{&U::RequestResettedModules, "Request resetted Modules"},       When::FullPlanChanging},
}};

// Leads a device back to its application after a failure.
constexpr std::array<PlannedStep, 3> kClosingPlan{{
    {{&U::TunnelStatus,               "Tunnel Status"},        When::FullPlan},
    {{&U::LeaveBootloader,            "Start Application"},    When::Always},
    {{&U::WaitForApplicationTolerant, "Wait for Application"}, When::Always},
}};
// clang-format on

bool Included(When when, const UpdateFlags& flags) {
  switch (when) {
    case When::Always: return true;
    case When::FullPlan: return !flags.bootloaderOnly;
    case When::FullPlanIdentity: return !flags.bootloaderOnly && flags.checkIdentity;
    case When::OutsideBootloader: return !flags.inBootloader;
    case When::HardwareCheck:
      return flags.checkHardware || (!flags.bootloaderOnly && flags.checkIdentity);
    case When::Changing: return !flags.dryRun;
    case When::FullPlanChanging: return !flags.bootloaderOnly && !flags.dryRun;
  }
  return false;
}

}  // namespace

void FirmwareUpdater::BuildPlan() {
  const auto fill = [this](std::deque<Step>& plan, const auto& table) {
    plan.clear();
    for (const PlannedStep& row : table) {
      assert(row.step.run != nullptr);
      if (Included(row.when, m_flags)) plan.push_back(row.step);
    }
  };
  fill(m_plan, kPlan);
  fill(m_closingPlan, kClosingPlan);
}

void FirmwareUpdater::InsertNext(const Step& step) {
  assert(!m_plan.empty());
  m_plan.insert(m_plan.begin() + 1, step);
}

}  // namespace tavo
