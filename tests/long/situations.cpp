// Every situation that a technician may meet at a bench without a fault in it: each family's device, in
// each state, on each kind of line, met by each family's file and each command of the tool. What the tool
// says is held against the simulated device, and the commands that it recommends are followed to the
// letter: they end, and they end well.
//
// usage: situations [short]     short: one device of each road, and the files that differ from it
#include <algorithm>
#include <array>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "tests/tools/tool_station.h"

namespace tavo::tool {
namespace {

using tavosim::DeviceState;
using tavosim::Family;

struct Line {
  const char* name;
  bool echoes;
  const char* options;
};
constexpr std::array kLines{
    Line{"usb", false, "--usb 1-4-2"},
    Line{"ftdi", false, "--ftdi TAVO0001"},
    Line{"echo", true, "--ftdi TAVO0001 --echo"},
    Line{"echo, not told", true, "--ftdi TAVO0001"},
    Line{"no echo, told", false, "--ftdi TAVO0001 --echo"},
};

struct Condition {
  const char* name;
  DeviceState start;
  bool intact;
  tavosim::DeviceIdAnswers ids;
};
constexpr std::array kConditions{
    Condition{"application", DeviceState::Application, true, tavosim::DeviceIdAnswers::Both},
    Condition{"no id", DeviceState::Application, true, tavosim::DeviceIdAnswers::Neither},
    Condition{"bootloader", DeviceState::Bootloader, true, tavosim::DeviceIdAnswers::Both},
    Condition{"erased", DeviceState::Bootloader, false, tavosim::DeviceIdAnswers::Both},
};

constexpr std::array kCommands{"info", "update @firmware.hex", "update @firmware.hex --dry-run",
                               "update @firmware.hex --bootloader-only", "recover @firmware.hex"};

constexpr int kMostCommands = 4;  // the first one, and those that are recommended
constexpr auto kLongestCommand = std::chrono::seconds(200);

struct Situation {
  const Family* device;
  const Family* file;
  const Line* line;
  const Condition* condition;
  const char* command;
};

tavosim::DeviceOptions OptionsOf(const Situation& situation) {
  tavosim::DeviceOptions options = tavosim::OptionsFor(*situation.device);
  options.start = situation.condition->start;
  options.applicationIntact = situation.condition->intact;
  options.deviceIdAnswers = situation.condition->ids;
  return options;
}

// One situation, and what came of it.
class Trial {
 public:
  explicit Trial(const Situation& situation)
      : m_situation(situation),
        m_station(OptionsOf(situation), situation.line->echoes),
        m_before(m_station.device.Save()) {
    m_station.run.Write("right.hex", m_station.run.Read("firmware.hex"));
    m_station.TakeFileOf(situation.file->name.data());
  }

  // The reasons why this situation is not in order; none: it is.
  std::vector<std::string> Run() {
    std::string command = std::string(m_situation.command) + " " + m_situation.line->options;
    for (int i = 0; !command.empty() && i < kMostCommands; ++i) {
      const std::string last = command + m_station.run.Read("firmware.hex");
      command = Step(command);
      if (command + m_station.run.Read("firmware.hex") == last)
        Blame("recommends itself: " + command);
    }
    if (!command.empty()) Blame("still recommends " + command);
    JudgeEnd();
    return m_faults;
  }

  const std::string& Story() const { return m_story; }

 private:
  void Blame(const std::string& what) { m_faults.push_back(what); }

  bool FileIsRight() const {
    return m_station.run.Read("firmware.hex") == m_station.run.Read("right.hex");
  }
  bool FlashUnchanged() const { return m_station.Flash() == m_before.flash; }
  bool InBootloader() {
    return m_station.device.State(test::SimNow(m_station.platform)) == DeviceState::Bootloader;
  }

  // Runs one command, judges it and returns the next one.
  std::string Step(std::string command) {
    const auto begin = m_station.platform.MonotonicNow();
    const bool runs = m_station.ApplicationRuns();
    m_exit = m_station.run(command + " --json" +
                           (command.starts_with("info") ? "" : " --log @tool.log"));
    if (m_station.platform.MonotonicNow() - begin > kLongestCommand) Blame("takes too long");
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
    const bool hidden = m_situation.device->route != 0;
    const std::string state = hidden                        ? "master"
                              : m_station.ApplicationRuns() ? "application"
                                                            : "bootloader";
    m_story += " " + Plain(report["state"]);
    if (!(report["state"] == state)) Blame("info says " + Plain(report["state"]));
    if (!FlashUnchanged()) Blame("info changes the device");
    return {};
  }

