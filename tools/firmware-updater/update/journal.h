// The journal of a production line: one line for each update, the result that --json ends with. Several
// processes may write to it at the same time. A line that a power cut or a full disk has cut off stays as
// it is; the next one begins below it.
#pragma once

#include <string>

#include "update/record.h"

namespace tavo::tool {

// Whether the file can be opened; creates it.
bool CanBeJournal(const std::string& path);

// Returns when the disk has the record. False: it may be missing, or cut off.
bool AppendToJournal(const std::string& path, const Record& record);

}  // namespace tavo::tool
