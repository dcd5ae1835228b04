#include "serve/bench.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <fstream>
#include <functional>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "serve/secret.h"
#include "system/process.h"
#include "system/system.h"

namespace tavo::tool {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::system_clock;
using Words = Process::Words;

constexpr milliseconds kSurveyPace{1000};
constexpr std::size_t kMostFiles = 8;  // an older one can be dropped again
constexpr int kMostLines = 400;        // of one command; an update writes about a hundred
constexpr std::size_t kLongestName = 60;

struct Answer {
  int exit = 0;
  Json document{};
  std::string complaint{};
};

Json ParsedOrNull(const std::string& text) {
  try {
    return Json::Parse(text);
  } catch (const std::exception&) {
    return {};
  }
}

// Runs one of the commands that write one document.
Answer Ask(const Words& words) {
  Answer answer;
  std::string text;
  Process command(
      words, {},
      {.out = [&](std::string_view line) { text += line; },
       .err = [&](std::string_view line) { answer.complaint += std::string(line) + '\n'; }});
  answer.exit = command.Wait();
  answer.document = ParsedOrNull(text);
  return answer;
}

std::int64_t Now() {
  const auto now = system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<milliseconds>(now).count();
}

// What the page calls a device; empty: nothing selects it.
std::string NameOf(const Json& device) {
  const std::string address = device["address"].String();
  return address.empty() ? address : device["kind"].String() + " " + address;
}

Words TargetWords(const Json& device, const Json& request) {
  Words words{"--" + device["kind"].String() + "=" + device["address"].String()};
  const auto baud = static_cast<int>(request["baud"].Number());
  if (baud > 0) words.push_back("--baud=" + std::to_string(baud));
  if (request["echo"] == Json(true)) words.emplace_back("--echo");
  return words;
}

fs::path MakeFolder() {
  const fs::path folder = fs::temp_directory_path() / ("firmware-updater-" + MakeSecret());
  MakePrivateFolder(folder);
  return folder;
}

// No separator and no sign with a meaning is left, and the number in front rules out special names.
std::string StoredName(int number, const std::string& name) {
  std::string stored = name.substr(name.size() - std::min(name.size(), kLongestName));
  const auto isPlain = [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '.';
  };
  std::ranges::replace_if(stored, std::not_fn(isPlain), '_');
  return std::to_string(number) + "-" + stored;
}

}  // namespace

struct Bench::Action {
  std::string_view name;
  Words words;
  bool writes;  // may change the device; writes JSON line by line, and can be stopped
  bool needsFile;

  static const Action* Called(const std::string& name) {
    static const std::vector<Action> kActions{
        {"info", {"info"}, false, false},
        {"verify", {"info", "--verify"}, false, false},
        {"update", {"update", "--verbose"}, true, true},
        {"recover", {"recover", "--verbose"}, true, true},
    };
    const auto action = std::ranges::find(kActions, name, &Action::name);
    return action == kActions.end() ? nullptr : &*action;
  }
};

struct Bench::Job {
  std::string Key(const std::string& event) const {
    return "job " + std::to_string(number) + " " + event;
  }
  void RequestStop() {
    stopping = true;
    if (process) process->RequestStop();
  }

  const int number;
  const Action& action;
  const std::string device;
  const Words words;
  std::optional<Process> process{};
  bool stopping = false;
  bool ended = false;
  int exit = static_cast<int>(ExitCode::Stopped);
  // Of the threads that read its output:
  int lines = 0;
  int logLines = 0;
  std::string document{};
  std::string lastLog{};
  std::string closing{};
  std::jthread thread{};
};

Bench::Bench(std::string journal, Say say)
    : m_journal(std::move(journal)), m_say(std::move(say)), m_folder(MakeFolder()) {}

Bench::~Bench() {
  m_jobs.clear();
  std::error_code ignored;
  fs::remove_all(m_folder, ignored);
}

// --- the devices ---

