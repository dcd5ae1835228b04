#include "update/station.h"

#include <algorithm>
#include <deque>
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

bool HasPassed(const Json& result) { return result["exit"] == static_cast<int>(ExitCode::Done); }

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
    m_machine.out << Format("%u passed, %u failed.", m_passed, m_failed) << std::endl;
    return m_most > 0 && m_passed >= m_most ? ExitCode::Done : ExitCode::Stopped;
  }

 private:
  struct Place {
    explicit Place(const Target& target) : task{.target = target}, progress(target) {}
    Task task;
    Port port{};
    DeviceProgress progress;
  };

  bool IsOver() const { return m_fleet.IsStopping() || (m_most > 0 && m_passed >= m_most); }

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
      if (ready && (m_most == 0 || m_passed + Working() < m_most)) Start(i, Purpose::Update);
    }
  }

  std::size_t Working() const {
    return static_cast<std::size_t>(std::ranges::count_if(
        m_places, [](const Place& place) { return place.port.Current() == Port::State::Working; }));
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
    ++(HasPassed(result) ? m_passed : m_failed);
    Say(place.progress.Name() + ": " + (HasPassed(result) ? "PASS" : "FAIL"));
  }

  void Say(const std::string& text) { m_live.Say(text); }

  Panel PanelOf(const Place& place) const {
    const std::string name = place.progress.Name() + "  ";
    switch (place.port.Current()) {
      case Port::State::Waiting: return {name + "plug in a device"};
      case Port::State::Working:
        return {name + (place.task.purpose == Purpose::Recover ? "recovering: " : "") +
                place.progress.Doing()};
      case Port::State::Passed: return {name + "unplug it", "PASS"};
      case Port::State::Failed: break;
    }
    return {name + "unplug it", "FAIL"};
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
  std::uint32_t m_passed = 0;
  std::uint32_t m_failed = 0;
  milliseconds m_nextLook{0};
  milliseconds m_nextDraw{0};
};

}  // namespace

bool Port::Look(milliseconds now, bool connected) {
  if (connected != m_connected) m_since = now;
  m_connected = connected;
  const bool settled = now - m_since >= kSettled;
  const bool hasVerdict = m_state == State::Passed || m_state == State::Failed;
  m_unplugged = m_unplugged || (hasVerdict && !connected && settled);
  if (hasVerdict && m_unplugged && (connected || now - m_ended >= kShown)) {
    m_state = State::Waiting;
    m_unplugged = m_triedTwice = false;
  }
  return m_state == State::Waiting && connected && settled;
}

std::optional<Purpose> Port::End(milliseconds now, const Task& task, const Json& result) {
  m_ended = now;
  m_state = HasPassed(result) ? State::Passed : State::Failed;
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
