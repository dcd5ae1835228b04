// update --watch: updates again whenever the update file has changed, until Ctrl-C.
#pragma once

#include "update/update_run.h"

namespace tavo::tool {

// A round that fails does not end it; a wrong command line does, and a Ctrl-C in mid-update. Between two
// updates Ctrl-C ends it with the exit code of the last one.
ExitCode UpdateWatching(const Machine& machine, const UpdateOptions& options);

}  // namespace tavo::tool
