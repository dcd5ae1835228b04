#include "update/fleet_view.h"

#include <algorithm>
#include <ostream>

#include "text/log_platform.h"
#include "text/text_format.h"
#include "update/closing_state.h"

namespace tavo::tool {
namespace {

constexpr std::size_t kTitleWidth = 22;
constexpr std::size_t kBarWidth = 20;

Phase PhaseCalled(const std::string& name) {
  const auto row = std::ranges::find(kPhaseTable, name, &PhaseDescription::name);
  return row == kPhaseTable.end() ? Phase::None : row->phase;
}

bool Is(const Json& line, const char* event) { return line["event"] == event; }

// "updated 5.1 s", "FAILED timeout"
Span Verdict(const Json& result) {
  const bool well = result["exit"] == static_cast<int>(ExitCode::Done);
  if (well) return {Format("done %.1f s", result["seconds"].Number()), kGreen};
  if (result["ending"] == "stopped") return {"stopped", kRed};
  const std::string failure = result["failure"]["name"].String();
  return {failure.empty() ? "FAILED: evidence is lost" : "FAILED: " + failure, kRed};
}

class JsonStream final : public FleetView {
 public:
  explicit JsonStream(const Machine& machine) : m_machine(machine) {}

  void Reported(const DeviceProgress& device, const Json& line) override {
    Json merged{{"device", device.Name()}};
    merged.Append(line);
    m_machine.out << merged.Text() << std::endl;
  }
  void Refresh(const std::vector<DeviceProgress>&) override {}
  void Close(const std::vector<DeviceProgress>&) override {}

 private:
  const Machine& m_machine;
};

// The last lines, which the table and the plain lines share.
class TextView : public FleetView {
 public:
  explicit TextView(const Machine& machine) : m_machine(machine) {}

  void Close(const std::vector<DeviceProgress>& devices) override {
    for (const DeviceProgress& device : devices) ShowOutcome(m_machine, device);
    const auto endings = [&](const char* ending) {
      return std::ranges::count_if(devices, [&](const DeviceProgress& device) {
        return device.Result()["ending"] == ending;
      });
    };
    m_machine.out << InLines(m_machine,
                             Format("%zu devices: %td succeeded, %td failed, %td stopped.",
                                    devices.size(), endings("succeeded"), endings("failed"),
                                    endings("stopped")))
                  << std::endl;
  }

 protected:
  const Machine& m_machine;
};

class Lines final : public TextView {
 public:
  using TextView::TextView;

  void Reported(const DeviceProgress& device, const Json& line) override {
    const std::string text = TextOf(device, line);
    if (!text.empty()) m_machine.out << InLines(m_machine, text) << std::endl;
  }
  void Refresh(const std::vector<DeviceProgress>&) override {}
};

class Table final : public TextView {
 public:
  using TextView::TextView;

  void Reported(const DeviceProgress& device, const Json& line) override {
    if (Is(line, "note")) m_live.Say(TextOf(device, line));
  }
  void Refresh(const std::vector<DeviceProgress>& devices) override {
    std::size_t nameWidth = 0;
    for (const DeviceProgress& device : devices) {
      nameWidth = std::max(nameWidth, device.Name().size());
    }
    std::vector<LiveLine> rows;
    rows.reserve(devices.size());
    for (const DeviceProgress& device : devices) {
      rows.push_back(device.Row(nameWidth, m_live.Room()));
    }
    m_live.Show(rows);
  }
  void Close(const std::vector<DeviceProgress>& devices) override {
    Refresh(devices);
    m_machine.out << '\n';
    TextView::Close(devices);
  }

 private:
  LiveLines m_live{m_machine};
};

}  // namespace

DeviceProgress::DeviceProgress(const Target& target)
    : m_name(FileName(std::string(KindName(target.kind)) + "-" + target.address)) {}

void DeviceProgress::Take(const Json& line) {
  if (Is(line, "retry")) m_trouble = "no answer to: " + line["request"].String();
  if (Is(line, "phase") || Is(line, "bytes")) m_trouble.clear();
  if (Is(line, "phase")) m_phase = PhaseCalled(line["phase"].String());
  if (Is(line, "bytes")) {
    const double due = line["due"].Number();
    m_percent = due > 0 ? static_cast<int>(line["written"].Number() * 100 / due) : 100;
  }
  if (Is(line, "result")) m_result = line;
}

std::string DeviceProgress::Doing() const {
  if (!m_trouble.empty()) return m_trouble;
  if (m_phase == Phase::None) return {};
  const std::string title = DescriptionOf(m_phase).title;
  const bool writing = m_phase == Phase::Write && m_percent >= 0;
  return writing ? title + Format(" %3d %%", m_percent) : title;
}

LiveLine DeviceProgress::Row(std::size_t nameWidth, std::size_t room) const {
  const std::string name =
      m_name + std::string(nameWidth - std::min(nameWidth, m_name.size()), ' ');
  LiveLine row{{name + "  "}};
  if (!m_result.IsNull()) {
    row.push_back(Verdict(m_result));
    return row;
  }
  std::string doing = Doing();
  const bool hasBar = m_phase == Phase::Write && m_percent >= 0 && m_trouble.empty();
  if (hasBar && nameWidth + 2 + kTitleWidth + 2 + kBarWidth <= room) {
    std::string bar(static_cast<std::size_t>(m_percent) * kBarWidth / 100, '#');
    bar.resize(kBarWidth, '-');
    doing.resize(kTitleWidth, ' ');
    doing += "[" + bar + "]";
  }
  row.push_back({doing});
  return row;
}

std::string TextOf(const DeviceProgress& device, const Json& line) {
  const std::string name = device.Name() + ": ";
  if (Is(line, "note")) return name + line["text"].String();
  if (Is(line, "retry")) return name + device.Doing();
  if (!Is(line, "phase") || line["state"] == "begins") return {};
  return name + Format("%-22s%-8s%7.1f s", DescriptionOf(device.Current()).title,
                       line["state"].String().c_str(), line["seconds"].Number());
}

void ShowOutcome(const Machine& machine, const DeviceProgress& device) {
  const Json& result = device.Result();
  const Json& failure = result["failure"];
  const std::string name = device.Name() + ": ";
  if (!failure.IsNull()) {
    Complain(machine, name + failure["name"].String() + ": " + failure["text"].String(),
             failure["hint"].String());
  }
  for (std::size_t i = 0; i < result["lost"].Size(); ++i) {
    machine.out << name << "The " << result["lost"][i].String() << " is lost.\n";
  }
  machine.out << InLines(machine, name + ClosingStateIn(result).Line()) << std::endl;
}

std::unique_ptr<FleetView> MakeFleetView(const Machine& machine, bool json, bool others,
                                         std::size_t devices) {
  if (json) return std::make_unique<JsonStream>(machine);
  const bool fits = devices < static_cast<std::size_t>(std::max(machine.height(), 1));
  if (machine.terminal && !others && fits) return std::make_unique<Table>(machine);
  return std::make_unique<Lines>(machine);
}

}  // namespace tavo::tool