ExitCode Bench::Run() {
  ShowHistory();
  std::unique_lock lock(m_lock);
  while (!m_stopping) {
    lock.unlock();
    if (m_events.AwaitReader(kSurveyPace)) Survey();
    lock.lock();
    m_changed.wait_for(lock, kSurveyPace, [this] { return m_stopping; });
  }
  m_events.Publish("stopping", {{"stopping", true}});
  m_changed.wait(lock, [this] { return AllEnded(); });
  int worst = 0;
  for (const auto& [number, job] : m_jobs) {
    if (job->stopping && job->action.writes) worst = std::max(worst, job->exit);
  }
  m_events.Publish("stopping", {{"ended", true}});
  m_events.Close();
  return static_cast<ExitCode>(worst);
}

bool Bench::AllEnded() const {
  return std::ranges::all_of(m_jobs, [](const auto& entry) { return entry.second->ended; });
}

void Bench::Survey() {
  const Answer answer = Ask({"firmware-updater", "list", "--json"});
  const Json& devices = answer.document["devices"];
  const std::lock_guard lock(m_lock);
  std::vector<std::string> names;
  for (std::size_t i = 0; i < devices.Size(); ++i) {
    names.push_back(NameOf(devices[i]));
    if (devices[i]["usable"] == Json(true)) m_devices[names.back()] = devices[i];
  }
  for (const auto& [name, device] : m_devices) {
    // The next device there may be another one.
    if (std::ranges::count(names, name) == 0) Drop(name, false);
  }
  const std::string survey = devices.Text();
  if (survey == std::exchange(m_survey, survey)) return;
  m_events.Publish("devices", {{"devices", devices}, {"complaint", answer.complaint}});
}

void Bench::Drop(const std::string& device, bool writes) {
  std::erase_if(m_jobs, [&](const auto& entry) {
    const Job& job = *entry.second;
    const bool drop = job.ended && job.device == device && job.action.writes == writes;
    if (drop) m_events.Forget(job.Key(""));
    return drop;
  });
}

// --- commands ---

std::string Bench::Start(const Json& request) {
  const Action* const action = Action::Called(request["command"].String());
  if (action == nullptr) return "there is no such command";
  const std::lock_guard lock(m_lock);
  if (m_stopping) return "the program is about to end";
  const auto device = m_devices.find(request["device"].String());
  if (device == m_devices.end()) return "there is no such device";
  const auto file = m_files.find(static_cast<int>(request["file"].Number()));
  if (file == m_files.end() && action->needsFile) return "choose the update file again";
  const auto isBusy = [&](const auto& entry) {
    const Job& job = *entry.second;
    return !job.ended && job.device == device->first && (job.action.writes || !action->writes);
  };
  if (std::ranges::any_of(m_jobs, isBusy)) return "the device is busy";

  Words words{"firmware-updater"};
  words.insert(words.end(), action->words.begin(), action->words.end());
  if (file != m_files.end()) words.push_back(file->second.path.string());
  const Words target = TargetWords(device->second, request);
  words.insert(words.end(), target.begin(), target.end());
  words.emplace_back("--json");
  if (action->writes && !m_journal.empty()) words.push_back("--journal=" + m_journal);

  Drop(device->first, action->writes);
  const int number = ++m_lastJob;
  Json chosen;
  if (file != m_files.end()) {
    chosen = {{"number", file->first}, {"name", file->second.name}};
  }
  std::unique_ptr<Job> job(
      new Job{.number = number, .action = *action, .device = device->first, .words = words});
  m_events.Publish(job->Key("begin"), {{"job", number},
                                       {"command", action->name},
                                       {"device", device->second},
                                       {"file", chosen},
                                       {"begin", Now()}});
  job->thread = std::jthread([this, job = job.get()] { Work(*job); });
  m_jobs[number] = std::move(job);
  return {};
}

