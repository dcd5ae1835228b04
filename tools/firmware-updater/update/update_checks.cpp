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

void Refuse(ExitCode exit, Failure failure) {
  throw Refusal{std::move(failure),
                {.device = "untouched",
                 .tunnel = "not-asked",
                 .sentence = "No device was opened; nothing was changed.",
                 .command = "",
                 .exit = exit}};
}

PackageReport CheckedFile(const std::string& file) {
  PackageReport report = ReportOn(file);
  if (!report.CouldBeWritten()) {
    Refuse(ExitCode::BadFile, {.name = "bad-file",
                               .code = 0,
                               .text = Displayable(file) + ": " + report.problem,
                               .hint = report.hint});
  }
  return report;
}

void CheckOutputs(const Machine& machine, const UpdateOptions& options) {
  const auto refuse = [](const std::string& problem) {
    Refuse(ExitCode::Usage, {.name = "unwritable-file",
                             .code = 0,
                             .text = problem,
                             .hint = "name another file with --log or --record"});
  };
  for (const std::string& file : {options.log, options.record}) {
    if (IsSameFile(file, options.file)) refuse(Displayable(file) + " is the update file itself");
    if (!CanBeWritten(machine, file)) refuse(Displayable(file) + " cannot be written");
  }
  if (IsSameFile(options.log, options.record)) refuse("log and record are the same file");
}

std::string LogPath(const Machine& machine, const UpdateOptions& options, UpdateView& view) {
  const std::string path = options.log.empty() ? DefaultLogPath() : options.log;
  if (!path.empty() && CanBeWritten(machine, path)) return path;
  view.Note("No log is kept: the user's state folder cannot be written. --log FILE names a place.");
  return {};
}

Target ChosenTarget(const Machine& machine, const UpdateOptions& options) {
  const TargetChoice choice = ChooseTarget(machine, options.target);
  if (!choice.target) {
    Refuse(
        choice.exit,
        {.name = "no-device", .code = 0, .text = choice.text, .hint = choice.hint, .told = true});
  }
  return *choice.target;
}

}  // namespace tavo::tool
