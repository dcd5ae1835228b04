#include "update/course.h"

#include <algorithm>

#include "engine/firmware_updater.h"

namespace tavo::tool {
namespace {

using U = FirmwareUpdater;

struct StepRow {
  StepResult (U::*run)(StepPhase phase);
  Phase phase;
};

// Steps that are not listed here belong to the phase under way.
constexpr std::array kSteps{
    StepRow{&U::CheckFirmware, Phase::Contact},   StepRow{&U::CallBootloader, Phase::Bootloader},
    StepRow{&U::CheckVersion, Phase::Bootloader}, StepRow{&U::EraseApplication, Phase::Erase},
    StepRow{&U::WriteBlock, Phase::Write},        StepRow{&U::Verify, Phase::Verify},
    StepRow{&U::StartApplication, Phase::Start},  StepRow{&U::SetLabel, Phase::Finish},
};

Phase PhaseOf(const Step& step, Phase current) {
  const auto row = std::ranges::find(kSteps, step.run, &StepRow::run);
  return row == kSteps.end() ? current : row->phase;
}

}  // namespace

void Course::StepCalled(const Step& step, StepPhase phase) {
  if (m_stopping) return m_stop();
  m_asksIdentity = step.run == &U::RequestDeviceId || step.run == &U::RequestDeviceIdAdmin;
  if (m_failure == ErrorCode::None) Enter(PhaseOf(step, m_phase));
  m_lastRefused = phase == StepPhase::Start ? RefusedBytes() : m_askRefused();
  m_refused += m_lastRefused;
  // Silence is the ordinary answer of a running application to the request to leave the bootloader.
  const bool expected = step.run == &U::LeaveBootloader;
  if (phase != StepPhase::Timeout || expected) return;
  ++m_retries;
  m_view.Retried(m_dialogue.LastRequest().text, m_lastRefused);
}

void Course::StatusReported(const StatusMessage& message) {
  switch (message.kind) {
    case StatusKind::UpdateBegins:
      m_failure = ErrorCode::None;
      m_failureText.clear();
      m_failureRefused = {};
      m_identityMissing = false;
      m_earlier = Written();
      m_transfer = {};
      break;
    case StatusKind::UpdateFailed:
      // Without a code it is the heading of the list of reset modules.
      if (message.value == 0 || m_failure != ErrorCode::None || m_stopping) break;
      m_failure = static_cast<ErrorCode>(message.value);
      m_failureText = message.text;
      m_failureRequest = m_dialogue.LastRequest();
      if (m_failure == ErrorCode::Timeout) m_failureRefused = m_lastRefused;
      m_identityMissing = m_asksIdentity && m_failure == ErrorCode::Timeout;
      Leave(PhaseEnd::Failed);
      Enter(Phase::BringBack);
      break;
    case StatusKind::TransferBegins: m_transfer = {.total = message.value}; break;
    case StatusKind::TransferProgress:
      m_transfer.done = message.value;
      m_transfer.elapsed = m_platform.MonotonicNow() - m_phaseBegin;
      m_view.Wrote(m_transfer);
      break;
    default: break;
  }
}

void Course::Enter(Phase phase) {
  if (phase == m_phase) return;
  Leave(PhaseEnd::Ok);
  m_phase = phase;
  m_mayHaveErased |= phase == Phase::Erase;
  m_phaseBegin = m_platform.MonotonicNow();
  m_view.PhaseBegins(phase);
}

void Course::Leave(PhaseEnd end) {
  if (m_phase == Phase::None) return;
  const std::chrono::milliseconds elapsed = m_platform.MonotonicNow() - m_phaseBegin;
  m_durations[static_cast<std::size_t>(m_phase.load())] += elapsed;
  m_view.PhaseEnds(m_phase, end, elapsed, m_transfer);
  m_phase = Phase::None;
}

}  // namespace tavo::tool
