// The checks of a command that updates, before it opens a device: the update file is usable, log,
// record and journal can be written, and the device is chosen. They run in this order and throw a Refusal.
#pragma once

#include <string>

#include "device/target.h"
#include "file/package_report.h"
#include "text/log_platform.h"
#include "text/refusal.h"
#include "update/update_run.h"
#include "update/views.h"

namespace tavo::tool {

PackageReport CheckedFile(const std::string& file);
// The same for a file that was read already.
void CheckFile(const PackageReport& report, const std::string& file);
// --quick leaves out what some files need.
void CheckQuick(const PackageReport& report, const UpdateOptions& options);

// Opens for a moment the log, the record and the journal that the user has named. They must not be the
// update file, which they would destroy.
void CheckOutputs(const Machine& machine, const UpdateOptions& options);

// Empty: no log is kept, and the user is told so. An update must not fail for the lack of a place that
// nobody has named.
LogFile LogOf(const Machine& machine, const UpdateOptions& options, const ChosenDevice& device,
              UpdateView& view);

}  // namespace tavo::tool
