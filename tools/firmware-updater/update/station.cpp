#include "update/station.h"

#include <algorithm>
#include <array>
#include <deque>
#include <map>
#include <ostream>

#include "device/device_survey.h"
#include "platform/platform.h"
#include "system/system.h"
#include "text/panels.h"
#include "text/text_format.h"
#include "update/fleet_view.h"
#include "update/update_checks.h"

namespace tavo::tool {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kSettled{1000};
constexpr milliseconds kShown{5000};  // at least, unless the next device comes before
constexpr milliseconds kPace{50};
constexpr milliseconds kRedrawPace{100};

// The states in which a port shows a verdict, until the device is unplugged.
struct Verdict {
  Port::State state;
  const char* panel;  // four letters
  const char* line;
};
constexpr std::array kVerdicts{
    Verdict{Port::State::Passed, "PASS", "PASS"},
    Verdict{Port::State::Failed, "FAIL", "FAIL"},
    Verdict{Port::State::Stopped, "STOP", "STOPPED"},
};

const Verdict* VerdictOf(Port::State state) {
  const auto* const row = std::ranges::find(kVerdicts, state, &Verdict::state);
  return row == kVerdicts.end() ? nullptr : row;
}

Port::State StateAfter(const Json& result) {
  if (result["exit"] == static_cast<int>(ExitCode::Done)) return Port::State::Passed;
  return result["ending"] == "stopped" ? Port::State::Stopped : Port::State::Failed;
}

class Station {
 public:
  Station(const Machine& machine, const UpdateOptions& options, const GivenOptions& given,
          const SeveralTargets& targets, std::uint32_t count)
      : m_machine(machine),
        m_options(options),
        m_given(given),
        m_everyPort(targets.Count() == 0),
        m_most(count) {
    if (m_everyPort) return;
    for (const Target& target : ChooseTargets(machine, targets)) AddPlace(target);
  }

  ExitCode Run() {
    while (m_fleet.Runs() || !IsOver()) {
      Look();
      if (const auto report = m_fleet.Next(kPace)) Take(*report);
      Draw();
    }
    m_live.Erase();
    m_machine.out << Format("%zu passed, %zu failed", Ended(Port::State::Passed),
                            Ended(Port::State::Failed));
    const std::size_t stopped = Ended(Port::State::Stopped);
    if (stopped > 0) m_machine.out << Format(", %zu stopped", stopped);
    m_machine.out << "." << std::endl;
    return IsComplete() ? ExitCode::Done : ExitCode::Stopped;
  }

 private:
  struct Place {
    explicit Place(const Target& target) : task{.target = target}, progress(target) {}
    Task task;
    Port port{};
    DeviceProgress progress;
  };

  // Those that are at work are taken to pass.
  bool HasRoomForAnother() const {
    return m_most == 0 || Ended(Port::State::Passed) + Working() < m_most;
  }
  bool IsComplete() const { return m_most > 0 && Ended(Port::State::Passed) >= m_most; }
  bool IsOver() const { return m_fleet.IsStopping() || IsComplete(); }

  milliseconds Now() const { return m_machine.platform.MonotonicNow(); }

  void AddPlace(const Target& target) {
    Place& place = m_places.emplace_back(target);
    place.task.file = m_options.file;
    place.task.flags = m_options.flags;
  }

  // Starts what has waited long enough. With a count, never more than are still to pass.
  void Look() {
    if (IsOver() || Now() < m_nextLook) return;
    m_nextLook = Now() + kLookPace;
    const std::vector<FoundDevice> usb = ConnectedDevices(m_machine, TransportKind::Usb);
    for (const FoundDevice& device : usb) {
      const bool known = std::ranges::any_of(m_places, [&](const Place& place) {
        return place.task.target.address == device.address;
      });
      if (m_everyPort && !known && !device.address.empty()) {
        AddPlace({TransportKind::Usb, device.address});
      }
    }
    const bool hasAdapters = std::ranges::any_of(
        m_places, [](const Place& place) { return place.task.target.kind == TransportKind::Ftdi; });
    const std::vector<FoundDevice> adapters =
        hasAdapters ? ConnectedDevices(m_machine, TransportKind::Ftdi) : std::vector<FoundDevice>();
    for (std::size_t i = 0; i < m_places.size(); ++i) {
      const Target& target = m_places[i].task.target;
      const auto& devices = target.kind == TransportKind::Usb ? usb : adapters;
      const bool connected = std::ranges::count(devices, target.address, &FoundDevice::address) > 0;
      const bool ready = m_places[i].port.Look(Now(), connected);
      if (ready && HasRoomForAnother()) Start(i, Purpose::Update);
    }
  }

