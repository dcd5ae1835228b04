// history: the sums of a journal, from update --journal.
#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <map>
#include <memory>
#include <numeric>
#include <ostream>

#include "commands/commands.h"
#include "file/file_check.h"
#include "text/json.h"
#include "text/options.h"
#include "text/text_format.h"
#include "update/course.h"
#include "update/journal.h"

namespace tavo::tool {
namespace {

constexpr int kDocumentVersion = 1;

struct Options {
  std::string path{};
  std::string since{};
  std::string tag{};
  bool json = false;
  bool csv = false;
};

bool Succeeded(const Json& result) { return result["ending"] == "succeeded"; }

std::string Place(const Json& result) {
  const Json& target = result["target"];
  return result["station"].String() + " " + target["kind"].String() + " " +
         target["address"].String();
}

std::string File(const Json& result) {
  constexpr std::size_t kShortDigest = 12;
  const std::string& path = result["file"].String();
  return path.substr(path.find_last_of("/\\") + 1) + " " +
         result["sha256"].String().substr(0, kShortDigest);
}

// A serial number of USB is the device's own; that of an adapter says nothing about the device behind it.
std::string Device(const Json& result, const std::string& tag) {
  const std::string& named = result["tags"][tag].String();
  if (!named.empty()) return tag + "=" + named;
  const Json& target = result["target"];
  const std::string& serial = target["usb"]["serialNumber"].String();
  const bool isOwn = target["kind"] == "usb" && !serial.empty();
  return isOwn ? "serial number " + serial : Place(result);
}

// The updates at one port, or with one file.
struct Group {
  int updates = 0;
  int succeeded = 0;
  double seconds = 0;  // of those that succeeded, together

  void Add(const Json& result) {
    ++updates;
    if (!Succeeded(result)) return;
    ++succeeded;
    seconds += result["seconds"].Number();
  }
  double MeanSeconds() const { return succeeded == 0 ? 0 : seconds / succeeded; }
};

using Groups = std::map<std::string, Group>;

class Sums {
 public:
  explicit Sums(std::string tag) : m_tag(std::move(tag)) {}

  void Add(const Json& result) {
    if (result["dryRun"] == true) {
      ++dryRuns;
      return;
    }
    begin = updates == 0 ? result["begin"].String() : std::min(begin, result["begin"].String());
    end = std::max(end, result["end"].String());
    ++updates;
    ++endings[result["ending"].String()];
    if (!result["failure"].IsNull()) ++failures[result["failure"]["name"].String()];
    ports[Place(result)].Add(result);
    files[File(result)].Add(result);
    if (Succeeded(result)) seconds.push_back(result["seconds"].Number());
    Pass(result);
  }

  std::vector<std::string> Unfinished() const {
    std::vector<std::string> names;
    for (const auto& [name, inWork] : m_inWork) {
      if (inWork) names.push_back(name);
    }
    return names;
  }

  int updates = 0;
  int dryRuns = 0;
  int devices = 0;
  int passedFirst = 0;
  std::string begin{};
  std::string end{};
  std::map<std::string, int> endings{};
  std::map<std::string, int> failures{};
  Groups ports{};
  Groups files{};
  std::vector<double> seconds{};  // of the updates that succeeded

 private:
  // A device is in work from its first update until one succeeds. A recovery comes first only where an
  // update was killed before it.
  void Pass(const Json& result) {
    bool& inWork = m_inWork[Device(result, m_tag)];
    const bool first = !inWork;
    devices += first ? 1 : 0;
    passedFirst += first && Succeeded(result) && result["command"] == "update" ? 1 : 0;
    inWork = !Succeeded(result);
  }

