#include "update/several.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <utility>

#include "system/system.h"
#include "text/text_format.h"
#include "update/fleet_view.h"
#include "update/journal.h"
#include "update/record.h"
#include "update/update_checks.h"

namespace tavo::tool {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kRedrawPace{100};

// From the best to the worst.
constexpr std::array kSeverity{
    ExitCode::Done,         ExitCode::EvidenceLost, ExitCode::Usage,   ExitCode::NoDevice,
    ExitCode::BadFile,      ExitCode::FailedRuns,   ExitCode::Stopped, ExitCode::FailedInBootloader,
    ExitCode::FailedUnknown};
static_assert(kSeverity.size() == kExitTable.size());

ExitCode Worst(const std::vector<DeviceProgress>& devices) {
  std::size_t worst = 0;
  for (const DeviceProgress& device : devices) {
    const auto exit = static_cast<ExitCode>(device.Result()["exit"].Number());
    const auto rank =
        static_cast<std::size_t>(std::ranges::find(kSeverity, exit) - kSeverity.begin());
    worst = std::max(worst, std::min(rank, kSeverity.size() - 1));
  }
  return kSeverity[worst];
}

// "run-usb-4-2.log" for run.log.
std::string FileOf(const std::string& device, const std::string& file) {
  const std::size_t name = file.find_last_of("/\\") + 1;  // 0 where there is no folder
  const std::size_t dot = file.find_last_of('.');
  const bool hasEnding = dot != std::string::npos && dot > name;
  std::string own = file;
  return own.insert(hasEnding ? dot : file.size(), "-" + device);
}

class Updates {
 public:
  Updates(const Machine& machine, const UpdateOptions& options, const std::vector<Target>& targets)
      : m_options(options),
        m_view(MakeFleetView(machine, options.json, options.verbose || options.trace,
                             targets.size())) {
    for (const Target& target : targets) {
      m_tasks.push_back({Purpose::Update, options.file, target, options.flags});
      m_devices.emplace_back(target);
    }
  }

  ExitCode Run(const GivenOptions& given) {
    Fleet fleet;
    for (std::size_t i = 0; i < m_tasks.size(); ++i) {
      fleet.Start(i, ChildCommand(m_tasks[i], m_options, given), RecoverCommand(m_tasks[i]));
    }
    while (fleet.Runs()) {
      if (const auto report = fleet.Next(kRedrawPace)) Take(*report, fleet.IsStopping());
      Refresh();
    }
    for (std::size_t i = 0; i < m_tasks.size(); ++i) Conclude(i, std::nullopt, true);
    m_view->Close(m_devices);
    return Worst(m_devices);
  }

 private:
  void Take(const Fleet::Report& report, bool stopping) {
    if (!report.line.IsNull()) return Take(report.device, report.line);
    Conclude(report.device, report.exit, stopping);
  }
  void Take(std::size_t index, const Json& line) {
    m_devices[index].Take(line);
    m_view->Reported(m_devices[index], line);
  }

  // A device whose process is gone, or was not started after a stop, gets its result here.
  void Conclude(std::size_t index, std::optional<int> exit, bool stopping) {
    const DeviceProgress& device = m_devices[index];
    if (!device.Result().IsNull()) return;
    Take(index,
         ResultWithout(m_tasks[index], m_options, exit, device.Current() != Phase::None, stopping));
  }

  void Refresh() {
    if (Clock::now() < m_nextRefresh) return;
    m_nextRefresh = Clock::now() + kRedrawPace;
    m_view->Refresh(m_devices);
  }

  const UpdateOptions& m_options;
  const std::unique_ptr<FleetView> m_view;
  std::vector<Task> m_tasks;
  std::vector<DeviceProgress> m_devices;
  Clock::time_point m_nextRefresh{};
};

}  // namespace

Process::Words ChildCommand(const Task& task, const UpdateOptions& options,
                            const GivenOptions& given) {
  const std::string device = DeviceProgress(task.target).Name();
  std::vector<std::string_view> own{"--usb", "--ftdi",   "--all",  "--json",
                                    "--log", "--record", "--count"};
  if (task.target.kind == TransportKind::Usb) {
    own.insert(own.end(), {"--baud", "--echo", "--keep-latency"});
  }
  if (task.purpose == Purpose::Recover) {
    own.insert(own.end(), {"--bootloader-only", "--dry-run", "--quick"});
  }
  Process::Words words = given(own);
  words.insert(words.begin(), {"firmware-updater", NameOf(task.purpose)});
  words.insert(words.end(),
               {std::string("--") + KindName(task.target.kind), task.target.address, "--json"});
  if (!options.log.empty()) words.insert(words.end(), {"--log", FileOf(device, options.log)});
  if (!options.record.empty())
    words.insert(words.end(), {"--record", FileOf(device, options.record)});
  words.insert(words.end(), {"--", task.file});
  return words;
}

Json ResultWithout(const Task& task, const UpdateOptions& options, std::optional<int> exit,
                   bool begun, bool stopping) {
  const Ending ending = stopping ? Ending::Stopped : Ending::Failed;
  Record record = NewRecord(task.purpose, options);
  record.end = record.begin;
  record.device = ChosenDevice{task.target, std::nullopt};
  record.ending = ending;
  const DeviceEvidence evidence{begun ? DeviceCondition::Unknown : DeviceCondition::Untouched,
                                begun ? TunnelCondition::Unknown : TunnelCondition::NotAsked};
  record.state = CloseWith(evidence, ending, Advice::Again, task);
  if (exit && !stopping) {
    record.failure = Failure{
        .name = "process-ended",
        .code = 0,
        .text = Format(
            "the process that updated the device has ended without a result (exit code %d)", *exit),
        .hint = "see the log of the device"};
  }
  if (exit && (begun || !stopping) && !options.journal.empty()) {
    record.journal = AbsolutePath(options.journal);
    if (!AppendToJournal(record.journal, record)) record.lost.emplace_back("journal");
  }
  return Json::Parse(EventLine("result", AsJson(record)));
}

ExitCode RunUpdates(const Machine& machine, const UpdateOptions& options, const GivenOptions& given,
                    const std::vector<Target>& targets) {
  SurviveLostOutput();
  // With --json the results name a fault of the file: no process opens its device then.
  if (!options.json) CheckedFile(options.file);
  return Updates(machine, options, targets).Run(given);
}

}  // namespace tavo::tool
