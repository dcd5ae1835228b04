// Several devices at once: a process of this tool for each, so that none can hold up or spoil another. They
// report as `update --json` does, and this one gathers their lines. Ctrl-C asks all of them to stop, each
// before its next request; a second one ends them at once.
//
//   Fleet fleet;
//   fleet.Start(0, {"firmware-updater", "update", ...}, "firmware-updater recover ...");
//   while (fleet.Runs()) {
//     if (const auto report = fleet.Next(kPace)) ...
//   }
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "system/interrupts.h"
#include "system/process.h"
#include "text/json.h"

namespace tavo::tool {

class Fleet {
 public:
  struct Report {
    std::size_t device = 0;
    Json line{};   // null: its process has ended
    int exit = 0;  // its exit code then
  };

  Fleet();
  // Kills what still runs.
  ~Fleet();

  // The device has no process yet, or none any more. `rescue` is the command that recovers the device,
  // should its process not be there to name it. Starts nothing once a stop was requested.
  void Start(std::size_t device, const Process::Words& words, const std::string& rescue);

  // The next line or end of any process; none comes within `limit`: empty.
  std::optional<Report> Next(std::chrono::milliseconds limit);

  bool Runs() const { return m_running > 0; }
  bool IsStopping() const { return m_stopping; }

 private:
  void NoteRescue(const Report& report);
  void Push(Report report);
  void CollectEnds();
  void OnInterrupt(int number);
  bool AllEndWithin(std::chrono::milliseconds limit) const;

  std::mutex m_childrenLock;  // of the next two
  std::map<std::size_t, std::unique_ptr<Process>> m_children;
  std::map<std::size_t, std::string> m_rescues;  // should all end now
  std::mutex m_reportsLock;
  std::condition_variable m_reported;
  std::deque<Report> m_reports;
  std::atomic<std::size_t> m_running = 0;  // their ends are not yet handed out
  std::atomic<bool> m_stopping = false;
  std::optional<Interrupts> m_interrupts;  // the last to be made: it uses all the others
};

}  // namespace tavo::tool
