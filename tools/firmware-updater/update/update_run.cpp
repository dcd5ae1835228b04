#include "update/update_run.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <set>
#include <system_error>
#include <vector>

#include "file/package_report.h"
#include "platform/platform.h"
#include "system/interrupts.h"
#include "system/system.h"
#include "text/text_format.h"
#include "update/fit.h"
#include "update/journal.h"
#include "update/update_checks.h"
#include "update/views.h"
#include "update/work.h"

namespace tavo::tool {
namespace {

ClosingState NothingChanged(const char* sentence) {
  return {.device = std::string(NameOf(DeviceCondition::Untouched)),
          .tunnel = "not-asked",
          .sentence = sentence,
          .command = ""};
}

// The result has room for one value of each name.
void CheckTags(const std::vector<std::string>& tags) {
  std::set<std::string> names;
  for (const std::string& tag : tags) {
    const std::string name = tag.substr(0, tag.find('='));
    if (names.insert(name).second) continue;
    throw Refusal{ExitCode::Usage, "repeated-tag", "--tag names " + Displayable(name) + " twice",
                  "give each name one value"};
  }
}

// From the check of the file to the state of the device at the end; all of it goes into the record.
class UpdateRun {
 public:
  UpdateRun(const Machine& machine, Purpose purpose, const UpdateOptions& options, UpdateView& view)
      : m_machine(machine),
        m_options(options),
        m_view(view),
        m_record(NewRecord(purpose, options)) {
    Begin();
  }

  // `read`: the update file, if it was read already.
  const Record& Run(const PackageReport* read = nullptr) {
    try {
      UpdateChosen(read);
    } catch (const Refusal& refusal) {
      m_record.ending = refusal.exit == ExitCode::Stopped ? Ending::Stopped : Ending::Failed;
      m_record.failure =
          Failure{.name = refusal.name, .code = 0, .text = refusal.text, .hint = refusal.hint};
      if (m_record.ending == Ending::Stopped) m_record.failure.reset();
      m_record.state.exit = refusal.exit;
      m_record.state.command = refusal.command;
      m_record.state.tries = true;
      Close();
      m_view.Show(m_record);
    }
    return m_record;
  }

 private:
  void Begin() {
    m_record.begin = std::chrono::system_clock::now();
    m_begin = m_machine.platform.MonotonicNow();
  }

  void Close() {
    m_record.end = std::chrono::system_clock::now();
    m_record.elapsed = m_machine.platform.MonotonicNow() - m_begin;
    if (m_record.journal.empty() || AppendToJournal(m_record.journal, m_record)) return;
    m_record.lost.emplace_back("journal");
    CountLost(m_record);
  }

  ChosenDevice Device() {
    if (m_options.wait.empty()) return ChooseDevice(m_machine, m_options.target);
    std::atomic<bool> stopped = false;
    const Interrupts interrupts([&](int /*number*/) { stopped = true; });
    ChosenDevice device = AwaitDevice(m_machine, m_options.target,
                                      {SecondsOf(m_options.wait), [&] { return stopped.load(); },
                                       [this](const std::string& text) { m_view.Note(text); }});
    Begin();
    return device;
  }

  // Shows the record while Ctrl-C is still handled, or throws a Refusal.
  void UpdateChosen(const PackageReport* read) {
    m_record.state = NothingChanged("No device was opened; nothing was changed.");
    CheckTags(m_options.tags);
    const PackageReport own = read == nullptr ? ReportOn(m_options.file) : PackageReport();
    const PackageReport& report = read == nullptr ? own : *read;
    CheckFile(report, m_options.file);
    CheckQuick(report, m_options);
    m_record.sha256 = report.sha256;
    CheckOutputs(m_machine, m_options);
    m_record.device = Device();
    m_record.journal = AbsolutePath(m_options.journal);
    const LogFile log = LogOf(m_machine, m_options, *m_record.device, m_view);
    m_record.log = AbsolutePath(log.path);

    const UpdateFlags& flags = m_options.flags;
    Work work(m_machine, m_options,
              {m_record.purpose, m_options.file, m_record.device->target, flags, m_options.quick},
              report, log, m_view);
    work.CheckEvidence(m_options);
    work.Open(m_options.shortLatency);
    m_record.state = NothingChanged("The device was only asked questions; nothing was changed.");
    work.CheckEcho();
    if (!flags.checkIdentity) {
      m_view.Note(
          "The hardware id and the device id are not checked; the processor and the size are.");
    }
    if (m_options.quick) {
      m_view.Note("The device id is not checked; the hardware id, the processor and the size are.");
    }
    const bool succeeded = work.Prepare() && work.Perform();
    work.Fill(m_record, succeeded);
    // Behind a tunnel, which is closed by now, nobody can be asked.
    const bool asksAfter = m_options.json && !m_options.quick && !flags.dryRun;
    if (succeeded && asksAfter && !NeedsTunnel(report)) {
      m_record.after = work.AskApplication();
    }
    work.AddLost(m_record);
    Close();
    work.Decide(m_record.state.exit);
    m_view.Show(m_record);
  }

