#include "update/watch.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <optional>

#include "file/package_report.h"
#include "platform/platform.h"
#include "system/interrupts.h"
#include "system/system.h"
#include "text/text_format.h"
#include "update/update_checks.h"
#include "update/views.h"

namespace tavo::tool {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kLookPace{100};
// A file that has not changed for so long is complete if it looks complete. If it does not, its writer may
// only be slow.
constexpr milliseconds kQuiet{300};
constexpr milliseconds kPatience{2000};

bool LooksComplete(const PackageReport& report) {
  return report.CouldBeWritten() && std::ranges::none_of(report.members, &MemberReport::isCutOff);
}

class WatchedFile {
 public:
  WatchedFile(Platform& platform, std::string path)
      : m_platform(platform), m_path(std::move(path)) {}

  // Waits for a version of the file other than the last one. Nothing: `isStopped` has returned true.
  std::optional<PackageReport> Next(const std::function<bool()>& isStopped) {
    std::optional<FileVersion> seen;
    milliseconds since{0};
    for (; !isStopped(); m_platform.Sleep(kLookPace)) {
      const milliseconds now = m_platform.MonotonicNow();
      if (const auto version = VersionOf(m_path); version != seen) {
        seen = version;
        since = now;
      }
      if (!seen || seen == m_taken || now - since < kQuiet) continue;
      PackageReport report = ReportOn(m_path);
      if (VersionOf(m_path) != seen) continue;
      if (!LooksComplete(report)) {
        if (now - since < kPatience) continue;
        if (report.CouldBeWritten())
          report.problem = "it has no end record: it seems to be cut off";
      }
      m_taken = seen;
      return report;
    }
    return std::nullopt;
  }

 private:
  Platform& m_platform;
  const std::string m_path;
  std::optional<FileVersion> m_taken;
};

std::optional<PackageReport> AwaitChange(WatchedFile& file) {
  std::atomic<bool> stopped = false;
  const Interrupts interrupts([&](int /*number*/) { stopped = true; });
  return file.Next([&] { return stopped.load(); });
}

}  // namespace

ExitCode UpdateWatching(const Machine& machine, const UpdateOptions& options) {
  if (!VersionOf(options.file)) CheckedFile(options.file);
  SurviveLostOutput();
  const auto view = options.json ? MakeView(machine, true, false) : MakeRoundView(machine);
  view->Note("Watching " + Displayable(options.file) + "; Ctrl-C ends it.");
  WatchedFile file(machine.platform, options.file);
  ExitCode last = ExitCode::Done;
  while (const auto report = AwaitChange(file)) {
    last = RunUpdate(machine, Purpose::Update, options, *report, *view);
    if (last == ExitCode::Stopped || last == ExitCode::Usage || !machine.out) break;
  }
  return last;
}

}  // namespace tavo::tool