void Bench::Work(Job& job) {
  try {
    Execute(job);
    if (!job.document.empty()) TakeLine(job, std::exchange(job.document, {}));
    if (job.action.writes) ShowHistory();
  } catch (const std::exception& error) {
    job.exit = static_cast<int>(ExitCode::FailedUnknown);
    TakeLog(job, error.what());
  }
  const bool killed = job.closing.empty() && job.exit > static_cast<int>(ExitCode::EvidenceLost);
  if (killed && job.lines == 0) {
    job.exit = static_cast<int>(ExitCode::Stopped);
    job.closing = "stopped before it began";
  } else if (killed) {
    job.exit = static_cast<int>(ExitCode::FailedUnknown);
    job.closing = "killed; the state of the device is unknown";
  }
  if (job.action.writes) {
    const std::string& text = job.closing.empty() ? job.lastLog : job.closing;
    m_say(job.device + ": " + std::string(job.action.name) + ": " + text);
  }
  const std::lock_guard lock(m_lock);
  job.process.reset();
  job.ended = true;
  m_events.Publish(job.Key("end"), {{"job", job.number}, {"exit", job.exit}, {"end", Now()}});
  m_changed.notify_all();
}

// A device that is asked questions is left to answer them before it is updated.
void Bench::Execute(Job& job) {
  std::unique_lock lock(m_lock);
  m_changed.wait(lock, [&] {
    return std::ranges::none_of(m_jobs, [&](const auto& entry) {
      const Job& other = *entry.second;
      return other.device == job.device && other.number < job.number && !other.ended;
    });
  });
  if (job.stopping) return;
  const auto onLine = [&](std::string_view line) {
    if (job.action.writes) return TakeLine(job, line);
    job.document += line;
  };
  job.process.emplace(
      job.words, Words{},
      Process::Output{.out = onLine, .err = [&](std::string_view line) { TakeLog(job, line); }});
  lock.unlock();
  job.exit = job.process->Wait();
}

// Of two counts of bytes only the last one matters, and of very many lines the last ones.
void Bench::TakeLine(Job& job, std::string_view text) {
  const Json line = ParsedOrNull(std::string(text));
  const bool counts = line["event"].String() == "bytes";
  const std::string key = counts ? "bytes" : "line " + std::to_string(job.lines++ % kMostLines);
  m_events.Publish(job.Key(key), {{"job", job.number}, {"line", line}, {"at", Now()}});
  if (line["event"].String() != "result") return;
  const Json& state = line["state"];
  const std::string next = state["next"].String();
  job.closing = state["text"].String() + (next.empty() ? "" : " Next: " + next);
}

void Bench::TakeLog(Job& job, std::string_view text) {
  job.lastLog = text;
  m_events.Publish(job.Key("log " + std::to_string(job.logLines++ % kMostLines)),
                   {{"job", job.number}, {"log", text}});
}

void Bench::Stop(int number) {
  const std::lock_guard lock(m_lock);
  const auto job = m_jobs.find(number);
  if (job != m_jobs.end() && job->second->action.writes) job->second->RequestStop();
}

void Bench::RequestStop() {
  const std::lock_guard lock(m_lock);
  for (const auto& [number, job] : m_jobs) {
    if (!job->ended && (job->action.writes || m_stopping)) job->RequestStop();
  }
  m_stopping = true;
  m_changed.notify_all();
}

// --- files ---

std::string Bench::TakeFile(const std::string& name, const std::string& content) {
  File file{.name = name, .path = {}};
  int number = 0;
  {
    const std::lock_guard lock(m_lock);
    number = ++m_lastFile;
    file.path = m_folder / StoredName(number, name);
  }
  std::ofstream to(file.path, std::ios::binary);
  if (!to.write(content.data(), static_cast<std::streamsize>(content.size())).flush()) {
    return "the file cannot be stored: the disk may be full";
  }
  to.close();
  const Answer answer = Ask({"firmware-updater", "inspect", TextOf(file.path), "--json"});
  const std::lock_guard lock(m_lock);
  m_files[number] = std::move(file);
  m_events.Publish("file", {{"file", number}, {"name", name}, {"report", answer.document}});
  if (m_files.size() > kMostFiles) {
    std::error_code ignored;
    fs::remove(m_files.begin()->second.path, ignored);
    m_files.erase(m_files.begin());
  }
  return {};
}

void Bench::ShowHistory() {
  if (m_journal.empty()) return;
  const Answer answer = Ask({"firmware-updater", "history", m_journal, "--json"});
  m_events.Publish("history", {{"history", answer.document}, {"journal", m_journal}});
}

}  // namespace tavo::tool
