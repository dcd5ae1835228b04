#include "update/update_run.h"

#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <memory>
#include <optional>
#include <utility>

#include "device/session.h"
#include "file/digest.h"
#include "package/file_reading.h"
#include "text/log_platform.h"
#include "update/failure.h"
#include "update/interrupts.h"
#include "update/update_checks.h"
#include "update/views.h"
#include "update/wire_record.h"

namespace tavo::tool {
namespace {

// What the flash holds if the update ends in this phase; `written`: an earlier run has written all.
std::string_view FlashIn(Phase phase, bool written) {
  switch (phase) {
    case Phase::Erase:
    case Phase::Write: return "the application is erased or partly written";
    case Phase::Verify:
    case Phase::Start: return "the firmware is completely written";
    case Phase::Finish: return "the firmware is written and runs; its label may not be set";
    case Phase::BringBack: return "the update has failed, and the device is being brought back";
    default: break;
  }
  return written ? "the firmware is completely written" : "nothing has been written yet";
}

// Whether a short text can be written without waiting for somebody to read.
bool TakesText(int descriptor) {
  constexpr int kPatienceMs = 200;
  pollfd screen{descriptor, POLLOUT, 0};
  return poll(&screen, 1, kPatienceMs) == 1;
}

// To the screen past every buffer and lock: whoever holds them may wait for ever.
void SayLast(const std::string& text) {
  if (TakesText(STDERR_FILENO) && write(STDERR_FILENO, text.data(), text.size()) < 0) {
    return;  // nobody hears it
  }
}

// Everything that lives while one command works on one open device.
class Work {
 public:
  Work(const Machine& machine, const UpdateOptions& options, const Target& target,
       const std::string& log, UpdateView& view)
      : m_task{options.file, target, options.flags},
        m_view(view),
        m_platform(machine.platform, log, options.verbose ? &machine.err : nullptr),
        m_recorder(m_platform, options.record, options.recordFirmware),
        m_session(machine, m_platform, &m_recorder),
        m_engine(m_platform, m_session.Log(), m_session.Holder()),
        m_course(machine.platform, view, [this] { m_engine.RequestStop(); }),
        m_interrupts([this](int number) { OnInterrupt(number); }) {
    m_engine.SetObserver(&m_course);
  }

  std::string Open() { return m_session.Open(m_task.target); }
  Inquiry Ask() { return {m_session.Transport(), m_platform}; }
  void RecordImages(const PackageReport& report) {
    for (const ImageReport& image : report.images) m_recorder.AddImage(image.image);
  }

  // A tunnel that somebody has left open on the right road would be used as it stands, and the
  // devices behind it do not answer any more: it has to be opened afresh. On a wrong road, what is
  // sent would reach another device. False when it stays open.
  bool CloseOpenTunnel(Inquiry& inquiry) {
    if (inquiry.OpenTunnel().value_or(0) == 0) return true;
    m_view.Note("A tunnel was left open; closing it first.");
    inquiry.CloseTunnel();
    return inquiry.OpenTunnel().value_or(0) == 0;
  }

  bool Run(const UpdateFlags& flags) {
    if (m_course.IsStopping()) return false;
    const FirmwareUpdater::Run run(m_engine);
    m_engine.SetFlags(flags);
    m_recorder.RunBegins(flags);
    m_engine.Start(run, m_task.file);
    m_recorder.RunEnds(OutcomeOf(m_engine));
    m_course.End(HowItEnded());
    const DeviceEvidence evidence = m_engine.DeviceState();
    m_evidence = {Following(m_evidence.device, evidence.device), evidence.tunnel};
    m_written = RunsNewFirmware(m_evidence.device);
    if (!m_before) m_before = m_engine.Facts();
    return m_engine.Succeeded();
  }

