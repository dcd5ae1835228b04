// The update engine: all state of the update in progress and of the last finished one, the plan of
// steps, the runner that walks it, and the steps themselves as member operations.
//
//   FirmwareUpdater engine(platform, log, holder);
//   FirmwareUpdater::Run run(engine);                 // the right to update, if Granted()
//   ...                                               // open a transport of the holder
//   engine.SetFlags({.extendedErase = true});
//   engine.Start(run, "firmware.zip");                // blocks until the update has ended
//   if (!engine.Succeeded()) Show(engine.LastError());
//
// A step sends one request and is called again with its answer or its timeout. The runner, not the
// step, knows what comes next:
//
//            Start                    answer: Answer, no answer: Timeout
//   [step] ---------> request sent, Wait -------------------------------> Done: next step
//                                                                         Failed: closing plan
//
// The steps are defined by theme in protocol/; those files include this header, never the reverse.
//
// Thread rules: one thread runs an update. Other threads may at any time call RequestStop,
// LastError, Progress and ResettedModule. Images and transport belong to the update thread alone
// while an update runs.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "engine/error_code.h"
#include "engine/evidence.h"
#include "engine/status_handler.h"
#include "engine/step.h"
#include "engine/transport_holder.h"
#include "log/logger.h"
#include "package/firmware_image.h"
#include "package/image_blocks.h"
#include "platform/platform.h"
#include "transport/tavo_message.h"

namespace tavo {

struct Command;  // one row of the bootloader protocol's command table

struct UpdateFlags {
  bool checkIdentity = true;    // ask for device ids and check the hardware id
  bool extendedErase = false;   // erase mode 3 instead of 1
  bool bootloaderOnly = false;  // no tunnel, identity, label or module steps
  bool dryRun = false;          // every check up to the erase, then back to the application
  // Check the hardware id even if the other flags skip that. Without a device id, every hardware id
  // that the firmware accepts will do.
  bool checkHardware = false;
  // The device is known to be in its bootloader, which would let the call of the bootloader time out.
  bool inBootloader = false;
};

// Facts that the device reported during the last update; -1 = not reported.
struct DeviceFacts {
  std::int32_t deviceId = -1;
  std::int32_t softwareId = -1;  // of the application before the update
  std::int32_t bootloaderVersion = -1;
  std::int32_t blockSize = -1;  // bytes
  std::int32_t processorId = -1;
  std::int32_t hardwareId = -1;
  std::int32_t applicationKiB = -1;
  // Checksums of the last verification, as calculated and as the firmware says.
  std::int64_t checksum = -1;
  std::int64_t expectedChecksum = -1;
};

class UpdateObserver;

class FirmwareUpdater {
 public:
  // The references must outlive the engine.
  FirmwareUpdater(Platform& platform, Logger& log, TransportHolder& holder);
  FirmwareUpdater(const FirmwareUpdater&) = delete;
  FirmwareUpdater& operator=(const FirmwareUpdater&) = delete;

  // The one engine of the process; for the exports only.
  static FirmwareUpdater& Instance();

  // The right to run an update, held from before the transport is touched until it is closed again.
  // Only one is granted at a time.
  class Run {
   public:
    explicit Run(FirmwareUpdater& engine);
    ~Run();
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;
    bool Granted() const { return m_granted; }
    // Whether this is the right to run `engine`.
    bool Permits(const FirmwareUpdater& engine) const { return m_granted && &m_engine == &engine; }

   private:
    FirmwareUpdater& m_engine;
    bool m_granted;
  };

  void SetFlags(const UpdateFlags& flags) { m_flags = flags; }

  // Whether an update draws its progress bar on the console; on from the beginning.
  void ShowProgressBar(bool on) { m_status.ShowProgressBar(on); }

  // From the next update on; null for none. Must outlive the update.
  void SetObserver(UpdateObserver* observer) { m_observer = observer; }

  // Runs one update to its end over the held, open transport; `run` must have been granted. The
  // result is in Succeeded. Throws std::bad_alloc, and has then ended where it was.
  void Start(const Run& run, const std::string& updateFile);
  // The same with the images of an update file that has been read already.
  void Start(const Run& run, std::vector<FirmwareImage> images);
  bool Succeeded() const { return m_succeeded; }
  // The state of the device as the answers of the last update prove it; update thread only.
  DeviceEvidence DeviceState() const { return m_evidence.Conclude(); }

