#include "update/update_checks.h"

#include <filesystem>
#include <system_error>
#include <utility>

#include "text/log_platform.h"
#include "text/text_format.h"

namespace tavo::tool {
namespace {

namespace fs = std::filesystem;

bool CanBeWritten(const Machine& machine, const std::string& path) {
  return path.empty() || machine.platform.OpenFile(path, "a");
}

bool IsSameFile(const std::string& one, const std::string& other) {
  std::error_code ignored;
  return fs::is_regular_file(one, ignored) && fs::equivalent(one, other, ignored);
}

}  // namespace

PackageReport CheckedFile(const std::string& file) {
  PackageReport report = ReportOn(file);
  if (report.CouldBeWritten()) return report;
  throw Refusal{ExitCode::BadFile, "bad-file", Displayable(file) + ": " + report.problem,
                report.hint};
}

void CheckOutputs(const Machine& machine, const UpdateOptions& options) {
  const auto unwritable = [](const std::string& problem) {
    return Refusal{ExitCode::Usage, "unwritable-file", problem,
                   "name another file with --log or --record"};
  };
  for (const std::string& file : {options.log, options.record}) {
    if (IsSameFile(file, options.file)) {
      throw unwritable(Displayable(file) + " is the update file itself");
    }
    if (!CanBeWritten(machine, file)) throw unwritable(Displayable(file) + " cannot be written");
  }
  if (IsSameFile(options.log, options.record)) throw unwritable("log and record are the same file");
}

std::string LogPath(const Machine& machine, const UpdateOptions& options, UpdateView& view) {
  const std::string path = options.log.empty() ? DefaultLogPath() : options.log;
  if (!path.empty() && CanBeWritten(machine, path)) return path;
  view.Note("No log is kept: the user's state folder cannot be written. Name a file with --log.");
  return {};
}

}  // namespace tavo::tool
