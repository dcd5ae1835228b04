#include "engine/evidence.h"

#include <algorithm>
#include <cstddef>

namespace tavo {

// Unknown are the states that a lost answer, or one that was not waited for, leaves open, and what
// cannot be: an application that answers although its flash was erased or came out wrong.
// clang-format off
const DeviceCondition Evidence::kConditions[8][4] = {
#define C DeviceCondition
    //                      Nobody                     Application            Starting                   Bootloader
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
    case Bearing::ClosesTunnel: return false;  // the master's own business
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
    case Bearing::StartsApplication: m_heard = Heard::Starting; break;
    case Bearing::Bootloader: m_heard = Heard::Bootloader; break;
    case Bearing::CallsBootloader:
      m_heard = Heard::Bootloader;
      m_progress = std::max(m_progress, Progress::BootloaderCalled);
      break;
    case Bearing::Erases:
      m_heard = Heard::Bootloader;
      m_progress = Progress::Erased;
      break;
    default: m_heard = Heard::Application; break;
  }
}

void Evidence::Unanswered(Bearing bearing) {
  if (bearing == Bearing::Modules) m_modulesUnknown = true;
  if (Reaches(bearing)) m_heard = Heard::Nobody;
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
    return {kConditions[static_cast<std::size_t>(m_progress)][static_cast<std::size_t>(m_heard)],
            m_tunnel};
  }
  if (m_progress != Progress::Verified) return {DeviceCondition::UpdatedNotVerified, m_tunnel};
  return {m_modulesUnknown ? DeviceCondition::RunsIncomplete : DeviceCondition::UpdatedAndVerified,
          m_tunnel};
}

}  // namespace tavo
