#include "serve/bench.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <fstream>
#include <optional>
#include <system_error>
#include <thread>

#include "system/process.h"
#include "system/system.h"

namespace tavo::tool {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using Words = Process::Words;

constexpr milliseconds kPace{50};
constexpr int kPacesToSurvey = 20;
constexpr int kMostFiles = 50;
constexpr int kMostLines = 800;  // of one command; an update writes about two hundred
constexpr std::size_t kLongestName = 60;
// Of a command that was killed, or did not start.
constexpr int kNoExitCode = static_cast<int>(ExitCode::FailedUnknown);

const std::map<std::string, Words> kActions{
    {"info", {"firmware-updater", "info", "--json"}},
    {"verify", {"firmware-updater", "info", "--verify", "--json"}},
    {"update", {"firmware-updater", "update", "--verbose", "--json"}},
    {"recover", {"firmware-updater", "recover", "--verbose", "--json"}},
};

// The document that a command writes, and its complaint.
Json::Object Ask(const Words& words) {
  std::string text;
  std::string complaint;
  try {
    Process(words, {},
            {.out = [&](std::string_view line) { text += line; },
             .err = [&](std::string_view line) { complaint += std::string(line) + '\n'; }})
        .Wait();
  } catch (const std::system_error& error) {
    complaint = error.what();
  }
  return {{"document", Json::ParseOrNull(text)}, {"complaint", complaint}};
}

// In microseconds.
std::int64_t Now() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

// No separator and no sign with a meaning is left, and the number in front rules out special names.
std::string StoredName(int number, const std::string& name) {
  std::string stored = name.substr(name.size() - std::min(name.size(), kLongestName));
  for (char& c : stored) {
    if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '.') c = '_';
  }
  return std::to_string(number) + "-" + stored;
}

}  // namespace

struct Bench::Job {
  const std::string name;
  const std::string device;
  const std::string title;
  const bool writes;
  std::optional<int> exit{};
  // Of the threads that read its output:
  std::atomic<int> lines = 0;
  std::string text{};
  std::string closing = "no result; the state of the device is unknown";
  std::optional<Process> process{};
};

// The name is new; the folder's rights protect it.
Bench::Bench(std::string journal)
    : m_journal(std::move(journal)),
      m_folder(fs::temp_directory_path() / ("firmware-updater-" + std::to_string(Now()))) {
  MakePrivateFolder(m_folder);
}

Bench::~Bench() {
  m_jobs.clear();
  std::error_code ignored;
  fs::remove_all(m_folder, ignored);
}

ExitCode Bench::Run(const Say& say) {
  ShowHistory();
  for (int pace = 0; !CollectEnds(say); ++pace) {
    if (pace % kPacesToSurvey == 0 && m_events.readers > 0) Survey();
    std::this_thread::sleep_for(kPace);
  }
  m_events.Close();
  return static_cast<ExitCode>(m_worst);
}

// Whether the bench may stop: no command is left.
bool Bench::CollectEnds(const Say& say) {
  std::unique_lock lock(m_lock);
  bool isDone = m_stopping;
  std::string endings;
  for (const auto& [name, job] : m_jobs) {
    if (job->exit) continue;
    job->exit = job->process ? job->process->Wait(milliseconds(0)) : kNoExitCode;
    if (job->exit > static_cast<int>(ExitCode::EvidenceLost)) job->exit = kNoExitCode;
    isDone = isDone && job->exit;
    if (job->exit) Tell(*job, "end", {{"exit", *job->exit}});
    if (!job->exit || !job->writes) continue;
    if (m_stopping) m_worst = std::max(m_worst, *job->exit);
    endings += (endings.empty() ? "" : "\n") + job->title + ": " + job->closing;
  }
  lock.unlock();
  if (endings.empty()) return isDone;
  say(endings);
  ShowHistory();
  return isDone;
}

bool Bench::IsBusy(const std::string& device) const {
  return std::ranges::any_of(
      m_jobs, [&](const auto& job) { return !job.second->exit && job.second->device == device; });
}

void Bench::Survey() {
  const Json list = Ask({"firmware-updater", "list", "--json"});
  const Json& devices = list["document"]["devices"];
  const std::lock_guard lock(m_lock);
  std::vector<std::string> names;
  for (std::size_t i = 0; i < devices.Size(); ++i) {
    names.push_back(devices[i]["kind"].String() + " " + devices[i]["address"].String());
    if (devices[i]["usable"] == Json(true)) m_devices[names.back()] = devices[i];
  }
  m_events.Publish("list", "", {{"list", list}});
  std::erase_if(m_devices, [&](const auto& entry) {
    const std::string& name = entry.first;
    // An adapter in use may not be listed.
    if (std::ranges::count(names, name) > 0 || IsBusy(name)) return false;
    // The next device there may be another one.
    m_events.Forget(name + " info");
    m_events.Publish("forget", "", {{"forget", name + " info"}});
    return true;
  });
}

