#include "update/journal.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <span>
#include <string_view>
#include <thread>

#include "platform/file.h"
#include "system/lines.h"
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

// A power cut may leave zeros where a line was to be.
bool IsTorn(std::string_view line) {
  constexpr std::string_view kHead = "{\"version\":";
  const std::string_view head = line.substr(0, kHead.size());
  return kHead.starts_with(head) || line.find('\0') != line.npos;
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

OtherLines ReadJournal(const std::string& path, const std::function<void(const Json&)>& onResult) {
  OtherLines others;
  std::size_t number = 0;
  LineCutter lines([&](std::string_view line) {
    ++number;
    if (line.empty()) return;
    const Json json = Json::ParseOrNull(line);
    const std::string& event = json["event"].String();
    const bool isWhole = !json["begin"].String().empty() && !json["ending"].String().empty();
    if (event == kResultEvent && isWhole) return onResult(json);
    if (json.IsNull() && IsTorn(line)) {
      others.torn.push_back(number);
    } else if (event.empty() || event == kResultEvent) {
      others.foreign.push_back(number);
    }
  });
  const FileHandle file = OpenForReading(path);
  std::array<char, 65536> buffer{};
  while (file) {
    const std::size_t count = std::fread(buffer.data(), 1, buffer.size(), file.get());
    if (count == 0) break;
    lines.Take({buffer.data(), count});
  }
  lines.End();
  return others;
}

}  // namespace tavo::tool