  void Fill(Record& record, bool succeeded) {
    const ErrorCode failure = FailureCode();
    record.ending = succeeded                    ? Ending::Succeeded
                    : failure == ErrorCode::None ? Ending::Stopped
                                                 : Ending::Failed;
    if (record.ending == Ending::Failed) {
      record.failure = FailureOf(failure, m_course.FailureText());
      const bool open = m_evidence.device == DeviceCondition::Untouched ||
                        m_evidence.device == DeviceCondition::Unknown;
      if (open && !m_course.MayHaveErased()) LookIntoBootloader();
    }
    record.before = m_before.value_or(DeviceFacts{});
    record.transfer = m_course.Written();
    record.retries = m_course.Retries();
    for (const PhaseDescription& row : kPhaseTable) {
      if (m_course.Duration(row.phase).count() > 0) {
        record.durations.emplace_back(row.phase, m_course.Duration(row.phase));
      }
    }
    while (const auto name =
               m_engine.ResettedModule(static_cast<std::uint32_t>(record.resetModules.size()))) {
      record.resetModules.push_back(*name);
    }
    record.state = CloseWith(m_evidence, record.ending, failure, m_task);
  }

 private:
  static bool RunsNewFirmware(DeviceCondition condition) {
    return RunsApplication(condition) && condition != DeviceCondition::OldApplicationRuns;
  }

  // None: there was no failure but a stop.
  ErrorCode FailureCode() const {
    if (m_course.Failure() != ErrorCode::None) return m_course.Failure();
    return m_course.IsStopping() ? ErrorCode::None : m_engine.LastError();
  }

  // A device without an application answers nothing that an update asks first. One question tells
  // whether it sits in its bootloader.
  void LookIntoBootloader() {
    Inquiry inquiry = Ask();
    if (inquiry.Ask(kCheckVersion)) m_evidence.device = DeviceCondition::BootloaderAsFound;
  }

  // Of the last phase: after a failure, that is the way back to an application.
  PhaseEnd HowItEnded() const {
    if (m_engine.Succeeded()) return PhaseEnd::Ok;
    if (m_course.Failure() == ErrorCode::None && m_course.IsStopping()) return PhaseEnd::Stopped;
    return RunsApplication(m_engine.DeviceState().device) ? PhaseEnd::Ok : PhaseEnd::Failed;
  }

  // In another thread, which must wait for nothing that the update may hold.
  void OnInterrupt(int number) {
    if (number == 1) {
      m_course.Stop();
      m_recorder.Stop();
      if (!TakesText(STDOUT_FILENO)) return;
      m_view.Note("Stopping before the next request; " +
                  std::string(FlashIn(m_course.Current(), m_written)) +
                  ". Ctrl-C again ends the program at once, in the middle of whatever it does.");
      return;
    }
    SayLast("\nEnded at once: the state of the device is unknown. To get it going: " +
            RecoverCommand(m_task) + "\n");
    std::_Exit(static_cast<int>(ExitCode::Stopped));
  }

