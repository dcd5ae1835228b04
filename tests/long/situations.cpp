// Every situation that a technician may meet at a bench: each family's device, in each state, on each kind
// of line, met by each family's file and each command of the tool.
//
// usage: situations [short]     short: one device of each road, the files that differ from it, and three lines
#include <cstdio>

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

int Main(bool all) {
  const std::vector<Situation> situations = Situations(all);
  std::size_t wrong = 0;
  for (const Situation& situation : situations) {
    Trial trial(situation);
    const std::vector<std::string> faults = trial.Run();
    if (!all && faults.empty()) continue;
    std::printf("%-8s %-8s %-14s %-11s %-38s %s\n", situation.device.name.data(),
                situation.file.name.data(), situation.line.name, situation.condition.name,
                situation.command.data(), trial.Story().c_str());
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