  void JudgeState(const Json& result, bool ranBefore, bool dryRun) {
    const std::string state = Plain(result["state"]["device"]);
    m_story += " " + state;
    if (!result["failure"].IsNull()) m_story += " (" + Plain(result["failure"]["name"]) + ")";
    const bool claimsApplication = state == "old-application-runs" || state == "runs-incomplete" ||
                                   state.starts_with("updated");
    const bool claimsNew = claimsApplication && state != "old-application-runs";
    if (claimsApplication && !m_station.ApplicationRuns()) Blame("no application runs: " + state);
    if (claimsNew && !m_station.FlashHoldsFirmware()) Blame("the firmware is not new: " + state);
    if (state == "old-application-runs" && !FlashUnchanged()) Blame("the firmware is not old");
    if (state == "untouched" && !FlashUnchanged()) Blame("touched");
    if (state.starts_with("bootloader") && !InBootloader())
      Blame("not in its bootloader: " + state);
    if (!FileIsRight() && !FlashUnchanged()) Blame("a wrong file was written");
    if (dryRun && !FlashUnchanged()) Blame("a dry run has written");
    if (ranBefore && m_exit != ExitCode::Done && FlashUnchanged() && !m_station.ApplicationRuns()) {
      Blame("a device that ran does not run any more");
    }
    if (m_station.device.OpenTunnel() != 0 && Plain(result["state"]["tunnel"]) != "left-open") {
      Blame("a tunnel is open");
    }
    if ((m_exit == ExitCode::Done) != (Plain(result["ending"]) == "succeeded")) Blame("exit code");
  }

  // A command with FILE is followed with the right file, as a person would.
  std::string Next(const Json& next, const Json& failure) {
    if (next.IsNull()) return {};
    std::string command = Plain(next).substr(std::string("firmware-updater ").size());
    const std::size_t file = command.find(" FILE ");
    if (file == std::string::npos) return command;
    command.replace(file + 1, 4, "@firmware.hex");
    if (FileIsRight()) Blame("asks for another file after " + Plain(failure));
    m_station.run.Write("firmware.hex", m_station.run.Read("right.hex"));
    return command;
  }

  Json Recommended() const {
    const std::string text = m_station.run.Err();
    const std::size_t at = text.rfind("; run: ");
    return at == std::string::npos ? Json()
                                   : Json(text.substr(at + 7, text.find('\n', at) - at - 7));
  }

  // A device that ran still runs; with the right file, whatever was asked for is done.
  void JudgeEnd() {
    const bool asked = std::string_view(m_situation.command) != "info";
    if (asked && FileIsRight() && m_exit != ExitCode::Done) Blame("never succeeds");
    if (m_situation.condition->intact && m_situation.condition->start == DeviceState::Application &&
        !m_station.ApplicationRuns()) {
      Blame("does not run at the end");
    }
  }

  static std::string Plain(const Json& text) {
    std::string plain = text.Text();
    std::erase(plain, '"');
    return plain;
  }

  const Situation m_situation;
  ToolStation m_station;
  const tavosim::Snapshot m_before;
  ExitCode m_exit = ExitCode::Done;
  std::string m_story;
  std::vector<std::string> m_faults;
};

std::vector<Situation> Situations(bool all) {
  // One connected directly, one behind a master.
  const auto isChosen = [all](const Family& family) {
    return all || family.name == "plain" || family.name == "tunnel";
  };
  std::vector<Situation> situations;
  for (const Family& device : tavosim::kFamilies) {
    if (!isChosen(device)) continue;
    for (const Family& file : tavosim::kFamilies) {
      if (!all && file.name != "plain" && file.name != "tunnel" && file.name != "drive") continue;
      for (const Line& line : kLines) {
        for (const Condition& condition : kConditions) {
          for (const char* const command : kCommands) {
            situations.push_back({&device, &file, &line, &condition, command});
          }
        }
      }
    }
  }
  return situations;
}

int Main(bool all) {
  const std::vector<Situation> situations = Situations(all);
  std::size_t wrong = 0;
  for (const Situation& situation : situations) {
    Trial trial(situation);
    const std::vector<std::string> faults = trial.Run();
    if (!all && faults.empty()) continue;
    std::printf("%-8s %-8s %-14s %-11s %-38s %s\n", situation.device->name.data(),
                situation.file->name.data(), situation.line->name, situation.condition->name,
                situation.command, trial.Story().c_str());
    for (const std::string& fault : faults) std::printf("  WRONG: %s\n", fault.c_str());
    if (!faults.empty()) ++wrong;
  }
  std::printf("%zu situations, %zu not in order\n", situations.size(), wrong);
  return wrong == 0 ? 0 : 1;
}

}  // namespace
}  // namespace tavo::tool

int main(int argc, char** argv) {
  const bool isShort = argc == 2 && std::string_view(argv[1]) == "short";
  if (argc > 1 && !isShort) {
    std::fputs("usage: situations [short]\n", stderr);
    return 2;
  }
  return tavo::tool::Main(!isShort);
}