  const Machine& m_machine;
  const UpdateOptions& m_options;
  UpdateView& m_view;
  Record m_record;
  std::chrono::milliseconds m_begin{0};
};

// Lost output is no success.
ExitCode ExitOf(const Machine& machine, const ClosingState& state) {
  if (machine.out) return state.exit;
  Complain(machine, "standard output cannot be written; the result was lost. " + state.Line(), "");
  return state.exit == ExitCode::Done ? ExitCode::EvidenceLost : state.exit;
}

}  // namespace

void AddUpdateOptions(CommandOptions& command, UpdateOptions& to, SeveralTargets* several) {
  command.Value("FILE", to.file, "Update file: .hex, or .zip with .hex files inside").Required();
  if (several == nullptr) {
    AddTargetOptions(command, to.target);
  } else {
    AddTargetOptions(command, *several);
  }
  AddLatencyOption(command, to.shortLatency);
  command.Flag("--skip-identity-check", to.flags.checkIdentity,
               "Do not ask for device ids, do not check the hardware id, set no label", false);
  command.Flag("--extended-erase", to.flags.extendedErase, "Erase mode 3 instead of 1");
  command
      .Value("--log", to.log,
             "File to append the library's log to, instead of the device's own in the user's state "
             "folder")
      .Shown("FILE")
      .NotEmpty();
  Option record = command.Value("--record", to.record,
                                "File to record the traffic with the device in, for the command "
                                "replay; the firmware is left out");
  record.Shown("FILE").NotEmpty();
  command.Flag("--record-firmware", to.recordFirmware, "Record the firmware too").Needs(record);
  command
      .Value("--journal", to.journal,
             "File to append the result to as one line, for the command history; several updates "
             "may share it")
      .Shown("FILE")
      .NotEmpty();
  command
      .Value("--station", to.station,
             "Name of this place in the result of --json, instead of the host's")
      .Shown("NAME");
  command.Values("--tag", to.tags, "NAME=VALUE to add to the result of --json; repeatable")
      .Shown("NAME=VALUE")
      .Checked([](const std::string& tag) {
        return tag.find('=') + 1 > 1 ? "" : "write it as NAME=VALUE";
      });
}

void AddViewOptions(CommandOptions& command, UpdateOptions& to) {
  command
      .FlagOrValue("--wait", "86400", to.wait,
                   "Wait for the device to be connected, for a day or SECONDS")
      .Seconds();
  command.Flag("--json", to.json, "Report as JSON, one object a line, and nothing else");
  command.Flag("--verbose", to.verbose, "Show the library's log as well");
  command.Flag("--trace", to.trace, kTraceHelp);
}

std::string AbsolutePath(const std::string& path) {
  if (path.empty()) return path;
  std::error_code error;
  const std::filesystem::path absolute = std::filesystem::absolute(PathOf(path), error);
  return error ? path : TextOf(absolute.lexically_normal());
}

Record NewRecord(Purpose purpose, const UpdateOptions& options) {
  return {.purpose = purpose,
          .file = AbsolutePath(options.file),
          .traffic = AbsolutePath(options.record),
          .station = options.station.empty() ? HostName() : options.station,
          .flags = options.flags,
          .quick = options.quick,
          .verbose = options.verbose,
          .trace = options.trace,
          .tags = options.tags,
          .begin = std::chrono::system_clock::now()};
}

ExitCode RunUpdate(const Machine& machine, Purpose purpose, const UpdateOptions& options) {
  SurviveLostOutput();
  const auto view = MakeView(machine, options.json, options.verbose || options.trace);
  return ExitOf(machine, UpdateRun(machine, purpose, options, *view).Run().state);
}

ExitCode RunUpdate(const Machine& machine, Purpose purpose, const UpdateOptions& options,
                   const PackageReport& report, UpdateView& view) {
  return ExitOf(machine, UpdateRun(machine, purpose, options, view).Run(&report).state);
}

}  // namespace tavo::tool
