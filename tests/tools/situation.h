// A situation at a bench: a device in some state, on some line, perhaps with faults, met by some file and
// some command of the tool. What the tool says is held against the simulated device, and the commands that
// it recommends are followed to the letter: they end, and they end well.
//
//   Trial trial({family, family, kLines[0], kConditions[3], "recover @firmware.hex"});
//   EXPECT_EQ(trial.Run(), std::vector<std::string>{});
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "tests/tools/tool_station.h"

namespace tavo::tool {

struct BenchLine {
  const char* name;
  bool echoes;
  const char* options;
};
inline constexpr std::array kLines{
    BenchLine{"usb", false, "--usb 1-4-2"},
    BenchLine{"ftdi", false, "--ftdi TAVO0001"},
    BenchLine{"echo", true, "--ftdi TAVO0001 --echo"},
    BenchLine{"echo, not told", true, "--ftdi TAVO0001"},
    BenchLine{"no echo, told", false, "--ftdi TAVO0001 --echo"},
};

struct Condition {
  const char* name;
  tavosim::DeviceState start;
  bool intact;
  tavosim::DeviceIdAnswers ids = tavosim::DeviceIdAnswers::Both;
  std::uint16_t openTunnel = 0;  // only behind a master
};
inline constexpr std::array kConditions{
    Condition{"application", tavosim::DeviceState::Application, true},
    Condition{"no id", tavosim::DeviceState::Application, true, tavosim::DeviceIdAnswers::Neither},
    Condition{"bootloader", tavosim::DeviceState::Bootloader, true},
    Condition{"erased", tavosim::DeviceState::Bootloader, false},
    Condition{"erased, no id", tavosim::DeviceState::Bootloader, false,
              tavosim::DeviceIdAnswers::Neither},
    Condition{"tunnel open", tavosim::DeviceState::Application, true,
              tavosim::DeviceIdAnswers::Both, 0x0401},
};

inline constexpr std::array kCommands{"info",
                                      "update @firmware.hex",
                                      "update @firmware.hex --dry-run",
                                      "update @firmware.hex --bootloader-only",
                                      "update @firmware.hex --quick",
                                      "recover @firmware.hex"};

struct Situation {
  tavosim::Family device;
  tavosim::Family file;
  BenchLine line;
  Condition condition;
  std::string_view command;
  // Of the device, or "interrupt:N" and "kill:N", which end the tool at the device's Nth request. Those
  // that last are removed after the first command, as a person would.
  std::vector<std::string> faults{};
  std::string journal{};  // options of each update
};

// One situation, and what came of it.
class Trial {
 public:
  explicit Trial(const Situation& situation)
      : m_situation(situation),
        m_station(Options(situation), situation.line.echoes, DeviceFaults(situation)),
        m_before(m_station.device.Save()) {
    m_station.run.Write("right.hex", m_station.run.Read("firmware.hex"));
    m_station.TakeFileOf(Smaller(situation.file));
    for (const std::string& fault : situation.faults) {
      if (IsOfTool(fault)) Befall(fault);
    }
  }

  // The broken promises; none: all is in order.
  std::vector<std::string> Run() {
    std::string command = std::string(m_situation.command) + " " + m_situation.line.options;
    for (int i = 0; !command.empty() && i < (HasFaults() ? kMostCommandsOnFaults : kMostCommands);
         ++i) {
      const std::string last = command + m_station.run.Read("firmware.hex");
      const std::string next = Step(command);
      // Without a recommendation a person tries again once the cause is gone.
      if (!next.empty() || m_exit == ExitCode::Done || !HasFaults()) command = next;
      Promise(HasFaults() || command + m_station.run.Read("firmware.hex") != last,
              "recommends itself: " + command);
      if (HasFaults()) Mend();
    }
    Promise(command.empty(), "still recommends " + command);
    JudgeEnd();
    return m_faults;
  }

  const std::string& Story() const { return m_story; }

