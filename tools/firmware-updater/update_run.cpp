#include "update_run.h"

#include <cstdlib>
#include <memory>
#include <ostream>

#include "device_survey.h"
#include "digest.h"
#include "failure.h"
#include "interrupts.h"
#include "log_platform.h"
#include "session.h"
#include "views.h"

namespace tavo::tool {
namespace {

// What a stop in this phase leaves behind, before the engine's evidence is in.
DeviceCondition AfterStopIn(Phase phase) {
  switch (phase) {
    case Phase::None:
    case Phase::Contact: return DeviceCondition::OldApplicationRuns;
    case Phase::Bootloader: return DeviceCondition::BootloaderFlashIntact;
    case Phase::Erase:
    case Phase::Write: return DeviceCondition::BootloaderFlashErased;
    case Phase::Verify:
    case Phase::Start: return DeviceCondition::BootloaderFlashIntact;
    case Phase::Finish: return DeviceCondition::RunsIncomplete;
    case Phase::BringBack: break;
  }
  return DeviceCondition::Unknown;
}

// Everything that lives while one command works on one open device.
class Work {
 public:
  Work(const Machine& machine, const UpdateOptions& options, UpdateView& view)
      : m_options(options),
        m_view(view),
        m_platform(machine.platform, options.log.empty() ? DefaultLogPath() : options.log,
                   options.verbose ? &machine.err : nullptr),
        m_session(machine, m_platform),
        m_engine(m_platform, m_session.Log(), m_session.Holder()),
        m_course(machine.platform, view),
        m_interrupts([this](int number) { OnInterrupt(number); }) {
    m_engine.SetObserver(&m_course);
  }

  Session& Device() { return m_session; }
  Platform& Machine() { return m_platform; }

  // A tunnel that somebody has left open on the right road would be used as it stands, and the
  // devices behind it do not answer any more: it has to be opened afresh.
  void CloseOpenTunnel(Inquiry& inquiry, const PackageReport& report) {
    if (m_options.flags.bootloaderOnly || !NeedsTunnel(report)) return;
    if (inquiry.OpenTunnel().value_or(0) == 0) return;
    m_view.Note("A tunnel was left open; closing it first.");
    inquiry.CloseTunnel();
  }

  bool Run(const UpdateFlags& flags) {
    if (m_course.IsStopping()) return false;
    const FirmwareUpdater::Run run(m_engine);
    m_engine.SetFlags(flags);
    m_engine.Start(run, m_options.file);
    m_course.End(HowItEnded());
    return m_engine.Succeeded();
  }

  // The last engine run tells the state of the device.
  void Fill(Record& record, bool succeeded) {
    const bool failed = m_course.Failure() != ErrorCode::None || !m_course.IsStopping();
    record.ending = succeeded ? Ending::Succeeded : failed ? Ending::Failed : Ending::Stopped;
    if (record.ending == Ending::Failed) {
      record.failure = FailureOf(
          m_course.Failure() == ErrorCode::None ? m_engine.LastError() : m_course.Failure(),
          m_course.FailureText());
    }
    record.before = m_engine.Facts();
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
    record.state = CloseWith(m_engine.DeviceState(), record.ending, m_options.file, *record.target);
  }

 private:
  // Of the last phase: after a failure, that is the way back to an application.
  PhaseEnd HowItEnded() const {
    if (m_engine.Succeeded()) return PhaseEnd::Ok;
    if (m_course.IsStopping()) return PhaseEnd::Stopped;
    return RunsApplication(m_engine.DeviceState().device) ? PhaseEnd::Ok : PhaseEnd::Failed;
  }

  void OnInterrupt(int number) {
    if (number == 1) {
      m_course.Stopping();
      m_view.Note("Stopping before the next request. At this point: " +
                  std::string(SentenceOf(AfterStopIn(m_course.Current()))) +
                  " Ctrl-C again ends the program at once, in the middle of whatever it does.");
      m_engine.RequestStop();
      return;
    }
    m_view.Note(
        "Ended at once: the state of the device is unknown. To get it going: "
        "firmware-updater recover " +
        ShellWord(m_options.file));
    std::_Exit(static_cast<int>(ExitCode::Stopped));
  }

