// What the library knows about the device, from nothing but the requests that it has sent and the
// answers that it got. When an update ends, on whatever way, a host's user asks one question: what
// state is my device in? This is the answer, and it is never a guess: what the answers leave open is
// called unknown.
//
//   evidence.Begin(needsTunnel);
//   evidence.Sent(Bearing::Bootloader);      // a request was handed to the line
//   evidence.Answered(Bearing::Bootloader);  // or Unanswered
//   ...
//   evidence.Conclude()                      // at any moment
//
// Two things are followed: how far the update has changed the device (Progress), and who was heard
// from last (Heard). A table turns the pair into a condition.
#pragma once

#include <cstdint>

namespace tavo {

enum class DeviceCondition {
  Untouched,              // not heard of; its flash was not changed
  OldApplicationRuns,     // its application answers; the firmware was not changed
  UpdatedAndVerified,     // the new firmware is verified and was heard running
  UpdatedNotVerified,     // the new firmware was heard running, but nothing has verified it
  RunsIncomplete,         // the new firmware is verified and was heard; label or modules unknown
  BootloaderAsFound,      // in its bootloader, the flash not changed, with or without a firmware
  BootloaderFlashIntact,  // in its bootloader, with its old firmware or the new one verified
  BootloaderFlashErased,  // in its bootloader, the application erased or partly written
  Unknown,
};

enum class TunnelCondition {
  NotAsked,  // nothing was learnt of a tunnel and nothing done about one
  Closed,
  LeftOpen,
  Unknown,
};

struct DeviceEvidence {
  DeviceCondition device = DeviceCondition::Untouched;
  TunnelCondition tunnel = TunnelCondition::NotAsked;
  bool operator==(const DeviceEvidence&) const = default;
};

// Who answers a request, and what it does to the device: a column of the command table.
enum class Bearing : std::uint8_t {
  Identity,     // answered by the application, or by a master on its behalf
  Application,  // answered by the application, changes nothing
  Modules,      // the same; an update succeeds without the answer
  Bootloader,   // answered by the bootloader, changes nothing
  CallsBootloader,
  StartsApplication,
  Erases,
  ReportsTunnel,
  OpensTunnel,
  ClosesTunnel,
};

class Evidence {
 public:
  // An update begins. `needsTunnel`: the device is reached only through a tunnel, so while that is
  // closed nothing that is heard, and no silence, says anything about it.
  void Begin(bool needsTunnel);

  void Sent(Bearing bearing);
  void Answered(Bearing bearing);
  // No answer came in time, or the request could not be handed over whole.
  void Unanswered(Bearing bearing);

  // What the answers said, and what the update did.
  void TunnelReported(bool open);
  void LastBlockSent();
  void Verified(bool checksumsEqual);
  void Succeeded();

  DeviceEvidence Conclude() const;

 private:
  friend class EngineAccess;  // tests ask which cell of the table a claim comes from

  enum class Progress {
    NothingAsked,
    BootloaderAsked,   // and not answered: the device may have been there already
    BootloaderCalled,  // the application has agreed
    EraseAsked,        // and not answered
    Erased,            // and perhaps partly written
    Written,           // up to the last block, which may be unanswered
    VerifyFailed,
    Verified,
  };
  enum class Heard {
    Nobody,  // since the last request that went unanswered
    Application,
    Starting,  // the bootloader has agreed to start the application
    Bootloader,
  };
  static const DeviceCondition kConditions[8][4];  // by Progress and Heard

  bool Reaches(Bearing bearing) const;

  bool m_needsTunnel = false;
  bool m_closeAsked = false;  // since the tunnel was opened, whether or not it was answered
  TunnelCondition m_tunnel = TunnelCondition::NotAsked;
  Progress m_progress = Progress::NothingAsked;
  Heard m_heard = Heard::Nobody;
  bool m_modulesUnknown = false;
  bool m_succeeded = false;
};

}  // namespace tavo
