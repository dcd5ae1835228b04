// The journal of a production line: one line for each update, the result that --json ends with. Several
// processes may write to it at the same time. A line that a power cut or a full disk has cut off stays as
// it is; the next one begins below it.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "update/record.h"

namespace tavo::tool {

// Whether the file can be opened; creates it.
bool CanBeJournal(const std::string& path);

// Returns when the disk has the record. False: it may be missing, or cut off.
bool AppendToJournal(const std::string& path, const Record& record);

// The lines that hold no result. Those of other events, from a file that --json was led into, count as none.
struct OtherLines {
  std::vector<std::size_t>
      torn{};  // the numbers of those that a record begins, 1 for the first line
  std::vector<std::size_t> foreign{};  // of all others
};

// Calls `onResult` with each result in the order of the file, which can be opened for reading.
OtherLines ReadJournal(const std::string& path, const std::function<void(const Json&)>& onResult);

}  // namespace tavo::tool