void Bench::ShowHistory() {
  if (m_journal.empty()) return;
  const Json history = Ask({"firmware-updater", "history", m_journal, "--json"});
  m_events.Publish("history", "", {{"history", history}, {"journal", m_journal}});
}

// --- commands ---

std::string Bench::Start(const Json& request) {
  const std::string command = request["command"].String();
  const auto action = kActions.find(command);
  if (action == kActions.end()) return "there is no such command";
  const bool writes = command == "update" || command == "recover";
  const std::string name = request["device"].String();
  const std::lock_guard lock(m_lock);
  if (m_stopping) return "the program is about to end";
  if (IsBusy(name)) return "the device is busy";
  const auto device = m_devices.find(name);
  if (device == m_devices.end()) return "there is no such device";
  const std::string file = request["file"].String();
  const bool hasFile = std::ranges::count(m_files, file) > 0;
  if (writes && !hasFile) return "choose the update file again";

  Words words = action->second;
  if (hasFile) words.push_back(TextOf(m_folder / file));
  words.push_back("--" + device->second["kind"].String() + "=" +
                  device->second["address"].String());
  const auto baud = static_cast<int>(request["baud"].Number());
  if (baud > 0) words.push_back("--baud=" + std::to_string(baud));
  if (request["echo"] == Json(true)) words.emplace_back("--echo");
  if (writes && !m_journal.empty()) words.push_back("--journal=" + m_journal);

  const std::string jobName = name + (writes ? " work" : " info");
  m_events.Forget(jobName);
  m_jobs[jobName].reset(
      new Job{.name = jobName, .device = name, .title = name + ": " + command, .writes = writes});
  Job& job = *m_jobs[jobName];
  Tell(job, "begin", {{"device", device->second}, {"request", request}});
  const auto onLine = [&](std::string_view line) { TakeLine(job, line); };
  const auto onLog = [&](std::string_view line) { Tell(job, "", {{"log", line}}); };
  try {
    job.process.emplace(words, Words{}, Process::Output{.out = onLine, .err = onLog});
  } catch (const std::system_error& error) {
    onLog(error.what());
  }
  return {};
}

// Of very many events without key the last ones stay.
void Bench::Tell(Job& job, std::string key, Json event) {
  if (key.empty()) key = std::to_string(job.lines++ % kMostLines);
  event.Set("job", job.name);
  event.Set("at", Now() / 1000);
  m_events.Publish(job.name, key, event);
}

// A document may have several lines. Of two counts of bytes only the last one matters.
void Bench::TakeLine(Job& job, std::string_view text) {
  job.text += text;
  const Json line = Json::ParseOrNull(job.text);
  if (line.IsNull()) return;
  job.text.clear();
  const std::string event = line["event"].String();
  Tell(job, event == "bytes" ? event : "", {{"line", line}});
  if (event != "result") return;
  const std::string next = line["state"]["next"].String();
  job.closing = line["state"]["text"].String() + (next.empty() ? "" : " Next: " + next);
}

std::string Bench::Stop(const std::string& name) {
  const std::lock_guard lock(m_lock);
  const auto job = m_jobs.find(name);
  if (job != m_jobs.end() && job->second->process) job->second->process->RequestStop();
  return {};
}

void Bench::RequestStop() {
  const std::lock_guard lock(m_lock);
  m_stopping = true;
  m_events.Publish("stopping", "", {{"stopping", true}});
  for (const auto& [name, job] : m_jobs) {
    if (job->process) job->process->RequestStop();
  }
}

// --- files ---

std::string Bench::TakeFile(const std::string& name, const std::string& content) {
  const std::string file = StoredName(++m_lastFile, name);
  if (m_lastFile > kMostFiles) return "these were too many files: start the page again";
  std::ofstream to(m_folder / file, std::ios::binary);
  to << content;
  to.close();
  if (!to) return "the file cannot be stored: the disk may be full";
  const Json report = Ask({"firmware-updater", "inspect", TextOf(m_folder / file), "--json"});
  const std::lock_guard lock(m_lock);
  m_events.Publish("inspect", "", {{"inspect", report}, {"file", file}, {"name", name}});
  m_files.push_back(file);
  return {};
}

}  // namespace tavo::tool
