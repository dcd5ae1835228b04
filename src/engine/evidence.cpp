#include "engine/evidence.h"

#include <algorithm>
#include <cstddef>

namespace tavo {

// Unknown: states that a lost answer, or one that was not awaited, leaves open, and impossible ones,
// such as an application that responds although its flash was erased or verified as wrong.
// clang-format off
const DeviceCondition Evidence::kConditions[8][4] = {
#define C DeviceCondition
    //                      None                       Application            Starting                   Bootloader
    /* NothingAsked     */ {C::Untouched,              C::OldApplicationRuns, C::Unknown,                C::BootloaderAsFound},
    /* BootloaderAsked  */ {C::Unknown,                C::OldApplicationRuns, C::Unknown,                C::BootloaderAsFound},
    /* BootloaderCalled */ {C::Unknown,                C::OldApplicationRuns, C::Unknown,                C::BootloaderFlashIntact},
    /* EraseAsked       */ {C::Unknown,                C::OldApplicationRuns, C::Unknown,                C::Unknown},
    /* Erased           */ {C::BootloaderFlashErased,  C::Unknown,            C::BootloaderFlashErased,  C::BootloaderFlashErased},
    /* Written          */ {C::Unknown,                C::UpdatedNotVerified, C::Unknown,                C::Unknown},
    /* VerifyFailed     */ {C::BootloaderFlashErased,  C::Unknown,            C::BootloaderFlashErased,  C::BootloaderFlashErased},
    /* Verified         */ {C::Unknown,                C::RunsIncomplete,     C::Unknown,                C::BootloaderFlashIntact},
#undef C
};
// clang-format on

void Evidence::Begin(bool needsTunnel) {
  *this = Evidence();
  m_needsTunnel = needsTunnel;
}

bool Evidence::Reaches(Bearing bearing) const {
  switch (bearing) {
    case Bearing::ReportsTunnel:
    case Bearing::OpensTunnel:
    case Bearing::ClosesTunnel: return false;  // answered by the master
    case Bearing::Identity: return !m_needsTunnel;
    default: return !m_needsTunnel || (m_tunnel != TunnelCondition::Closed && !m_closeAsked);
  }
}

void Evidence::Sent(Bearing bearing) {
  if (bearing == Bearing::OpensTunnel || bearing == Bearing::ClosesTunnel) {
    m_tunnel = TunnelCondition::Unknown;
    m_closeAsked = bearing == Bearing::ClosesTunnel;
  }
  if (!Reaches(bearing)) return;
  if (bearing == Bearing::CallsBootloader) {
    m_progress = std::max(m_progress, Progress::BootloaderAsked);
  }
  if (bearing == Bearing::Erases) m_progress = Progress::EraseAsked;
}

void Evidence::Answered(Bearing bearing) {
  if (bearing == Bearing::OpensTunnel) m_tunnel = TunnelCondition::LeftOpen;
  if (bearing == Bearing::ClosesTunnel) m_tunnel = TunnelCondition::Closed;
  if (!Reaches(bearing)) return;
  switch (bearing) {
    case Bearing::StartsApplication: m_responder = Responder::Starting; break;
    case Bearing::Bootloader: m_responder = Responder::Bootloader; break;
    case Bearing::CallsBootloader:
      m_responder = Responder::Bootloader;
      m_progress = std::max(m_progress, Progress::BootloaderCalled);
      break;
    case Bearing::Erases:
      m_responder = Responder::Bootloader;
      m_progress = Progress::Erased;
      break;
    default: m_responder = Responder::Application; break;
  }
}

void Evidence::Unanswered(Bearing bearing) {
  if (bearing == Bearing::Modules) m_modulesUnknown = true;
  if (Reaches(bearing)) m_responder = Responder::None;
}

void Evidence::TunnelReported(bool open) {
  m_tunnel = open ? TunnelCondition::LeftOpen : TunnelCondition::Closed;
}

void Evidence::LastBlockSent() { m_progress = Progress::Written; }

void Evidence::Verified(bool checksumsEqual) {
  m_progress = checksumsEqual ? Progress::Verified : Progress::VerifyFailed;
}

void Evidence::Succeeded() { m_succeeded = true; }

DeviceEvidence Evidence::Conclude() const {
  if (!m_succeeded) {
    return {
        kConditions[static_cast<std::size_t>(m_progress)][static_cast<std::size_t>(m_responder)],
        m_tunnel};
  }
  if (m_progress != Progress::Verified) return {DeviceCondition::UpdatedNotVerified, m_tunnel};
  return {m_modulesUnknown ? DeviceCondition::RunsIncomplete : DeviceCondition::UpdatedAndVerified,
          m_tunnel};
}

}  // namespace tavo
