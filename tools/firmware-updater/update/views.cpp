#include "update/views.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <ostream>
#include <set>
#include <thread>

#include "device/refused_text.h"
#include "log/displayable.h"
#include "text/json.h"
#include "text/live_lines.h"
#include "text/text_format.h"

namespace tavo::tool {
namespace {

using std::chrono::milliseconds;

constexpr int kBarWidth = 20;
constexpr milliseconds kRedrawPace{100};
constexpr milliseconds kRateNeeds{200};  // a rate over less time is noise

// A note may come from a thread that must not wait long for another one writing to a blocked screen.
// Returns no lock when that one does not let go in time.
std::unique_lock<std::mutex> LockForNote(std::mutex& mutex) {
  constexpr int kTries = 20;
  constexpr milliseconds kPause{10};
  for (int tries = 0; tries < kTries; ++tries) {
    std::unique_lock lock(mutex, std::try_to_lock);
    if (lock) return lock;
    std::this_thread::sleep_for(kPause);
  }
  return {};
}

double KiB(std::int64_t bytes) { return static_cast<double>(bytes) / 1024; }

int Percent(const Transfer& transfer) {
  if (transfer.total <= 0) return 100;
  return static_cast<int>(std::clamp<std::int64_t>(transfer.done * 100 / transfer.total, 0, 100));
}

std::string Rate(const Transfer& transfer) {
  if (transfer.elapsed < kRateNeeds) return {};
  return Format("%.1f KiB/s",
                KiB(std::min(transfer.done, transfer.total)) / Seconds(transfer.elapsed));
}

std::string TimeLeft(const Transfer& transfer) {
  if (transfer.elapsed < kRateNeeds || transfer.done <= 0) return {};
  const auto rest = std::max<std::int64_t>(transfer.total - transfer.done, 0);
  const auto seconds = transfer.elapsed.count() * rest / transfer.done / 1000;
  return Format("%lld:%02lld left", static_cast<long long>(seconds / 60),
                static_cast<long long>(seconds % 60));
}

const char* NameOf(PhaseEnd end) {
  switch (end) {
    case PhaseEnd::Ok: return "ok";
    case PhaseEnd::Failed: return "failed";
    case PhaseEnd::Stopped: break;
  }
  return "stopped";
}

std::string PhaseResult(Phase phase, PhaseEnd end, milliseconds elapsed, const Transfer& transfer) {
  std::string line = Format("%-8s%7.1f s", NameOf(end), Seconds(elapsed));
  if (phase == Phase::Write)
    line += Format("   %.1f KiB", KiB(std::min(transfer.done, transfer.total)));
  if (const std::string rate = Rate(transfer); phase == Phase::Write && !rate.empty()) {
    line += ", " + rate;
  }
  return line;
}

std::string NoAnswerTo(const std::string& request, const RefusedBytes& refused) {
  const std::string came = NoAnswerAmong(refused);
  return "no answer to: " + request + (came.empty() ? "" : "; " + came);
}

// The last lines, which the terminal and the plain view share.
class TextView : public UpdateView {
 public:
  explicit TextView(const Machine& machine) : m_machine(machine) {}

  void Show(const Record& record) override {
    if (record.failure) {
      Complain(m_machine, record.failure->name + ": " + record.failure->text, record.failure->hint);
    }
    if (const std::string facts = FactsText(record.before); record.failure && !facts.empty()) {
      m_machine.err << InLines(m_machine, "reported: " + facts) << '\n';
    }
    for (const std::string& name : record.resetModules) {
      m_machine.out << "module " << name << " was reset\n";
    }
    const bool well = record.ending == Ending::Succeeded;
    if (well) m_machine.out << Coloured(m_machine, kGreen, Summary(record)) << '\n';
    for (const std::string& lost : record.lost) {
      const bool isJournal = lost == "journal";  // the rest of which is safe
      m_machine.out << "The " << lost << (isJournal ? " entry" : "") << " is lost.\n";
    }
    m_machine.out << InLines(m_machine, record.state.Line()) << std::endl;
  }

 protected:
  std::mutex m_lock;

  const Machine& m_machine;

 private:
  static std::string Summary(const Record& record) {
    const char* const what = record.flags.dryRun                  ? "Dry run: nothing was written"
                             : record.purpose == Purpose::Recover ? "Recovered"
                                                                  : "Updated";
    return Format("%s in %.1f s.", what, Seconds(record.elapsed));
  }
};

class PlainView final : public TextView {
 public:
  using TextView::TextView;

  void PhaseBegins(Phase) override {}
  void Wrote(const Transfer&) override {}
  void PhaseEnds(Phase phase, PhaseEnd end, milliseconds elapsed,
                 const Transfer& transfer) override {
    const std::lock_guard lock(m_lock);
    m_machine.out << Format("%-22s", DescriptionOf(phase).title)
                  << PhaseResult(phase, end, elapsed, transfer) << std::endl;
  }
  void Retried(const std::string& request, const RefusedBytes& refused) override {
    const std::lock_guard lock(m_lock);
    m_machine.out << NoAnswerTo(request, refused) << std::endl;
  }
  void Note(const std::string& text) override {
    const std::unique_lock lock = LockForNote(m_lock);
    if (!lock) return;
    m_machine.out << InLines(m_machine, text) << std::endl;
  }
};

class TerminalView final : public TextView {
 public:
  using TextView::TextView;

