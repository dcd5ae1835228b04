// Tunnel management: some device families can be reached only through a tunnel that the connected
// master opens.
#include "engine/firmware_updater.h"
#include "package/hardware_identity.h"
#include "protocol/commands.h"

namespace tavo {
namespace {

using std::chrono::milliseconds;

// How long a master needs to set its tunnel up, from nothing or after another tunnel.
constexpr milliseconds kFirstTunnelSetUp{6000};
constexpr milliseconds kTunnelChange{1000};

constexpr Step kInitTunnelStep{&FirmwareUpdater::InitTunnel, "Init Tunnel"};
constexpr Step kDeinitTunnelStep{&FirmwareUpdater::DeinitTunnel, "Deinit Tunnel"};

bool IsOpen(std::uint16_t tunnel) { return tunnel != 0 && tunnel != kNoTunnelEither; }

bool NeedsTunnel(const TunnelRoute& route) { return route.master != -1; }

std::uint16_t AsTunnel(const TunnelRoute& route) {
  return static_cast<std::uint16_t>(((route.master & 0xFF) << 8) | (route.slave & 0xFF));
}

}  // namespace

StepResult FirmwareUpdater::TunnelStatus(StepPhase phase) {
  std::uint16_t tunnel = 0;
  switch (phase) {
    case StepPhase::Start:
      CommSendEscape();
      if (TrySend(kTunnelStatus)) return StepResult::Wait;
      m_log.LogInfo("FirmwareUpdater: Tunnel Status: Error. Channelstatus set to zero.");
      break;
    case StepPhase::Answer:
      m_log.LogInfo("FirmwareUpdater: Tunnel Status: Master: %d | Slave %d.",
                    m_rxMessage.payload[1], m_rxMessage.payload[0]);
      tunnel = AnswerValue();
      // An answer without slave and master counts as "none open" for the plan, but proves nothing.
      if (m_rxMessage.length >= 2) m_evidence.TunnelReported(IsOpen(tunnel));
      break;
    case StepPhase::Timeout: OnTimeout(kTunnelStatus); break;
  }
  m_activeTunnel = tunnel;
  if (IsOpen(tunnel)) InsertNext(kDeinitTunnelStep);
  return StepResult::Done;
}

StepResult FirmwareUpdater::PlanTunnel(StepPhase /*phase*/) {
  const TunnelRoute route = FindTunnelRoute(FirstImage());
  if (!NeedsTunnel(route)) return StepResult::Done;
  if (m_activeTunnel != AsTunnel(route)) InsertNext(kInitTunnelStep);
  m_plan.push_back(kDeinitTunnelStep);
  return StepResult::Done;
}

StepResult FirmwareUpdater::InitTunnel(StepPhase phase) {
  const TunnelRoute route = FindTunnelRoute(FirstImage());
  switch (phase) {
    case StepPhase::Start: {
      if (!NeedsTunnel(route)) {
        m_log.LogInfo("FirmwareUpdater: Init Tunnel: No Tunnel necessary.");
        return StepResult::Done;
      }
      const std::array slaveAndMaster{static_cast<std::uint8_t>(route.slave),
                                      static_cast<std::uint8_t>(route.master)};
      return Send(kInitTunnel, slaveAndMaster);
    }
    case StepPhase::Answer:
      m_log.LogInfo("FirmwareUpdater: Init Tunnel: Master: %d | Slave %d.", route.master,
                    route.slave);
      Pause(m_activeTunnel == 0 ? kFirstTunnelSetUp : kTunnelChange);
      return StepResult::Done;
    case StepPhase::Timeout: return OnTimeout(kInitTunnel);
  }
  return StepResult::Wait;
}

// The step does not depend on the answer to the close request, which masters of some families do not
// give. But an answer that does come must not be taken for that to the next request, so the step
// drains the line until the request is settled.
StepResult FirmwareUpdater::DeinitTunnel(StepPhase phase) {
  switch (phase) {
    case StepPhase::Start:
      CommSendEscape();
      TrySend(kDeinitTunnel);
      m_log.LogInfo("FirmwareUpdater: Deinit Tunnel: Request");
      Report({StatusKind::WaitAndResume, kTunnelCloses, {}, kTunnelClosing});
      return StepResult::Wait;
    case StepPhase::Answer:
      if (DrainLine()) m_evidence.Answered(Bearing::ClosesTunnel);
      m_log.LogInfo("FirmwareUpdater: Deinit Tunnel: Ok.");
      return StepResult::Done;
    case StepPhase::Timeout: return StepResult::Wait;
  }
  return StepResult::Wait;
}

}  // namespace tavo
