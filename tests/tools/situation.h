// A situation at a bench without a fault in it: a device in some state, on some line, met by some file and
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

inline constexpr std::array kCommands{
    "info", "update @firmware.hex", "update @firmware.hex --dry-run",
    "update @firmware.hex --bootloader-only", "recover @firmware.hex"};

struct Situation {
  tavosim::Family device;
  tavosim::Family file;
  BenchLine line;
  Condition condition;
  std::string_view command;
};

// One situation, and what came of it.
class Trial {
 public:
  explicit Trial(const Situation& situation)
      : m_situation(situation),
        m_station(Options(situation), situation.line.echoes),
        m_before(m_station.device.Save()) {
    m_station.run.Write("right.hex", m_station.run.Read("firmware.hex"));
    m_station.TakeFileOf(Smaller(situation.file));
  }

  // The broken promises; none: all is in order.
  std::vector<std::string> Run() {
    std::string command = std::string(m_situation.command) + " " + m_situation.line.options;
    for (int i = 0; !command.empty() && i < kMostCommands; ++i) {
      const std::string last = command + m_station.run.Read("firmware.hex");
      command = Step(command);
      Promise(command + m_station.run.Read("firmware.hex") != last,
              "recommends itself: " + command);
    }
    Promise(command.empty(), "still recommends " + command);
    JudgeEnd();
    return m_faults;
  }

  const std::string& Story() const { return m_story; }

 private:
  static constexpr int kMostCommands = 5;  // the first one, and those that are recommended
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

  void Promise(bool kept, const std::string& otherwise) {
    if (!kept) m_faults.push_back(otherwise);
  }

  bool FileIsRight() const {
    return m_station.run.Read("firmware.hex") == m_station.run.Read("right.hex");
  }

  // Runs one command, judges it and returns the next one.
  std::string Step(std::string command) {
    const auto begin = m_station.platform.MonotonicNow();
    const bool runs = m_station.ApplicationRuns();
    m_exit = m_station.run(command + " --json" +
                           (command.starts_with("info") ? "" : " --log @tool.log"));
    Promise(m_station.platform.MonotonicNow() - begin <= kLongestCommand, "takes too long");
    const std::vector<std::string> lines = test::LinesOf(m_station.run.Out());
    m_story += (m_story.empty() ? "" : " > ") + std::to_string(static_cast<int>(m_exit));
    if (command.starts_with("info")) return JudgeInfo();
    const Json result = Json::Parse(lines.empty() ? "null" : lines.back());
    JudgeState(result, runs, command.find("--dry-run") != std::string::npos);
    return Next(result["state"]["next"], result["failure"]["name"]);
  }

  std::string JudgeInfo() {
    if (m_station.run.Out().empty()) return Next(Recommended(), {});
    const Json report = Json::Parse(m_station.run.Out());
    const bool hidden = m_situation.device.route != m_before.tunnel;
    const std::string state = hidden                        ? "master"
                              : m_station.ApplicationRuns() ? "application"
                                                            : "bootloader";
    m_story += " " + Plain(report["state"]);
    Promise(report["state"] == state, "info says " + Plain(report["state"]));
    Promise(m_station.Flash() == m_before.flash, "info changes the device");
    return {};
  }

  void JudgeState(const Json& result, bool ranBefore, bool dryRun) {
    const std::string state = Plain(result["state"]["device"]);
    m_story += " " + state;
    if (!result["failure"].IsNull()) m_story += " (" + Plain(result["failure"]["name"]) + ")";
    const bool unchanged = m_station.Flash() == m_before.flash;
    const bool runs = m_station.ApplicationRuns();
    const bool done = m_exit == ExitCode::Done;
    const bool open = m_station.device.OpenTunnel() != 0 && m_before.tunnel == 0;
    Promise(m_station.IsIn(state, m_before.flash), "this is not its state: " + state);
    Promise(FileIsRight() || unchanged, "a wrong file was written");
    Promise(runs || !ranBefore || done || !unchanged, "it ran before");
    const bool claimsOpen = Plain(result["state"]["tunnel"]) == "left-open";
    Promise(!open || claimsOpen, "a tunnel is open");
    Promise(!claimsOpen || m_station.device.OpenTunnel() != 0, "no tunnel is open");
    Promise(done == (Plain(result["ending"]) == "succeeded"), "the exit code");
    if (!dryRun) return;
    Promise(unchanged && m_station.device.Label() == m_before.label, "a dry run has written");
    for (const std::string& request : m_station.Requests()) {
      Promise(!request.starts_with("0x814"), "a dry run asks for modules");
    }
  }

  // A command with FILE is followed with the right file, as a person would.
  std::string Next(const Json& next, const Json& failure) {
    if (next.IsNull()) return {};
    std::string command = Plain(next).substr(std::string("firmware-updater ").size());
    const std::size_t file = command.find(" FILE ");
    if (file == std::string::npos) return command;
    command.replace(file + 1, 4, "@firmware.hex");
    Promise(!FileIsRight(), "asks for another file after " + Plain(failure));
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
  }

  const Situation m_situation;
  ToolStation m_station;
  const tavosim::Snapshot m_before;
  ExitCode m_exit = ExitCode::Done;
  std::string m_story;
  std::vector<std::string> m_faults;
};

}  // namespace tavo::tool
