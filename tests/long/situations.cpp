// Every situation that a technician may meet at a bench: each family's device, in each state, on each kind
// of line, met by each family's file and each command of the tool. Or a day of production: updates that
// meet up to two faults each, drawn at random, on a virtual clock.
//
// usage: situations [short]             short: one device of each road, the files that differ from it, and
//                                       three lines
//        situations day COUNT [SEED]
#include <cstdio>
#include <random>

#include "tests/tools/situation.h"

namespace tavo::tool {
namespace {

std::vector<Situation> Situations(bool all) {
  // One connected directly, one behind a master.
  const auto isChosen = [all](const tavosim::Family& family) {
    return all || family.name == "plain" || family.name == "tunnel";
  };
  std::vector<Situation> situations;
  for (const tavosim::Family& device : tavosim::kFamilies) {
    if (!isChosen(device)) continue;
    for (const tavosim::Family& file : tavosim::kFamilies) {
      if (!all && file.name != "plain" && file.name != "tunnel" && file.name != "drive") continue;
      for (const BenchLine& line : kLines) {
        if (!all && &line == &kLines[1]) continue;  // one with an echo shows more
        for (const Condition& condition : kConditions) {
          for (const char* const command : kCommands) {
            situations.push_back({device, file, line, condition, command});
          }
        }
      }
    }
  }
  return situations;
}

constexpr std::array kDayFaults{
    "lose:#",   "cut:#",      "damage:#",    "delay:#:2s",  "delay:#:4200ms", "repeat:#:20ms",
    "repeat:#", "powercut:#", "powercut:#",  "unplug:#:1s", "unplug:#:300ms", "lose:#+",
    "unplug:#", "kill:N",     "interrupt:N", "kill:N",      "powercut:#"};
// Half of the faults meet one of the few requests that matter most, the others any request.
constexpr std::array kKeyRequests{"0x100:1", "0x100:2", "0x100:3", "0x100:4", "0x100:5", "0x120:1",
                                  "0x121:1", "0x122:1", "0x130:1", "0x132:1", "0x133:1", "0x134:1",
                                  "0x134:9", "0x136:1", "0x12F:1", "0x12F:2", "0x180:1", "0x180:2"};
constexpr unsigned kRequestsOfAnUpdate = 48;
constexpr unsigned kMostJournalled = 200;  // each waits for the disk

std::vector<Situation> Day(unsigned updates, unsigned seed, const std::string& journal) {
  std::mt19937 random(seed);
  const auto draw = [&random](std::size_t bound) { return random() % bound; };
  std::vector<Situation> situations;
  for (unsigned update = 0; update < updates; ++update) {
    constexpr std::array kDayFamilies{"plain", "labelled", "tunnel", "gateway", "variant"};
    const auto family = *tavosim::FindFamily(kDayFamilies.at(draw(kDayFamilies.size())));
    std::vector<std::string> faults;
    for (std::size_t fault = 0; fault <= draw(2); ++fault) {
      std::string text = kDayFaults.at(draw(kDayFaults.size()));
      const std::string number = std::to_string(1 + draw(kRequestsOfAnUpdate));
      const std::string key = std::string("id=") + kKeyRequests.at(draw(kKeyRequests.size()));
      const std::size_t at = text.find_first_of("#N");
      text.replace(at, 1, text[at] == '#' && draw(2) == 0 ? key : number);
      faults.push_back(text);
    }
    situations.push_back({family, family, kLines.at(draw(3)), kConditions[0],
                          "update @firmware.hex", faults,
                          update < kMostJournalled
                              ? " --journal " + journal + " --tag unit=" + std::to_string(update)
                              : ""});
  }
  return situations;
}

int Judge(const std::vector<Situation>& situations, bool tellsAll) {
  std::size_t wrong = 0;
  for (const Situation& situation : situations) {
    Trial trial(situation);
    const std::vector<std::string> broken = trial.Run();
    if (!tellsAll && broken.empty()) continue;
    std::printf("%-8s %-8s %-14s %-11s %-38s %s\n", situation.device.name.data(),
                situation.file.name.data(), situation.line.name, situation.condition.name,
                situation.command.data(), trial.Story().c_str());
    for (const std::string& fault : situation.faults) std::printf("  fault %s\n", fault.c_str());
    for (const std::string& promise : broken) std::printf("  WRONG: %s\n", promise.c_str());
    if (!broken.empty()) ++wrong;
  }
  std::printf("%zu situations, %zu not in order\n", situations.size(), wrong);
  return wrong == 0 ? 0 : 1;
}

// The updates of a morning stand in one journal, and each unit has passed once.
int JudgeDay(unsigned updates, unsigned seed) {
  ToolMachine station;
  const std::string journal = station.run.Path("journal").string();
  const int verdict = Judge(Day(updates, seed, journal), true);
  station.run("history " + journal + " --device-tag unit");
  std::fputs(station.run.Out().c_str(), stdout);
  station.run("history " + journal + " --device-tag unit --json");
  const Json sums = Json::Parse(station.run.Out());
  const unsigned units = std::min(updates, kMostJournalled);
  const bool agrees = sums["devices"] == units && sums["succeeded"] == units;
  if (agrees && sums["unfinished"].Size() + sums["torn"].Size() + sums["foreign"].Size() == 0) {
    return verdict;
  }
  std::printf("WRONG: %s\n", sums.Text(2).c_str());
  return 1;
}

int Main(const std::vector<std::string>& words) {
  const auto number = [&words](std::size_t index) {
    return index < words.size() ? static_cast<unsigned>(std::stoul(words[index])) : 1U;
  };
  if (words.empty()) return Judge(Situations(true), true);
  if (words[0] == "short" && words.size() == 1) return Judge(Situations(false), false);
  if (words[0] == "day" && words.size() <= 3) return JudgeDay(number(1), number(2));
  std::fputs("usage: situations [short | day COUNT [SEED]]\n", stderr);
  return 2;
}

}  // namespace
}  // namespace tavo::tool

int main(int argc, char** argv) { return tavo::tool::Main({argv + 1, argv + argc}); }