  void PhaseBegins(Phase phase) override {
    const std::lock_guard lock(m_lock);
    m_title = Format("%-22s", DescriptionOf(phase).title);
    m_state.clear();
    Redraw();
  }
  void Wrote(const Transfer& transfer) override {
    const std::lock_guard lock(m_lock);
    if (transfer.elapsed < m_nextRedraw && transfer.done < transfer.total) return;
    m_nextRedraw = transfer.elapsed + kRedrawPace;
    const int percent = Percent(transfer);
    const auto filled = static_cast<std::size_t>(percent * kBarWidth / 100);
    std::string bar(filled, '#');
    bar.resize(kBarWidth, '-');
    m_state = Format("%3d %%", percent);
    bar = "[" + bar + "] ";
    if (Fits(bar)) m_state = bar + m_state;
    const std::string bytes =
        Format("%.1f/%.1f KiB", KiB(std::min(transfer.done, transfer.total)), KiB(transfer.total));
    for (const std::string& part : {bytes, Rate(transfer), TimeLeft(transfer)}) {
      if (!part.empty() && Fits(part)) m_state += "  " + part;
    }
    Redraw();
  }
  void PhaseEnds(Phase phase, PhaseEnd end, milliseconds elapsed,
                 const Transfer& transfer) override {
    const std::lock_guard lock(m_lock);
    m_nextRedraw = milliseconds{0};
    m_live.Erase();
    m_machine.out << m_title
                  << Coloured(m_machine, end == PhaseEnd::Ok ? kGreen : kRed,
                              PhaseResult(phase, end, elapsed, transfer))
                  << std::endl;
    m_title.clear();
  }
  void Retried(const std::string& request, const RefusedBytes& refused) override {
    const std::lock_guard lock(m_lock);
    m_state = NoAnswerTo(request, refused);
    Redraw();
  }
  void Note(const std::string& text) override {
    const std::unique_lock lock = LockForNote(m_lock);
    if (!lock) return;
    m_live.Say(text);
    Redraw();
  }

 private:
  bool Fits(const std::string& part) const {
    return m_title.size() + m_state.size() + part.size() + 2 <= m_live.Room();
  }

  void Redraw() {
    if (!m_title.empty()) m_live.Show({{{m_title + m_state}}});
  }

  LiveLines m_live{m_machine};
  std::string m_title;
  std::string m_state;
  milliseconds m_nextRedraw{0};
};

// A note that every round repeats is shown once.
class RoundView final : public UpdateView {
 public:
  explicit RoundView(const Machine& machine) : m_machine(machine) {}

  // A terminal shows what the round is doing until its line comes.
  void PhaseBegins(Phase phase) override {
    const std::lock_guard lock(m_lock);
    if (m_machine.terminal) m_live.Show({{{DescriptionOf(phase).title}}});
  }
  void Wrote(const Transfer&) override {}
  void PhaseEnds(Phase, PhaseEnd, milliseconds, const Transfer&) override {}
  void Retried(const std::string&, const RefusedBytes&) override {}
  void Note(const std::string& text) override {
    const std::unique_lock lock = LockForNote(m_lock);
    if (lock && m_noted.insert(text).second) m_live.Say(tavo::Displayable(text));
  }
  void Show(const Record& record) override {
    const std::lock_guard lock(m_lock);
    const std::tm time = m_machine.platform.LocalTime();
    std::string line = Format("%02d:%02d:%02d  %-9s %5.1f s  ", time.tm_hour, time.tm_min,
                              time.tm_sec, NameOf(record.ending), Seconds(record.elapsed));
    if (record.failure) {
      const std::string& text = record.failure->text;
      line += record.failure->name + ": " + text + (text.ends_with('.') ? " " : ". ");
    }
    for (const std::string& lost : record.lost) line += "The " + lost + " is lost. ";
    m_live.Say(tavo::Displayable(line + record.state.Line()));
  }

 private:
  const Machine& m_machine;
  LiveLines m_live{m_machine};
  std::mutex m_lock;
  std::set<std::string> m_noted;
};

class JsonView final : public UpdateView {
 public:
  explicit JsonView(const Machine& machine) : m_machine(machine) {}

  void PhaseBegins(Phase phase) override {
    Line("phase", {{"phase", DescriptionOf(phase).name}, {"state", "begins"}});
  }
  void Wrote(const Transfer& transfer) override {
    const int percent = Percent(transfer);
    if (percent == m_lastPercent) return;
    m_lastPercent = percent;
    Line("bytes", BytesJson(transfer));
  }
  void PhaseEnds(Phase phase, PhaseEnd end, milliseconds elapsed, const Transfer&) override {
    Line("phase", {{"phase", DescriptionOf(phase).name},
                   {"state", NameOf(end)},
                   {"seconds", Seconds(elapsed)}});
  }
  void Retried(const std::string& request, const RefusedBytes& refused) override {
    Line("retry", {{"request", request}, {"refused", RefusedJson(refused)}});
  }
  void Note(const std::string& text) override {
    const std::unique_lock lock = LockForNote(m_lock);
    if (lock) Write("note", {{"text", text}});
  }
  void Show(const Record& record) override { Line(kResultEvent, AsJson(record)); }

 private:
  void Line(const char* event, const Json& content) {
    const std::lock_guard lock(m_lock);
    Write(event, content);
  }
  void Write(const char* event, const Json& content) {
    m_machine.out << EventLine(event, content) << std::endl;
  }

  const Machine& m_machine;
  std::mutex m_lock;
  int m_lastPercent = -1;
};

}  // namespace

std::unique_ptr<UpdateView> MakeRoundView(const Machine& machine) {
  return std::make_unique<RoundView>(machine);
}

std::unique_ptr<UpdateView> MakeView(const Machine& machine, bool json, bool others) {
  if (json) return std::make_unique<JsonView>(machine);
  if (machine.terminal && !others) return std::make_unique<TerminalView>(machine);
  return std::make_unique<PlainView>(machine);
}

}  // namespace tavo::tool
