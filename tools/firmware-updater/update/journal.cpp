#include "update/journal.h"

#include <chrono>
#include <thread>

#include "system/shared_file.h"

namespace tavo::tool {
namespace {

// A process holds the lock for one write: one that holds it for longer was stopped in the middle of that.
bool LockInTime(SharedFile& file) {
  constexpr int kTries = 200;
  constexpr std::chrono::milliseconds kPause{10};
  for (int tries = 0; tries < kTries; ++tries) {
    if (file.Lock()) return true;
    std::this_thread::sleep_for(kPause);
  }
  return false;
}

}  // namespace

bool CanBeJournal(const std::string& path) { return SharedFile(path).IsUsable(); }

bool AppendToJournal(const std::string& path, const Record& record) {
  SharedFile file(path);
  if (!file.IsUsable()) return false;
  const bool locked = LockInTime(file);
  const bool fromNewLine = !locked || file.EndsInMidLine();
  const std::string line = EventLine(kResultEvent, AsJson(record)) + "\n";
  const bool written = file.Append(fromNewLine ? "\n" + line : line);
  if (locked) file.Unlock();  // the disk takes its time
  return written && file.Flush();
}

}  // namespace tavo::tool