 private:
  static constexpr int kMostCommands = 5;          // the first one, and those that are recommended
  static constexpr int kMostCommandsOnFaults = 8;  // one that meets a fault is run again
  static constexpr std::chrono::seconds kLongestCommand{200};

  // A few blocks show as much as many.
  static tavosim::Family Smaller(tavosim::Family family) {
    family.applicationKiB /= 8;
    return family;
  }

  static tavosim::DeviceOptions Options(const Situation& situation) {
    tavosim::DeviceOptions options = tavosim::OptionsFor(Smaller(situation.device));
    options.start = situation.condition.start;
    options.applicationIntact = situation.condition.intact;
    options.deviceIdAnswers = situation.condition.ids;
    options.openTunnel = situation.device.route == 0 ? 0 : situation.condition.openTunnel;
    return options;
  }

  static bool IsOfTool(const std::string& fault) {
    return fault.starts_with("interrupt:") || fault.starts_with("kill:");
  }
  static std::vector<std::string> DeviceFaults(const Situation& situation) {
    std::vector<std::string> faults = situation.faults;
    std::erase_if(faults, IsOfTool);
    return faults;
  }
  bool HasFaults() const { return !m_situation.faults.empty(); }

  void Befall(const std::string& fault) {
    const bool isKill = fault.starts_with("kill:");
    const int request = std::stoi(fault.substr(fault.find(':') + 1));
    m_station.AtRequest("", request, [this, isKill] {
      if (isKill) throw std::runtime_error("killed");
      m_station.run.Signal(SIGINT);
    });
    m_station.d2xx.failReceive = m_station.usb.failReceive;
  }

  void Mend() {
    m_station.usb.failReceive = m_station.d2xx.failReceive = [] { return false; };
    const bool lasts = std::ranges::any_of(m_situation.faults, [](const std::string& fault) {
      return fault.ends_with('+') || (fault.starts_with("unplug:") && !fault.ends_with('s'));
    });
    if (lasts) m_station.Repair();
    m_station.platform.Advance(std::chrono::seconds(3));  // longer than any cable is out
  }

  void Promise(bool kept, const std::string& otherwise) {
    if (!kept) m_faults.push_back(otherwise);
  }

  bool FileIsRight() const {
    return m_station.run.Read("firmware.hex") == m_station.run.Read("right.hex");
  }

  // Runs one command, judges it and returns the next one.
  std::string Step(std::string command) {
    const auto begin = m_station.platform.MonotonicNow();
    const std::vector<std::uint8_t> before = m_station.Flash();
    const bool runs = m_station.ApplicationRuns();
    m_exit = m_station.run(
        command + " --json" +
        (command.starts_with("info") ? "" : " --log @tool.log" + m_situation.journal));
    Promise(m_station.platform.MonotonicNow() - begin <= kLongestCommand, "takes too long");
    const std::vector<std::string> lines = test::LinesOf(m_station.run.Out());
    m_story += (m_story.empty() ? "" : " > ") + std::to_string(static_cast<int>(m_exit));
    if (command.starts_with("info")) return JudgeInfo(before);
    if (m_station.run.Complains("unexpected: killed")) {
      return std::string("info ") + m_situation.line.options;
    }
    const Json result = Json::Parse(lines.empty() ? "null" : lines.back());
    JudgeRecord(m_station.run.Out(), result);
    JudgeState(result, before, runs, command.find("--dry-run") != std::string::npos);
    const Json& next = result["state"]["next"];
    Promise(!FileIsRight() || Plain(next).find(" FILE ") == std::string::npos,
            "asks for another file after " + Plain(result["failure"]["name"]));
    return Next(next);
  }

  std::string JudgeInfo(const std::vector<std::uint8_t>& before) {
    Promise(m_station.Flash() == before, "info changes the device");
    if (m_station.run.Out().empty()) return Next(Recommended());
    const Json report = Json::Parse(m_station.run.Out());
    if (HasFaults()) return Next(report["next"]);
    const bool hidden = m_situation.device.route != m_before.tunnel;
    const std::string state = hidden                        ? "master"
                              : m_station.ApplicationRuns() ? "application"
                                                            : "bootloader";
    m_story += " " + Plain(report["state"]);
    Promise(report["state"] == state, "info says " + Plain(report["state"]));
    return {};
  }