  const Task m_task;
  UpdateView& m_view;
  LogPlatform m_platform;
  WireRecorder m_recorder;
  Session m_session;
  FirmwareUpdater m_engine;
  Course m_course;
  DeviceEvidence m_evidence;  // over all runs
  std::optional<DeviceFacts> m_before;
  std::atomic<bool> m_written = false;
  Interrupts m_interrupts;  // the last to be made: it uses all the others
};

std::int32_t IdOf(std::optional<std::uint16_t> value) { return value ? *value : -1; }

DeviceFacts AskApplication(Inquiry& inquiry, std::uint16_t requestId) {
  Command softwareId = kRequestSoftwareId;
  softwareId.id = requestId;
  return {.deviceId = IdOf(AskValue(inquiry, kRequestDeviceId)),
          .softwareId = IdOf(AskValue(inquiry, softwareId))};
}

void OpenDevice(Work& work) {
  const std::string problem = work.Open();
  if (problem.empty()) return;
  Refuse(ExitCode::NoDevice, {.name = "not-opened",
                              .code = 0,
                              .text = problem,
                              .hint = "`firmware-updater list` tells what stands in the way."});
}

// What a recovery sends would reach the device behind the tunnel.
[[noreturn]] void RefuseToRecover(const Task& task) {
  throw Refusal{{.name = "tunnel-open",
                 .code = 0,
                 .text = "a tunnel to another device is open and cannot be closed",
                 .hint = "switch the master's power off and on, then run the command below"},
                {.device = std::string(NameOf(DeviceCondition::Unknown)),
                 .tunnel = "left-open",
                 .sentence = "Nothing was written; the state of the device is unknown.",
                 .command = RecoverCommand(task),
                 .exit = ExitCode::FailedUnknown}};
}

// From the check of the file to what is known of the device in the end; all of it goes into the record.
// Then calls `conclude`, while Ctrl-C is still no sudden end. Or throws a Refusal.
void UpdateChosen(const Machine& machine, const UpdateOptions& options, const Procedure& procedure,
                  UpdateView& view, Record& record, const std::function<void()>& conclude) {
  const PackageReport report = CheckedFile(options.file);
  record.sha256 = Sha256(ReadWholeFile(options.file));
  CheckOutputs(machine, options);
  const std::string log = LogPath(machine, options, view);
  record.target = ChosenTarget(machine, options);

  Work work(machine, options, *record.target, log, view);
  OpenDevice(work);
  Inquiry inquiry = work.Ask();
  const bool recovering = record.command == "recover";
  const bool mayBeMisled = recovering || (NeedsTunnel(report) && !options.flags.bootloaderOnly);
  if (mayBeMisled && !work.CloseOpenTunnel(inquiry) && recovering) {
    RefuseToRecover({options.file, *record.target, options.flags});
  }
  work.RecordImages(report);
  const bool succeeded =
      procedure(report, inquiry, [&work](const UpdateFlags& flags) { return work.Run(flags); });
  work.Fill(record, succeeded);
  // Behind a tunnel, which is closed by now, there is nobody to ask.
  if (succeeded && options.json && !record.dryRun && !NeedsTunnel(report)) {
    record.after = AskApplication(inquiry, report.images.front().requestId);
  }
  conclude();
}

// The result itself is lost when nobody can read it, and that is no success.
ExitCode ExitOf(const Machine& machine, const ClosingState& state) {
  if (machine.out) return state.exit;
  Complain(machine, "standard output cannot be written; the result is lost", state.Line());
  return state.exit == ExitCode::Done ? ExitCode::FailedRuns : state.exit;
}

}  // namespace

bool NeedsTunnel(const PackageReport& report) {
  return !report.images.empty() && report.images.front().route.master != -1;
}

void AddUpdateOptions(CommandOptions& command, UpdateOptions& to) {
  command.Value("FILE", to.file, "Update file: .hex, or .zip with .hex files inside").Required();
  AddTargetOptions(command, to.target);
  command.Flag("--skip-identity-check", to.flags.checkIdentity,
               "Do not ask for device ids, do not check the hardware id, set no label", false);
  command.Flag("--extended-erase", to.flags.extendedErase, "Erase mode 3 instead of 1");
  command.Flag("--json", to.json, "Report as JSON, one object a line, and nothing else");
  command
      .Value("--log", to.log,
             "File to append the library's log to, instead of firmware-updater.log in the user's "
             "state folder")
      .Shown("FILE")
      .NotEmpty();
  Option record = command.Value("--record", to.record,
                                "File to record the traffic with the device in, for the command "
                                "replay; the firmware is left out");
  record.Shown("FILE").NotEmpty();
  command.Flag("--record-firmware", to.recordFirmware, "Record the firmware too").Needs(record);
  command.Flag("--verbose", to.verbose, "Show the library's log as well");
}

ExitCode RunUpdate(const Machine& machine, const char* command, const UpdateOptions& options,
                   const Procedure& procedure) {
  // A reader that goes away must not end the program in the middle of an update.
  std::signal(SIGPIPE, SIG_IGN);
  const auto view = MakeView(machine, options.json, options.verbose);
  const std::chrono::milliseconds begin = machine.platform.MonotonicNow();
  Record record{
      .command = command, .file = options.file, .sha256 = "", .dryRun = options.flags.dryRun};
  const auto conclude = [&] {
    record.elapsed = machine.platform.MonotonicNow() - begin;
    view->Show(record);
  };
  try {
    UpdateChosen(machine, options, procedure, *view, record, conclude);
  } catch (const Refusal& refusal) {
    record.failure = refusal.failure;
    record.state = refusal.state;
    conclude();
  }
  return ExitOf(machine, record.state);
}

}  // namespace tavo::tool
