// The bench behind the page: the connected devices, an update file, and the commands that work on them. All
// of it comes from the JSON of the tool's commands, each in a process of its own, and becomes an event. An
// event is an object with one of these members, and what belongs to it:
//
//   devices   as `list` shows them; with the complaint of `list`, if any
//   file      the update file: number, name, and the report of `inspect`
//   job       a number, then one of: command, with device, file and begin; line, of the command's JSON;
//             log, a line of its other output; exit, with end
//   history   of the journal, as `history` shows it
//   stopping  true: the program is about to end; ended: it ends
#pragma once

#include <condition_variable>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "serve/event_log.h"
#include "text/exit_code.h"
#include "text/json.h"

namespace tavo::tool {

class Bench {
 public:
  using Say = std::function<void(const std::string& line)>;

  // `say` gets a line at the end of each command that may have changed a device; in any thread.
  Bench(std::string journal, Say say);
  ~Bench();
  Bench(const Bench&) = delete;
  Bench& operator=(const Bench&) = delete;

  // Watches the devices while a page is open. Returns after RequestStop, when the last command has
  // ended: the highest exit code of those that were asked to stop.
  ExitCode Run();

  // --- from any thread ---

  EventLog& Events() { return m_events; }

  // Starts {"command": "update", "device": "usb 4-2", "file": 3}; for an adapter also baud and echo.
  // Empty, or the reason why not. A device does one thing at a time.
  std::string Start(const Json& request);
  // The command stops before its next request; called again, at once.
  void Stop(int job);
  // The same for all; none starts any more.
  void RequestStop();
  // Empty, or the reason why not. `name` only shows in the name that the file gets here.
  std::string TakeFile(const std::string& name, const std::string& content);

 private:
  struct Action;
  struct Job;
  struct File {
    std::string name;
    std::filesystem::path path;
  };

  void Survey();
  // Forgets the commands that have ended there.
  void Drop(const std::string& device, bool writes);
  void Work(Job& job);
  void Execute(Job& job);
  void TakeLine(Job& job, std::string_view text);
  void TakeLog(Job& job, std::string_view text);
  void ShowHistory();
  bool AllEnded() const;

  const std::string m_journal;
  const Say m_say;
  const std::filesystem::path m_folder;  // of the files
  EventLog m_events;

  std::mutex m_lock;  // for all that follows
  std::condition_variable m_changed;
  bool m_stopping = false;
  std::map<std::string, Json> m_devices;  // by name, as `list` last showed them usable
  std::string m_survey;
  int m_lastFile = 0;
  std::map<int, File> m_files;
  int m_lastJob = 0;
  std::map<int, std::unique_ptr<Job>> m_jobs;
};

}  // namespace tavo::tool