  const UpdateOptions& m_options;
  UpdateView& m_view;
  LogPlatform m_platform;
  Session m_session;
  FirmwareUpdater m_engine;
  Course m_course;
  Interrupts m_interrupts;  // the last to be made: it uses all the others
};

std::int32_t AskValue(Inquiry& inquiry, const Command& command) {
  const std::optional<TavoMessage> answer = inquiry.Ask(command);
  return answer ? answer->payload[0] | answer->payload[1] << 8 : -1;
}

DeviceFacts AskApplication(Inquiry& inquiry, std::uint16_t requestId) {
  Command softwareId = kRequestSoftwareId;
  softwareId.id = requestId;
  return {.deviceId = AskValue(inquiry, kRequestDeviceId),
          .softwareId = AskValue(inquiry, softwareId)};
}

// The end of a command that has not touched a device.
ExitCode Refuse(UpdateView& view, Record& record, ExitCode exit, const Failure& failure) {
  record.failure = failure;
  record.state = {.device = "untouched",
                  .tunnel = "not-asked",
                  .sentence = "No device was opened; nothing was changed.",
                  .command = "",
                  .exit = exit};
  view.Show(record);
  return exit;
}

}  // namespace

bool NeedsTunnel(const PackageReport& report) {
  return !report.images.empty() && report.images.front().route.master != -1;
}

void AddUpdateOptions(CLI::App& command, UpdateOptions& to) {
  command.add_option("FILE", to.file, "Update file: .hex, or .zip with .hex files inside")
      ->required();
  AddTargetOptions(command, to.target);
  command.add_flag("--json", to.json, "Report as JSON, one object a line, and nothing else");
  command
      .add_option("--log", to.log,
                  "File to append the library's log to, instead of firmware-updater.log in the "
                  "user's state folder")
      ->type_name("FILE");
  command.add_flag("--verbose", to.verbose, "Show the library's log as well");
}

ExitCode RunUpdate(const Machine& machine, const char* command, const UpdateOptions& options,
                   const Procedure& procedure) {
  const auto view = MakeView(machine, options.json);
  const std::chrono::milliseconds begin = machine.platform.MonotonicNow();
  Record record{.command = command,
                .file = options.file,
                .sha256 = Sha256OfFile(options.file),
                .dryRun = options.flags.dryRun};

  const PackageReport report = ReportOn(options.file);
  if (!report.CouldBeWritten()) {
    return Refuse(*view, record, ExitCode::BadFile,
                  {.name = "bad-file", .code = 0, .text = report.problem, .hint = report.hint});
  }
  const TargetChoice choice = ChooseTarget(machine, options.target);
  if (!choice.target) {
    return Refuse(*view, record, choice.exit,
                  {.name = "no-device",
                   .code = 0,
                   .text = "No device was chosen; standard error tells why.",
                   .hint = "",
                   .told = true});
  }
  record.target = choice.target;

  Work work(machine, options, *view);
  if (const std::string problem = work.Device().Open(*choice.target); !problem.empty()) {
    return Refuse(*view, record, ExitCode::NoDevice,
                  {.name = "not-opened",
                   .code = 0,
                   .text = problem,
                   .hint = "`firmware-updater list` tells what stands in the way."});
  }
  Inquiry inquiry(work.Device().Transport(), work.Machine());
  work.CloseOpenTunnel(inquiry, report);
  const bool succeeded =
      procedure(report, inquiry, [&work](const UpdateFlags& flags) { return work.Run(flags); });
  work.Fill(record, succeeded);
  // Behind a tunnel, which is closed by now, there is nobody to ask.
  if (succeeded && options.json && !NeedsTunnel(report)) {
    record.after = AskApplication(inquiry, report.images.front().requestId);
  }
  record.elapsed = machine.platform.MonotonicNow() - begin;
  view->Show(record);
  return record.state.exit;
}

}  // namespace tavo::tool