  std::size_t Working() const {
    return static_cast<std::size_t>(std::ranges::count_if(
        m_places, [](const Place& place) { return place.port.Current() == Port::State::Working; }));
  }

  std::size_t Ended(Port::State verdict) const {
    const auto count = m_ended.find(verdict);
    return count == m_ended.end() ? 0 : count->second;
  }

  void Start(std::size_t index, Purpose purpose) {
    Place& place = m_places[index];
    place.task.purpose = purpose;
    place.progress = DeviceProgress(place.task.target);
    place.port.Begin();
    m_fleet.Start(index, ChildCommand(place.task, m_options, m_given), RecoverCommand(place.task));
  }

  void Take(const Fleet::Report& report) {
    Place& place = m_places[report.device];
    if (!report.line.IsNull()) {
      place.progress.Take(report.line);
      if (report.line["event"] == "note") Say(TextOf(place.progress, report.line));
      return;
    }
    if (place.progress.Result().IsNull()) {
      place.progress.Take(ResultWithout(place.task, m_options, report.exit,
                                        place.progress.Current() != Phase::None,
                                        m_fleet.IsStopping()));
    }
    End(report.device);
  }

  void End(std::size_t index) {
    Place& place = m_places[index];
    const Json result = place.progress.Result();
    m_live.Erase();
    m_machine.out << std::flush;
    ShowOutcome(m_machine, place.progress);
    const auto again = place.port.End(Now(), place.task, result);
    if (again && !m_fleet.IsStopping()) {
      Say(place.progress.Name() + ": trying once more: " + NameOf(*again) + ".");
      return Start(index, *again);
    }
    ++m_ended[place.port.Current()];
    Say(place.progress.Name() + ": " + VerdictOf(place.port.Current())->line);
  }

  void Say(const std::string& text) { m_live.Say(text); }

  Panel PanelOf(const Place& place) const {
    const std::string name = place.progress.Name() + "  ";
    if (const Verdict* const verdict = VerdictOf(place.port.Current())) {
      return {name + "unplug it", verdict->panel};
    }
    if (place.port.Current() == Port::State::Waiting) return {name + "plug in a device"};
    const bool recovers = place.task.purpose == Purpose::Recover;
    return {name + (recovers ? "recovering: " : "") + place.progress.Doing()};
  }

  void Draw() {
    if (!m_machine.terminal || Now() < m_nextDraw) return;
    m_nextDraw = Now() + kRedrawPace;
    std::vector<Panel> panels;
    for (const Place& place : m_places) panels.push_back(PanelOf(place));
    if (panels.empty()) panels.push_back({"plug in a device, at any USB port"});
    m_live.Show(DrawPanels(panels, m_live.Room(), m_live.Rows(), m_machine.colour));
  }

  const Machine& m_machine;
  const UpdateOptions& m_options;
  const GivenOptions& m_given;
  const bool m_everyPort;
  const std::uint32_t m_most;  // devices to pass; 0: no end
  LiveLines m_live{m_machine};
  std::deque<Place> m_places;
  Fleet m_fleet;
  std::map<Port::State, std::size_t> m_ended;  // devices by verdict
  milliseconds m_nextLook{0};
  milliseconds m_nextDraw{0};
};

}  // namespace

bool Port::Look(milliseconds now, bool connected) {
  if (connected != m_connected) m_since = now;
  m_connected = connected;
  const bool settled = now - m_since >= kSettled;
  const bool hasVerdict = VerdictOf(m_state) != nullptr;
  m_unplugged = m_unplugged || (hasVerdict && !connected && settled);
  if (hasVerdict && m_unplugged && (connected || now - m_ended >= kShown)) {
    m_state = State::Waiting;
    m_unplugged = m_triedTwice = false;
  }
  return m_state == State::Waiting && connected && settled;
}

std::optional<Purpose> Port::End(milliseconds now, const Task& task, const Json& result) {
  m_ended = now;
  m_state = StateAfter(result);
  const std::string next = result["state"]["next"].String();
  for (const Purpose purpose : {Purpose::Recover, Purpose::Update}) {
    Task again = task;
    again.purpose = purpose;
    const bool named = m_state == State::Failed && CommandLine(again) == next;
    if (named && m_connected && !std::exchange(m_triedTwice, true)) return purpose;
  }
  return std::nullopt;
}

ExitCode RunStation(const Machine& machine, const UpdateOptions& options, const GivenOptions& given,
                    const SeveralTargets& targets, std::uint32_t count) {
  SurviveLostOutput();
  CheckedFile(options.file);
  CheckOutputs(machine, options);
  return Station(machine, options, given, targets, count).Run();
}

}  // namespace tavo::tool
