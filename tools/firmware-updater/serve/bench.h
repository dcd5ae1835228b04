// The bench behind the page: the connected devices, an update file, and the commands that work on them. All
// of it comes from the JSON of the tool's commands, each in a process of its own, and becomes an event. An
// event is an object with one of these members, and what belongs to it:
//
//   list, history  the document of this command, and its complaint
//   inspect        the same, of the update file: file, its name here, and name, by which it was dropped
//   job            "usb 4-2 info" or "usb 4-2 work": a device has one each; then at, in milliseconds, and
//                  one of: device, with the request; line, of the command's JSON; log, a line of its
//                  other output; exit
//   forget         the job that a page forgets: its device is gone
//   stopping       true: the program is about to end
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "serve/event_log.h"
#include "text/exit_code.h"
#include "text/json.h"

namespace tavo::tool {

class Bench {
 public:
  using Say = std::function<void(const std::string& line)>;

  explicit Bench(std::string journal);
  ~Bench();

  // Watches the devices while a page is open; says how each command ends that may have changed one. Returns
  // after RequestStop, when the last command has ended: the highest exit code of those that then ran.
  ExitCode Run(const Say& say);

  // --- from any thread that outlives Run ---

  EventLog& Events() { return m_events; }

  // Starts {"command": "update", "device": "usb 4-2", "file": "3-new.hex"}; for an adapter also baud and echo.
  // Empty, or the reason why not. A device does one thing at a time.
  std::string Start(const Json& request);
  // The command stops before its next request; called again, at once. Always empty.
  std::string Stop(const std::string& job);
  // The same for all; none starts any more.
  void RequestStop();
  // Empty, or the reason why not. `name` only shows in the name that the file gets here.
  std::string TakeFile(const std::string& name, const std::string& content);

 private:
  struct Job;

  bool CollectEnds(const Say& say);
  bool IsBusy(const std::string& device) const;
  void Survey();
  void ShowHistory();
  void Tell(Job& job, std::string key, Json event);
  void TakeLine(Job& job, std::string_view text);

  const std::string m_journal;
  const std::filesystem::path m_folder;  // of the files
  EventLog m_events;
  std::atomic<int> m_lastFile = 0;

  std::mutex m_lock;  // for all that follows
  bool m_stopping = false;
  int m_worst = 0;
  std::map<std::string, Json> m_devices;  // by name, as `list` last showed them usable
  std::vector<std::string> m_files;
  std::map<std::string, std::unique_ptr<Job>> m_jobs;
};

}  // namespace tavo::tool
