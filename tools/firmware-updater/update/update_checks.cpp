#include "update/update_checks.h"

#include <filesystem>
#include <system_error>
#include <utility>

#include "system/system.h"
#include "text/by_system.h"
#include "text/log_platform.h"
#include "text/text_format.h"
#include "update/closing_state.h"
#include "update/fit.h"
#include "update/journal.h"

namespace tavo::tool {
namespace {

namespace fs = std::filesystem;

bool CanBeWritten(const Machine& machine, const LogFile& file) {
  return file.path.empty() || machine.platform.OpenLog(file.path, file.links);
}

bool IsSameFile(const std::string& one, const std::string& other) {
  std::error_code ignored;
  return fs::is_regular_file(PathOf(one), ignored) &&
         fs::equivalent(PathOf(one), PathOf(other), ignored);
}

// "usb-4-2_4711", "ftdi-TAVO0001". The port too: devices may share a serial number.
std::string LogName(const ChosenDevice& device) {
  std::string name = std::string(KindName(device.target.kind)) + "-" + device.target.address;
  const bool isUsb = device.target.kind == TransportKind::Usb;
  if (isUsb && device.usb && !device.usb->serialNumber.empty()) {
    name += "_" + device.usb->serialNumber;
  }
  return name;
}

// A default log follows no link.
std::string LogProblem(const std::string& path) {
  std::error_code ignored;
  const fs::file_status status = fs::symlink_status(PathOf(path), ignored);
  if (!fs::exists(status)) {
    return kLogFolderProblem.Here();
  }
  return Displayable(path) +
         (fs::is_regular_file(status) ? " cannot be written" : " is not a regular file");
}

}  // namespace

PackageReport CheckedFile(const std::string& file) {
  PackageReport report = ReportOn(file);
  CheckFile(report, file);
  return report;
}

void CheckFile(const PackageReport& report, const std::string& file) {
  if (report.CouldBeWritten()) return;
  throw Refusal{ExitCode::BadFile, "bad-file", Displayable(file) + ": " + report.problem,
                report.hint};
}

void CheckQuick(const PackageReport& report, const UpdateOptions& options) {
  const char* const need = NeedsTunnel(report) ? "its device is behind a master module"
                           : SetsLabel(report) ? "it sets a label, which takes the device id"
                                               : nullptr;
  if (!options.quick || need == nullptr) return;
  const auto& [usbPort, ftdiSerial, baudRate, echo] = options.target;
  std::string target;
  if (!usbPort.empty()) target = " " + TargetOptions({TransportKind::Usb, usbPort});
  if (!ftdiSerial.empty()) {
    target = " " + TargetOptions({TransportKind::Ftdi, ftdiSerial, baudRate, echo});
  }
  throw Refusal{ExitCode::Usage, "not-quick",
                Displayable(options.file) + " cannot be written with --quick: " + need,
                "leave out --quick", "firmware-updater update " + FileWord(options.file) + target};
}

void CheckOutputs(const Machine& machine, const UpdateOptions& options) {
  const auto unwritable = [](const std::string& problem) {
    return Refusal{ExitCode::Usage, "unwritable-file", problem,
                   "name another file with --log, --record or --journal"};
  };
  const auto check = [&](const std::string& file, const auto& canBeWritten) {
    if (IsSameFile(file, options.file)) {
      throw unwritable(Displayable(file) + " is the update file itself");
    }
    if (!file.empty() && !canBeWritten(file)) {
      throw unwritable(Displayable(file) + " cannot be written");
    }
  };
  const auto asLog = [&](const std::string& file) { return CanBeWritten(machine, {file}); };
  check(options.log, asLog);
  check(options.record, asLog);
  check(options.journal, CanBeJournal);
  if (IsSameFile(options.log, options.record)) throw unwritable("log and record are the same file");
  if (IsSameFile(options.journal, options.log) || IsSameFile(options.journal, options.record)) {
    throw unwritable("the journal is also the log or the record");
  }
}

LogFile LogOf(const Machine& machine, const UpdateOptions& options, const ChosenDevice& device,
              UpdateView& view) {
  const LogFile log = options.log.empty() ? DefaultLog(LogName(device)) : LogFile{options.log};
  if (!log.path.empty() && CanBeWritten(machine, log)) return log;
  view.Note("No log is kept: " + LogProblem(log.path) + ". Name a file with --log.");
  return {};
}

}  // namespace tavo::tool
