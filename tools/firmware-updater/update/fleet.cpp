#include "update/fleet.h"

#include <algorithm>
#include <cstdlib>
#include <system_error>
#include <thread>
#include <utility>

#include "system/system.h"
#include "text/exit_code.h"
#include "text/text_format.h"

namespace tavo::tool {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

Json Note(std::string_view text) {
  return {{"version", 1}, {"event", "note"}, {"text", Displayable(text)}};
}

// A line that is no event is a text for a person, such as the last words of a process.
Json EventIn(std::string_view line) {
  Json event = Json::ParseOrNull(line);
  return event["event"].IsNull() ? Note(line) : event;
}

}  // namespace

Fleet::Fleet() {
  m_interrupts.emplace([this](int number) { OnInterrupt(number); });
}

Fleet::~Fleet() {
  m_interrupts.reset();
  m_children.clear();
}

void Fleet::Start(std::size_t device, const Process::Words& words, const std::string& rescue) {
  const std::lock_guard lock(m_childrenLock);
  if (m_stopping) return;
  ++m_running;
  m_rescues[device] = rescue;
  const auto report = [=, this](const Json& line) { Push({device, line}); };
  try {
    m_children[device] = std::make_unique<Process>(
        words, Process::Words(),
        Process::Output{.out = [=](std::string_view line) { report(EventIn(line)); },
                        .err = [=](std::string_view line) { report(Note(line)); }});
  } catch (const std::system_error& error) {
    Push({device, Note(error.what())});
    Push({device, {}, EXIT_FAILURE});
  }
}

std::optional<Fleet::Report> Fleet::Next(milliseconds limit) {
  constexpr milliseconds kPace{10};  // between two looks whether a process has ended
  const Clock::time_point end = Clock::now() + limit;
  for (;;) {
    CollectEnds();
    std::unique_lock lock(m_reportsLock);
    m_reported.wait_until(lock, std::min(end, Clock::now() + kPace),
                          [this] { return !m_reports.empty(); });
    if (!m_reports.empty()) {
      Report report = std::move(m_reports.front());
      m_reports.pop_front();
      lock.unlock();
      if (report.line.IsNull()) --m_running;
      NoteRescue(report);
      return report;
    }
    if (Clock::now() >= end) return std::nullopt;
  }
}

// The device's own result knows better than what was named at its start.
void Fleet::NoteRescue(const Report& report) {
  if (report.line["event"] != "result") return;
  const std::lock_guard lock(m_childrenLock);
  m_rescues[report.device] = report.line["state"]["next"].String();
}

void Fleet::Push(Report report) {
  const std::lock_guard lock(m_reportsLock);
  m_reports.push_back(std::move(report));
  m_reported.notify_one();
}

// The end of a process comes behind all of its lines.
void Fleet::CollectEnds() {
  const std::lock_guard lock(m_childrenLock);
  std::erase_if(m_children, [this](const auto& entry) {
    const std::optional<int> exit = entry.second->Wait(milliseconds(0));
    if (exit) Push({entry.first, {}, *exit});
    return exit.has_value();
  });
}

// In another thread, which must wait for nothing that the first one may hold: that one may be waiting for
// somebody to read the screen.
void Fleet::OnInterrupt(int number) {
  constexpr milliseconds kPatience{2000};
  m_stopping = true;
  {
    const std::lock_guard lock(m_childrenLock);
    for (const auto& [device, child] : m_children) child->RequestStop();
  }
  if (number == 1 || (AllEndWithin(kPatience) && OutputTakesText())) return;
  const std::lock_guard lock(m_childrenLock);
  for (const auto& [device, child] : m_children) child->Kill();
  std::string text = "\nEnded at once. To recover the devices, run:\n";
  for (const auto& [device, rescue] : m_rescues) text += rescue.empty() ? "" : "  " + rescue + "\n";
  SayLast(text);
  std::_Exit(static_cast<int>(ExitCode::Stopped));
}

bool Fleet::AllEndWithin(milliseconds limit) const {
  const Clock::time_point end = Clock::now() + limit;
  while (m_running > 0 && Clock::now() < end) std::this_thread::sleep_for(milliseconds(10));
  return m_running == 0;
}

}  // namespace tavo::tool