  std::string m_tag;
  std::map<std::string, bool> m_inWork{};
};

// --- durations ---

struct Bar {
  double from;
  double to;  // infinite for the last, which a few long ones go to
  int count = 0;
};

// 1, 2 or 5 times a power of ten, so that `span` takes ten bars at most.
double WidthFor(double span) {
  constexpr int kMostBars = 10;
  double power = 0.1;
  for (;; power *= 10) {
    for (const int digit : {1, 2, 5}) {
      if (digit * power * kMostBars >= span) return digit * power;
    }
  }
}

std::vector<Bar> Histogram(std::vector<double> values) {
  if (values.empty()) return {};
  std::ranges::sort(values);
  const double least = values.front();
  const double usual = values[(values.size() - 1) * 95 / 100];
  const double width = WidthFor(usual - least);
  std::vector<Bar> bars;
  const auto edge = [&](double n) { return std::round(n * width * 10) / 10; };
  for (double n = std::floor(least / width); edge(n) <= usual; ++n) {
    bars.push_back({edge(n), edge(n + 1)});
  }
  if (values.back() >= bars.back().to) {
    bars.push_back({bars.back().to, std::numeric_limits<double>::infinity()});
  }
  for (const double value : values) {
    ++std::ranges::find_if(bars, [&](const Bar& bar) { return value < bar.to; })->count;
  }
  return bars;
}

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::ranges::nth_element(values, middle);
  return *middle;
}

// --- the screen ---

// In UTF-8 every character has one byte that continues no other.
std::size_t Characters(const std::string& text) {
  return static_cast<std::size_t>(
      std::ranges::count_if(text, [](char byte) { return (byte & 0xC0) != 0x80; }));
}

void PutGroups(std::ostream& out, const char* title, const Groups& groups) {
  std::size_t width = 0;
  for (const auto& [name, group] : groups) width = std::max(width, Characters(Displayable(name)));
  out << '\n' << Format("%-*s  updates  succeeded  mean time\n", static_cast<int>(width), title);
  for (const auto& [name, group] : groups) {
    const std::string shown = Displayable(name);
    out << shown << std::string(width - Characters(shown), ' ')
        << Format("  %7d  %9d", group.updates, group.succeeded);
    if (group.succeeded > 0) out << Format("  %7.1f s", group.MeanSeconds());
    out << '\n';
  }
}

void PutDurations(std::ostream& out, const std::vector<double>& seconds) {
  constexpr int kLongestBar = 40;
  if (seconds.empty()) return;
  const auto [least, most] = std::ranges::minmax(seconds);
  out << Format("\nSuccessful updates took %.1f to %.1f s, half of them %.1f s at most\n", least,
                most, Median(seconds));
  const std::vector<Bar> bars = Histogram(seconds);
  const int highest = std::ranges::max(bars, {}, &Bar::count).count;
  for (const Bar& bar : bars) {
    const std::string range = std::isinf(bar.to) ? Format("%.1f s and more", bar.from)
                                                 : Format("%.1f to %.1f s", bar.from, bar.to);
    const int length = (bar.count * kLongestBar + highest - 1) / highest;
    out << Format("%18s%6d  ", range.c_str(), bar.count)
        << std::string(static_cast<std::size_t>(length), '#') << '\n';
  }
}

// The first ones, and how many more there are.
template <typename List>
void PutList(std::ostream& out, const List& list) {
  constexpr std::size_t kMostShown = 8;
  for (std::size_t i = 0; i < std::min(list.size(), kMostShown); ++i) {
    out << (i == 0 ? "" : ", ") << list[i];
  }
  if (list.size() > kMostShown) out << " and " << list.size() - kMostShown << " more";
  out << '\n';
}

void PutLines(std::ostream& out, const std::vector<std::size_t>& lines, const char* what) {
  if (lines.empty()) return;
  out << lines.size() << (lines.size() == 1 ? " line " : " lines ") << what << ": ";
  PutList(out, lines);
}

void PutOthers(std::ostream& out, const OtherLines& others) {
  PutLines(out, others.torn, "torn, as by a power cut, and not counted");
  PutLines(out, others.foreign, "not of a journal");
}

void PutScreen(std::ostream& out, Sums sums, const OtherLines& others) {
  out << Format("Updates: %d; %d succeeded, %d failed, %d stopped\n", sums.updates,
                sums.endings["succeeded"], sums.endings["failed"], sums.endings["stopped"]);
  if (sums.updates > 0) out << "Time: " << sums.begin << " to " << sums.end << '\n';
  if (sums.dryRuns > 0) out << "Dry runs, not counted: " << sums.dryRuns << '\n';
  if (sums.devices > 0) {
    out << Format("First-pass yield: %.1f %%, %d of %d devices\n",
                  100.0 * sums.passedFirst / sums.devices, sums.passedFirst, sums.devices);
  }
  std::vector<std::string> unfinished = sums.Unfinished();
  std::ranges::transform(unfinished, unfinished.begin(),
                         [](const std::string& name) { return Displayable(name); });
  if (!unfinished.empty()) PutList(out << "Not updated yet: ", unfinished);
  if (!sums.failures.empty()) out << "\nFailures\n";
  for (const auto& [name, count] : sums.failures)
    out << Format("%6d  ", count) << Displayable(name) << '\n';
  PutDurations(out, sums.seconds);
  if (sums.updates > 0) {
    PutGroups(out, "Port", sums.ports);
    PutGroups(out, "File", sums.files);
  }
  if (!others.torn.empty() || !others.foreign.empty()) out << '\n';
  PutOthers(out, others);
}

// --- documents ---

Json GroupsJson(const Groups& groups) {
  Json list = Json::Array();
  for (const auto& [name, group] : groups) {
    list.Add({{"name", name},
              {"updates", group.updates},
              {"succeeded", group.succeeded},
              {"meanSeconds", group.succeeded == 0 ? Json() : Json(group.MeanSeconds())}});
  }
  return list;
}

Json DurationsJson(const std::vector<double>& seconds) {
  if (seconds.empty()) return {};
  const auto [least, most] = std::ranges::minmax(seconds);
  Json bars = Json::Array();
  for (const Bar& bar : Histogram(seconds)) {
    bars.Add({{"from", bar.from},
              {"to", std::isinf(bar.to) ? Json() : Json(bar.to)},
              {"count", bar.count}});
  }
  return {{"least", least}, {"median", Median(seconds)}, {"most", most}, {"histogram", bars}};
}

Json AsJson(Sums sums, const OtherLines& others) {
  Json failures = Json::Object();
  for (const auto& [name, count] : sums.failures) failures.Set(name, count);
  return {{"version", kDocumentVersion},
          {"updates", sums.updates},
          {"succeeded", sums.endings["succeeded"]},
          {"failed", sums.endings["failed"]},
          {"stopped", sums.endings["stopped"]},
          {"dryRuns", sums.dryRuns},
          {"begin", sums.updates == 0 ? Json() : Json(sums.begin)},
          {"end", sums.updates == 0 ? Json() : Json(sums.end)},
          {"devices", sums.devices},
          {"passedFirst", sums.passedFirst},
          {"unfinished", sums.Unfinished()},
          {"failures", failures},
          {"durations", DurationsJson(sums.seconds)},
          {"ports", GroupsJson(sums.ports)},
          {"files", GroupsJson(sums.files)},
          {"torn", others.torn},
          {"foreign", others.foreign}};
}

std::string Cell(const Json& value) {
  if (value.IsNull() || value == "") return {};
  const std::string& text = value.String();
  std::string cell = text.empty() ? value.Text() : text;
  if (cell.find_first_of("\",\r\n") == cell.npos) return cell;
  for (std::size_t at = 0; (at = cell.find('"', at)) != cell.npos; at += 2) cell.insert(at, 1, '"');
  return '"' + cell + '"';
}

struct Column {
  const char* name;
  Json (*valueOf)(const Json& result);
};

constexpr std::array kColumns{
    Column{"begin", [](const Json& result) { return result["begin"]; }},
    Column{"end", [](const Json& result) { return result["end"]; }},
    Column{"station", [](const Json& result) { return result["station"]; }},
    Column{"command", [](const Json& result) { return result["command"]; }},
    Column{"dryRun", [](const Json& result) { return result["dryRun"]; }},
    Column{"ending", [](const Json& result) { return result["ending"]; }},
    Column{"exit", [](const Json& result) { return result["exit"]; }},
    Column{"failure", [](const Json& result) { return result["failure"]["name"]; }},
    Column{"state", [](const Json& result) { return result["state"]["device"]; }},
    Column{"kind", [](const Json& result) { return result["target"]["kind"]; }},
    Column{"address", [](const Json& result) { return result["target"]["address"]; }},
    Column{"serialNumber",
           [](const Json& result) { return result["target"]["usb"]["serialNumber"]; }},
    Column{"file", [](const Json& result) { return result["file"]; }},
    Column{"sha256", [](const Json& result) { return result["sha256"]; }},
    Column{"member", [](const Json& result) { return result["member"]; }},
    Column{"written", [](const Json& result) { return result["bytes"]["written"]; }},
    Column{"retries", [](const Json& result) { return result["retries"]; }},
    Column{"tags", [](const Json& result) { return result["tags"]; }},
    Column{"seconds", [](const Json& result) { return result["seconds"]; }},
};

void WriteCsvHead(std::ostream& out) {
  for (const Column& column : kColumns) out << column.name << ',';
  for (const PhaseDescription& row : kPhaseTable) {
    if (row.phase != Phase::None) out << (row.phase == Phase::Contact ? "" : ",") << row.name;
  }
  out << '\n';
}

void WriteCsvRow(std::ostream& out, const Json& result) {
  for (const Column& column : kColumns) out << Cell(column.valueOf(result)) << ',';
  for (const PhaseDescription& row : kPhaseTable) {
    if (row.phase == Phase::None) continue;
    out << (row.phase == Phase::Contact ? "" : ",") << Cell(result["durations"][row.name]);
  }
  out << '\n';
}

// --- the command ---

ExitCode History(const Machine& machine, const Options& options) {
  const auto problem = CheckReadable(options.path, std::numeric_limits<std::uintmax_t>::max());
  if (problem.Exists()) {
    Complain(machine, Displayable(options.path) + ": " + problem.text, problem.hint);
    return ExitCode::BadFile;
  }
  Sums sums(options.tag);
  if (options.csv) WriteCsvHead(machine.out);
  const OtherLines others = ReadJournal(options.path, [&](const Json& result) {
    if (result["begin"].String() < options.since) return;
    if (options.csv) return WriteCsvRow(machine.out, result);
    sums.Add(result);
  });
  if (options.json) machine.out << AsJson(sums, others).Text(2) << '\n';
  if (options.csv) PutOthers(machine.err, others);
  if (!options.json && !options.csv) PutScreen(machine.out, sums, others);
  return ExitCode::Done;
}

std::string CheckDate(const std::string& text) {
  constexpr std::string_view kPattern = "dddd-dd-ddTdd:dd:ddZ";
  constexpr std::size_t kShortest = 10;
  const bool isDate = text.size() >= kShortest && text.size() <= kPattern.size() &&
                      std::equal(text.begin(), text.end(), kPattern.begin(), [](char c, char p) {
                        return p == 'd' ? c >= '0' && c <= '9' : c == p;
                      });
  const bool exists = isDate && text.substr(5, 2) <= "12" && text.substr(8, 2) <= "31";
  return exists ? "" : "is no date in UTC such as 2026-01-31 or 2026-01-31T12:00, but " + text;
}

}  // namespace

void AddHistoryCommand(CLI::App& app, const Machine& machine, ExitCode& exit) {
  CommandOptions command(app, "history", "Sum up a journal of updates");
  const auto options = std::make_shared<Options>();
  command.Value("FILE", options->path, "Journal, from update --journal").Required();
  command.Value("--since", options->since, "Leave out what began before this time in UTC")
      .Shown("DATE")
      .Checked(CheckDate);
  command.Value("--device-tag", options->tag, "The --tag of update that names the device")
      .Shown("NAME")
      .NotEmpty();
  command.Flag("--json", options->json, "Write one JSON document");
  command.Flag("--csv", options->csv, "Write a table instead, one row for each update")
      .Excludes("--json");
  command.Footer(
      "First-pass yield: a device counts once for all its updates up to the first that succeeds. "
      "It passes when that was its first one. Its name is its tag, else its USB serial number, "
      "else "
      "its port.\n\n"
      "Examples:\n"
      "  firmware-updater update firmware.hex --journal line.ndjson\n"
      "  firmware-updater history line.ndjson --since 2026-01-31\n"
      "  firmware-updater history line.ndjson --csv >line.csv");
  command.OnRun(exit, [&machine, options] { return History(machine, *options); });
}

}  // namespace tavo::tool