  // Facts about the device in the last update; update thread only.
  DeviceFacts Facts() const;

  // --- From any thread ---

  // Asks the update that holds the right to run to end before its next step, at the latest after the
  // pause or the wait for a quiet line that is in hand. One that has not started yet ends before its
  // first step. When none holds the right, releases what the last one kept. The first request since
  // the last right was granted counts; further ones do nothing.
  void RequestStop();

  // The code stored last; it outlives later updates.
  ErrorCode LastError() const { return m_errorCode; }

  // Bytes transferred to bytes to transfer, above 1 when blank blocks were written too; -1 while
  // there is nothing to transfer.
  float Progress() const;

  // Name of a reset module; none when the list has no such index.
  std::optional<std::string> ResettedModule(std::uint32_t index) const;

  // --- Plan and runner ---

  void BuildPlan();
  void RunSteps(StepPhase phase);
  // A received answer, or null for a timeout.
  void OnTransportEvent(const TavoMessage* message);
  // Blocks the update thread; the pause does not count against any answer.
  void Pause(std::chrono::milliseconds duration);

  // --- Steps, in the order of the plan ---

  StepResult CheckFirmware(StepPhase phase);
  StepResult LeaveBootloader(StepPhase phase);
  StepResult TunnelStatus(StepPhase phase);
  StepResult RequestDeviceId(StepPhase phase);
  StepResult RequestDeviceIdAdmin(StepPhase phase);
  StepResult PlanTunnel(StepPhase phase);
  StepResult InitTunnel(StepPhase phase);
  StepResult RequestSoftwareId(StepPhase phase);
  StepResult CallBootloader(StepPhase phase);
  StepResult CheckVersion(StepPhase phase);
  StepResult RequestProcessorId(StepPhase phase);
  StepResult SelectFirmware(StepPhase phase);
  StepResult CheckApplicationSize(StepPhase phase);
  StepResult CheckHardwareId(StepPhase phase);
  StepResult EraseApplication(StepPhase phase);
  StepResult WriteBlock(StepPhase phase);
  StepResult Verify(StepPhase phase);
  StepResult StartApplication(StepPhase phase);
  StepResult WaitForApplication(StepPhase phase);
  StepResult WaitForApplicationTolerant(StepPhase phase);
  StepResult SetLabel(StepPhase phase);
  StepResult RequestResettedModules(StepPhase phase);
  StepResult DeinitTunnel(StepPhase phase);

 private:
  friend class EngineAccess;  // tests set up and read single fields

  //                    answer                   answer; the offset moves on
  //   [Positioning] -----------> [Writing] ---------------------------------> [Positioning]
  //         |
  //         | answer, offset = size
  //         v
  //       Done
  //
  // After a timeout the same request goes out again; one too many fails the update. The numbers
  // appear in the log.
  enum class WriteState : std::uint32_t {
    Positioning = 1,  // the address has been sent; its answer ends the state
    Writing = 2,      // the block has been sent; its answer ends the state
  };

  // Start and runner
  void BeginUpdate(const Run& run);
  void RunWith(std::vector<FirmwareImage> images);
  void ResetForUpdate();
  void PrepareTransport();
  void PollUntilDone();
  void EndPlan();
  void AbortPlan();
  void FailPlan();
  void ReleaseStoppedUpdate();
  void Report(const StatusMessage& message);
  void InsertNext(const Step& step);

  // Shared by the steps
  ICommInterface* Transport() const { return m_holder.Transport(); }
  const FirmwareImage& FirstImage() const;
  const FirmwareImage& SelectedFirmware() const;
  std::uint16_t ApplicationRequestId() const;
  std::uint16_t AnswerValue() const;
  bool SoftwareIdIsNoLabel() const;
  void SetSendMode(SendMode mode, const char* logLine);

  bool CommSendTavo(std::uint16_t id, const std::uint8_t* payload, std::uint8_t length);
  void CommSendRaw(const std::uint8_t* bytes, std::int32_t length);
  void CommSendEscape();
  void WaitUntilQuiet();
  bool DrainLine();

