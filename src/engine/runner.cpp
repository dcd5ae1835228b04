// The runner: walks the plan, passes answers and timeouts to the step at its front, and decides how
// an update ends.
#include <cassert>
#include <utility>

#include "engine/firmware_updater.h"
#include "engine/update_observer.h"
#include "package/hardware_identity.h"
#include "package/update_file.h"

namespace tavo {

void FirmwareUpdater::Start(const Run& run, const std::string& updateFile) {
  BeginUpdate(run);
  RunWith(LoadUpdateFile(updateFile));
}

void FirmwareUpdater::Start(const Run& run, std::vector<FirmwareImage> images) {
  BeginUpdate(run);
  RunWith(std::move(images));
}

void FirmwareUpdater::BeginUpdate([[maybe_unused]] const Run& run) {
  assert(run.Permits(*this));
  ResetForUpdate();
  Report({StatusKind::UpdateBegins});
  m_selectedFirmware = nullptr;
}

void FirmwareUpdater::RunWith(std::vector<FirmwareImage> images) {
  m_firmwareImages = std::move(images);
  m_evidence.Begin(FindTunnelRoute(FirstImage()).master != -1);
  BuildPlan();
  m_log.LogInfo("FirmwareUpdater: Start.");
  PrepareTransport();
  RunSteps(StepPhase::Start);
  PollUntilDone();
}

void FirmwareUpdater::ResetForUpdate() {
  m_statusHandler = &m_status;
  m_blockSize = 0;
  m_deviceId = -1;
  m_softwareId = -1;
  m_bootloaderVersion = -1;
  m_processorId = -1;
  m_hardwareId = -1;
  m_applicationKiB = -1;
  m_checksum = -1;
  m_expectedChecksum = -1;
  m_succeeded = false;
  m_failed = false;
  m_activeTunnel = 0;
  m_waitStartTick = 0;
  m_writeOffset = 0;
  m_bytesDone = 0;
  m_retryCount = 0;
  m_rxMessage = TavoMessage{};
  m_errorText.clear();
}

void FirmwareUpdater::PrepareTransport() {
  SetSendMode(SendMode::Byte, "FirmwareUpdater: SendMode: BYTE aktivated.");
  if (Transport()) Transport()->DiscardLeftovers();
}

void FirmwareUpdater::SetSendMode(SendMode mode, const char* logLine) {
  if (!Transport() || Transport()->GetSendMode() == mode) return;
  Transport()->SetSendMode(mode);
  m_log.LogInfo("%s", logLine);
}

void FirmwareUpdater::PollUntilDone() {
  while (!m_plan.empty() && Transport()) {
    TavoMessage message;
    bool timedOut = false;
    if (!Transport()->ReceiveTavoMessage(&message, &timedOut)) continue;
    OnTransportEvent(timedOut ? nullptr : &message);
  }
}

void FirmwareUpdater::OnTransportEvent(const TavoMessage* message) {
  assert(!m_plan.empty());
  m_rxMessage = message ? *message : TavoMessage{};
  if (message) {
    m_evidence.Answered(m_lastBearing);
    return RunSteps(StepPhase::Answer);
  }
  m_evidence.Unanswered(m_lastBearing);
  // Half an answer, or a stray byte that looks like the start of one, would hold back the next
  // request.
  WaitUntilQuiet();
  RunSteps(StepPhase::Timeout);
}

void FirmwareUpdater::RunSteps(StepPhase phase) {
  while (!m_plan.empty()) {
    const Step step = m_plan.front();
    if (m_observer) m_observer->StepCalled(step, phase);
    if (m_stopRequested) return AbortPlan();
    const StepResult result = (this->*step.run)(phase);
    if (result == StepResult::Done) {
      m_plan.pop_front();
      if (m_plan.empty()) return EndPlan();
    } else if (result == StepResult::Failed) {
      FailPlan();
    } else {
      assert(result == StepResult::Wait);
      return;
    }
    phase = StepPhase::Start;
  }
}

void FirmwareUpdater::EndPlan() {
  assert(m_plan.empty());
  m_succeeded = !m_failed;
  if (!m_succeeded || m_flags.dryRun) return;
  m_evidence.Succeeded();
  Report({StatusKind::UpdateSucceeded});
}

void FirmwareUpdater::Report(const StatusMessage& message) {
  if (m_observer) m_observer->StatusReported(message);
  m_status.Handle(message);
}

void FirmwareUpdater::FailPlan() {
  assert(m_errorCode != ErrorCode::None);
  m_plan.clear();
  const std::string text = std::exchange(m_errorText, {});
  Report({StatusKind::UpdateFailed, static_cast<std::int32_t>(m_errorCode.load()), text});
  m_failed = true;
  WaitUntilQuiet();
  // Only once: a closing step that fails finds no closing plan left.
  m_plan.swap(m_closingPlan);
}

void FirmwareUpdater::AbortPlan() {
  assert(m_stopRequested);
  m_plan.clear();
  m_closingPlan.clear();
  // Shown, not stored: the code of the last failure remains for the host.
  Report({StatusKind::UpdateFailed, static_cast<std::int32_t>(ErrorCode::Identity)});
  m_succeeded = false;
  ReleaseStoppedUpdate();
}

void FirmwareUpdater::Pause(std::chrono::milliseconds duration) {
  assert(duration >= duration.zero());
  m_platform.Sleep(duration);
  if (Transport()) Transport()->LeaveOutPause();
}

void FirmwareUpdater::WaitUntilQuiet() {
  if (Transport()) Transport()->WaitUntilQuiet();
}

}  // namespace tavo