  void JudgeRecord(const std::string& records, const Json& result) {
    const std::string event = "\"event\":\"result\"";
    Promise(records.find(event) == records.rfind(event), "more than one result");
    const std::string ending = Plain(result["ending"]);
    Promise(result["exit"] == static_cast<int>(m_exit), "another exit code");
    Promise((ending == "succeeded") == (m_exit == ExitCode::Done), "the exit code");
    Promise((ending == "stopped") == (m_exit == ExitCode::Stopped), "the exit code");
    Promise((ending == "failed") != result["failure"].IsNull(), "the failure");
  }

  void JudgeState(const Json& result, const std::vector<std::uint8_t>& before, bool ranBefore,
                  bool dryRun) {
    const std::string state = Plain(result["state"]["device"]);
    m_story += " " + state;
    if (!result["failure"].IsNull()) m_story += " (" + Plain(result["failure"]["name"]) + ")";
    const bool unchanged = m_station.Flash() == before;
    const bool runs = m_station.ApplicationRuns();
    const bool done = m_exit == ExitCode::Done;
    const bool open = m_station.device.OpenTunnel() != 0 && m_before.tunnel == 0;
    Promise(m_station.IsIn(state, before), "this is not its state: " + state);
    Promise(FileIsRight() || unchanged, "a wrong file was written");
    Promise(!done || dryRun || std::stoi(Plain(result["bytes"]["due"])) > 0, "nothing was due");
    Promise(!done || dryRun || result["bytes"]["written"] == result["bytes"]["due"],
            "not all is written");
    if (HasFaults()) return;
    Promise(runs || !ranBefore || done || !unchanged, "it ran before");
    const bool claimsOpen = Plain(result["state"]["tunnel"]) == "left-open";
    Promise(!open || claimsOpen, "a tunnel is open");
    Promise(!claimsOpen || m_station.device.OpenTunnel() != 0, "no tunnel is open");
    if (!dryRun) return;
    Promise(unchanged && m_station.device.Label() == m_before.label, "a dry run has written");
    for (const std::string& request : m_station.Requests()) {
      Promise(!request.starts_with("0x814"), "a dry run asks for modules");
    }
  }

  // A command with FILE is followed with the right file, as a person would.
  std::string Next(const Json& next) {
    if (next.IsNull()) return {};
    std::string command = Plain(next).substr(std::string("firmware-updater ").size());
    const std::size_t file = command.find(" FILE ");
    if (file == std::string::npos) return command;
    command.replace(file + 1, 4, "@firmware.hex");
    m_station.run.Write("firmware.hex", m_station.run.Read("right.hex"));
    return command;
  }

  Json Recommended() const {
    const std::string text = m_station.run.Err();
    const std::size_t at = text.rfind("; run: ");
    return at == std::string::npos ? Json()
                                   : Json(text.substr(at + 7, text.find('\n', at) - at - 7));
  }

  // A device that ran still runs; with the right file, the command is carried out.
  void JudgeEnd() {
    const bool asked = m_situation.command != "info";
    Promise(!asked || !FileIsRight() || m_exit == ExitCode::Done, "never succeeds");
    const bool ran = m_situation.condition.intact &&
                     m_situation.condition.start == tavosim::DeviceState::Application;
    Promise(!ran || m_station.ApplicationRuns(), "does not run at the end");
    if (!HasFaults()) return;
    Promise(m_station.UpdatedAndRuns(), "the device is left behind");
    Promise(m_station.device.Label().has_value() == (m_situation.device.adbType == 5), "the label");
  }

  const Situation m_situation;
  ToolStation m_station;
  const tavosim::Snapshot m_before;
  ExitCode m_exit = ExitCode::Done;
  std::string m_story;
  std::vector<std::string> m_faults;
};

}  // namespace tavo::tool