  bool TrySend(const Command& command, std::span<const std::uint8_t> arguments = {});
  StepResult Send(const Command& command, std::span<const std::uint8_t> arguments = {});
  StepResult FailSend(const Command& command);
  StepResult OnTimeout(const Command& command);
  StepResult Tolerate(const Command& command);
  StepResult Fail(ErrorCode code, const char* format, ...) TAVO_PRINTF_LIKE(3, 4);
  StepResult RetryAfterPause();
  StepResult RequestValue(StepPhase phase, const char* name, const Command& command,
                          std::int32_t& destination, bool failOnTimeout);

  // The work of single steps
  StepResult RejectFirmware(const char* text);
  StepResult AcceptBootloader();
  StepResult CompareApplicationSize();
  StepResult CompareHardwareId();
  std::int32_t AcceptedHardwareIds(std::vector<std::uint16_t>& accepted) const;
  bool MatchesHardwareId(std::uint16_t hardwareId, const std::vector<std::uint16_t>& accepted);
  std::uint32_t ImageSize() const;
  ImageBlocks Blocks() const;
  StepResult BeginWriting();
  StepResult BlockAnswered();
  StepResult RetryWriting();
  StepResult SendWriteRequest();
  StepResult SendBlock();
  StepResult FinishWriting();
  StepResult CompareChecksums();
  StepResult WaitForApplicationBody(StepPhase phase, bool failOnTimeout);
  StepResult SendLabel();
  void ForgetModules();
  StepResult RequestModule(std::size_t index);
  StepResult KeepModule(std::uint16_t code);
  StepResult ModulesComplete();

  Platform& m_platform;
  Logger& m_log;
  TransportHolder& m_holder;
  StatusHandler m_status;

  std::atomic<bool> m_stopRequested = false;
  static constexpr std::int32_t m_maxRetries = 6;  // of the steps that retry a request
  std::int32_t m_retryCount = 0;                   // shared by those steps
  std::deque<Step> m_plan;                         // the front one is the current step
  std::deque<Step> m_closingPlan;                  // the steps after a failure
  StatusHandler* m_statusHandler = nullptr;        // none until the first Start
  UpdateObserver* m_observer = nullptr;
  TavoMessage m_rxMessage;           // the answer being handled
  std::uint16_t m_activeTunnel = 0;  // master * 256 + slave; 0 = none
  std::atomic<ErrorCode> m_errorCode = ErrorCode::None;
  std::string m_errorText;  // of the current failure
  std::vector<FirmwareImage> m_firmwareImages;
  const FirmwareImage* m_selectedFirmware = nullptr;  // into m_firmwareImages
  std::int32_t m_bootloaderVersion = -1;
  std::int32_t m_deviceId = -1;  // -1 = none received, here and below
  std::int32_t m_softwareId = -1;
  std::int32_t m_processorId = -1;
  std::int32_t m_hardwareId = -1;
  std::int32_t m_applicationKiB = -1;
  std::int64_t m_checksum = -1;
  std::int64_t m_expectedChecksum = -1;
  std::chrono::milliseconds m_valueRequestStart{0};  // of the current identity request
  std::uint32_t m_waitStartTick = 0;                 // ms, system tick count
  mutable std::mutex m_modulesLock;
  std::vector<std::string> m_resettedModules;  // guarded by m_modulesLock
  std::uint32_t m_blockSize = 0;               // bytes
  std::uint32_t m_writeOffset = 0;             // bytes from the start of the image
  std::atomic<std::uint32_t> m_bytesTotal = 0;
  std::atomic<std::uint32_t> m_bytesDone = 0;
  UpdateFlags m_flags;
  WriteState m_writeState = WriteState::Positioning;
  bool m_succeeded = false;
  bool m_failed = false;  // a step has failed during the current update
  Evidence m_evidence;
  Bearing m_lastBearing = Bearing::Application;  // of the request sent last
  std::mutex m_runLock;
  bool m_updateRuns = false;  // guarded by m_runLock: a Run is granted
};

}  // namespace tavo
