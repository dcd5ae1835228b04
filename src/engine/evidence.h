// Concludes the state of the device from the requests sent and the answers received, and from nothing
// else. However an update ends, its user has one question: what state is my device in? The answer is
// never a guess: a state that the answers leave open is called unknown.
//
//   evidence.Begin(needsTunnel);
//   evidence.Sent(Bearing::Bootloader);      // a request was handed to the line
//   evidence.Answered(Bearing::Bootloader);  // or Unanswered
//   ...
//   evidence.Conclude()                      // at any moment
//
// Two facts are tracked: how far the update has changed the device (Progress), and who responded
// last (Responder). A table maps the pair to a condition.
#pragma once

#include <cstdint>

namespace tavo {

enum class DeviceCondition {
  Untouched,              // never responded; its flash was not changed
  OldApplicationRuns,     // its application answers; the firmware was not changed
  UpdatedAndVerified,     // the new firmware is verified and has responded
  UpdatedNotVerified,     // the new firmware has responded, but nothing has verified it
  RunsIncomplete,         // the new firmware is verified and responds; label or modules unknown
  BootloaderAsFound,      // in its bootloader, the flash not changed, with or without firmware
  BootloaderFlashIntact,  // in its bootloader, with its old firmware or the new one verified
  BootloaderFlashErased,  // in its bootloader, the application erased or partly written
  Unknown,
};

enum class TunnelCondition {
  NotAsked,  // the update has neither asked for a tunnel nor opened or closed one
  Closed,
  LeftOpen,
  Unknown,
};

struct DeviceEvidence {
  DeviceCondition device = DeviceCondition::Untouched;
  TunnelCondition tunnel = TunnelCondition::NotAsked;
  bool operator==(const DeviceEvidence&) const = default;
};

// A request's responder and its effect on the device: a column of the command table.
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
  // An update begins. `needsTunnel`: the device is reached only through a tunnel; while that is
  // closed, neither answers nor silence prove anything about the device.
  void Begin(bool needsTunnel);

  void Sent(Bearing bearing);
  void Answered(Bearing bearing);
  // No answer came in time, or the request could not be sent whole.
  void Unanswered(Bearing bearing);

  // Contents of answers, and steps of the update.
  void TunnelReported(bool open);
  void LastBlockSent();
  void Verified(bool checksumsEqual);
  void Succeeded();

  DeviceEvidence Conclude() const;

 private:
  friend class EngineAccess;  // tests check which cell of the table a claim comes from

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
  enum class Responder {
    None,  // the last request went unanswered
    Application,
    Starting,  // the bootloader has agreed to start the application
    Bootloader,
  };
  static const DeviceCondition kConditions[8][4];  // by Progress and Responder

  bool Reaches(Bearing bearing) const;

  bool m_needsTunnel = false;
  bool m_closeAsked = false;  // since the tunnel was opened, whether or not it was answered
  TunnelCondition m_tunnel = TunnelCondition::NotAsked;
  Progress m_progress = Progress::NothingAsked;
  Responder m_responder = Responder::None;
  bool m_modulesUnknown = false;
  bool m_succeeded = false;
};

}  // namespace tavo
