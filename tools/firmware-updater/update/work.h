// One command at work on one open device, from the first question to the record: what it asks before the
// engine starts, the runs of the engine, and what it finds out after a failure.
//
//   Work work(machine, options, task, report, log, view);
//   work.CheckEvidence(options);
//   work.Open(options.shortLatency);
//   work.CheckEcho();
//   const bool succeeded = work.Prepare() && work.Perform();
//   work.Fill(record, succeeded);
//   work.AddLost(record);
#pragma once

#include <array>
#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "device/dialogue.h"
#include "device/inquiry.h"
#include "device/session.h"
#include "file/package_report.h"
#include "system/interrupts.h"
#include "text/log_platform.h"
#include "update/record.h"
#include "update/update_run.h"
#include "update/views.h"
#include "update/wire_record.h"

namespace tavo::tool {

// The traffic is recorded and decoded.
class Traffic final : public TransportObserver {
 public:
  Traffic(TransportObserver& record, TransportObserver& dialogue)
      : m_observers{&record, &dialogue} {}

  void BytesSent(bool ok, Bytes bytes) override {
    for (TransportObserver* const observer : m_observers) observer->BytesSent(ok, bytes);
  }
  void BytesReceived(bool ok, Bytes bytes, std::chrono::milliseconds took) override {
    for (TransportObserver* const observer : m_observers) observer->BytesReceived(ok, bytes, took);
  }
  void Reconnected(bool ok) override {
    for (TransportObserver* const observer : m_observers) observer->Reconnected(ok);
  }

 private:
  const std::array<TransportObserver*, 2> m_observers;
};

// Lost evidence is no success.
void CountLost(Record& record);

class Work {
 public:
  Work(const Machine& machine, const UpdateOptions& options, const Task& task,
       const PackageReport& report, const LogFile& log, UpdateView& view);

  // A first line goes into the log, and shows whether there is room for more. A log that nobody has
  // named must not prevent an update.
  void CheckEvidence(const UpdateOptions& options);

  void Open(bool shortLatency) { m_session.Open(m_task.target, shortLatency); }

  // The echo needs no device, so it is the first thing to know: without it, our own requests would be
  // taken for answers, and with too much of it, answers for echoes.
  void CheckEcho();

  // Closes a tunnel that was left open, and looks who answers. False: the file is not for the device,
  // and the reason is kept for the record.
  bool Prepare();

  bool Perform();

  void Fill(Record& record, bool succeeded);

  // Comes last: anything before it may lose more.
  void AddLost(Record& record) const;

  // The exit code is decided and about to be written; no Ctrl-C changes it any more.
  void Decide(ExitCode exit) { m_exit = static_cast<int>(exit); }

  // The ids of the application that runs now.
  DeviceFacts AskApplication();

 private:
  std::string_view Untouched(std::string_view usual, const RefusedBytes& refused) const;
  void WarnOfLoss(const char* what);
  Inquiry Ask();
  std::optional<std::uint16_t> AskSoftwareId(Inquiry& inquiry) const;
  bool UsesTunnel() const;
  void CloseOpenTunnel(Inquiry& inquiry);
  bool FindMisfit(Inquiry& inquiry);
  static Failure TunnelNeeded();
  bool TunnelIsMissing() const;
  bool Reject(const Failure& failure);
  std::vector<UpdateFlags> Runs() const;
  bool Run(const UpdateFlags& flags);
  DeviceFacts ReportedFacts() const;
  static bool RunsNewFirmware(DeviceCondition condition);
  Ending HowItEnded(bool succeeded) const;
  PhaseEnd LastPhaseEnd() const;
  void OnInterrupt(int number);
  std::string EndedAtOnce() const;

  // After a failure.
  Advice Explain();
  void ExplainAnswer();
  void ExplainSilence(const SentRequest& request, const RefusedBytes& refused);
  Advice ExplainNoId();
  void LookAround();
  void BringBackBehindTunnel(Inquiry& inquiry);

  const Machine& m_machine;
  const Task m_task;
  const PackageReport& m_report;
  UpdateView& m_view;
  bool m_checked = false;  // the evidence, by CheckEvidence
  LogPlatform m_platform;
  WireRecorder m_recorder;
  Dialogue m_dialogue;
  Traffic m_traffic;
  Session m_session;
  FirmwareUpdater m_engine;
  Course m_course;
  DeviceReport m_found;       // who answered when we looked
  DeviceEvidence m_evidence;  // over all runs
  std::optional<Failure> m_failure;
  std::optional<DeviceFacts> m_before;
  std::atomic<bool> m_written = false;
  std::atomic<int> m_exit = -1;  // -1: not decided
  Interrupts m_interrupts;       // the last to be made: it uses all the others
};

}  // namespace tavo::tool
