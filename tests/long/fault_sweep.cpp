// fault-sweep: updates that meet faults, on the virtual clock. Prints a summary and each broken promise;
// exit code 1 if there is one.
//
//   fault-sweep singles [PLAN]        every fault at every request of every kind of update, over both
//                                     transports
//   fault-sweep pairs COUNT [SEED]    two faults in one update, drawn at random
//   fault-sweep updates COUNT         many updates in one process, with faults and stops in between
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>

#include "tests/long/many_updates.h"
#include "tests/long/swept_update.h"

namespace tavo::test {
namespace {

using tavosim::DeviceState;

constexpr std::array kPlans{
    Plan{"plain", "plain", 0, {}, 1},
    Plan{"tunnel", "tunnel", 0, {}, 1},
    Plan{"tunnel found open", "tunnel", 0x0402, {}, 1},
    Plan{"bootloader only", "plain", 0, {.bootloaderOnly = true}, 1},
    Plan{"type 5 with label", "labelled", 0, {}, 1},
    Plan{"type 7", "variant", 0, {}, 1},
    Plan{"old bootloader", "legacy", 0, {}, 1},
    Plan{"two in a row", "plain", 0, {}, 2},
    Plan{"found in its bootloader", "plain", 0, {}, 1, DeviceState::Bootloader},
    Plan{"found erased", "plain", 0, {.bootloaderOnly = true}, 1, DeviceState::Bootloader, false},
};

constexpr std::array kFaults{
    FaultCase{"answer lost once", "lose:#"},
    FaultCase{"answers lost from here on", "lose:#+"},
    FaultCase{"late by 1 s", "delay:#:1s"},
    FaultCase{"late by 4.1 s", "delay:#:4100ms"},
    FaultCase{"late by 9 s", "delay:#:9s"},
    FaultCase{"header damaged", "damage:#:0.2"},
    FaultCase{"header mark damaged", "damage:#:0.6"},
    FaultCase{"identifier damaged", "damage:#:1.3"},
    FaultCase{"payload damaged", "damage:#:3.0"},
    FaultCase{"checksum damaged", "damage:#:19.7"},
    FaultCase{"repeated at once", "repeat:#"},
    FaultCase{"repeated after 20 ms", "repeat:#:20ms"},
    FaultCase{"repeated after 5 s", "repeat:#:5s"},
    FaultCase{"cut in half", "cut:#"},
    FaultCase{"empty", "empty:#"},
    FaultCase{"with another id", "otherid:#:0x101"},
    FaultCase{"garbage before", "before:#:00A35512AF"},
    FaultCase{"garbage after", "after:#:A35512AF"},
    FaultCase{"held until the next request", "withhold:#"},
    FaultCase{"send fails", nullptr, Interference::SendFails},
    FaultCase{"receive fails", nullptr, Interference::ReceiveFails},
    FaultCase{"input transfer fails", nullptr, Interference::TransferFails},
    FaultCase{"input endpoint stalls", nullptr, Interference::EndpointStalls},
    FaultCase{"unplugged for 2 s", "unplug:#:2s"},
    FaultCase{"unplugged for good", "unplug:#"},
    FaultCase{"power cut", "powercut:#"},
    FaultCase{"power cut into bootloader", "powercut:#:bootloader"},
    FaultCase{"stop", nullptr, Interference::Stop},
};

struct Row {
  unsigned runs = 0;
  unsigned succeeded = 0;
  unsigned foreign = 0;
  unsigned unknown = 0;
  unsigned recovered = 0;
  unsigned third = 0;
  std::chrono::milliseconds longest{0};
};

class Sweep {
 public:
  // Counts in the row `name`.
  void Count(const Run& run, const Outcome& outcome, const char* name) {
    Row& row = RowOf(name);
    ++row.runs;
    row.succeeded += outcome.succeeded;
    row.foreign += outcome.foreignAnswer;
    row.unknown += outcome.unknown;
    row.recovered += outcome.recovered;
    row.third += outcome.thirdNeeded;
    row.longest = std::max(row.longest, outcome.took);
    for (const Limit limit : outcome.limits) ++m_limits.at(static_cast<std::size_t>(limit));
    for (const std::string& promise : outcome.broken) PrintBroken(run, promise);
  }

  int Print() const {
    std::printf("%-28s %6s %9s %8s %8s %9s %6s %9s\n", "fault", "runs", "succeeded", "foreign",
                "unknown", "recovered", "third", "longest");
    unsigned runs = 0;
    for (const auto& [name, row] : m_rows) {
      runs += row.runs;
      std::printf("%-28s %6u %9u %8u %8u %9u %6u %7.1f s\n", name.c_str(), row.runs, row.succeeded,
                  row.foreign, row.unknown, row.recovered, row.third,
                  static_cast<double>(row.longest.count()) / 1000);
    }
    for (std::size_t limit = 0; limit < m_limits.size(); ++limit) {
      if (m_limits[limit] == 0) continue;
      std::printf("%u runs could not keep a promise: %s\n", m_limits[limit], kLimitTexts[limit]);
    }
    std::printf("%u runs, %u broken promises\n", runs, m_broken);
    return m_broken == 0 && runs > 0 ? 0 : 1;
  }

 private:
  Row& RowOf(const std::string& name) {
    for (auto& [known, row] : m_rows) {
      if (known == name) return row;
    }
    return m_rows.emplace_back(name, Row{}).second;
  }

  void PrintBroken(const Run& run, const std::string& promise) {
    ++m_broken;
    std::printf("BROKEN %s over %s", run.plan->name, run.usb ? "USB" : "FTDI");
    for (const Hit& hit : run.hits) std::printf(", request %u: %s", hit.request, hit.fault->name);
    std::printf(": %s\n", promise.c_str());
  }

  std::vector<std::pair<std::string, Row>> m_rows;
  std::array<unsigned, kLimitTexts.size()> m_limits{};
  unsigned m_broken = 0;
};

int Singles(std::string_view onlyPlan) {
  Sweep sweep;
  for (const Plan& plan : kPlans) {
    if (!onlyPlan.empty() && onlyPlan != plan.name) continue;
    for (const bool usb : {true, false}) {
      const Run faultFree{&plan, usb, {}};
      const Outcome reference = SweptUpdate(faultFree).Execute();
      sweep.Count(faultFree, reference, "none");
      for (unsigned request = 1; request <= reference.requests; ++request) {
        for (const FaultCase& fault : kFaults) {
          const Run run{&plan, usb, {{&fault, request}}};
          sweep.Count(run, SweptUpdate(run).Execute(), fault.name);
        }
      }
    }
  }
  return sweep.Print();
}

int Pairs(unsigned count, unsigned seed) {
  Sweep sweep;
  std::mt19937 random(seed);
  const auto draw = [&random](std::size_t bound) { return random() % bound; };
  // A first fault causes requests that a fault-free update does not send.
  constexpr unsigned kMoreRequests = 8;
  std::map<const Plan*, unsigned> requests;
  for (const Plan& plan : kPlans) {
    requests[&plan] = SweptUpdate({&plan, true, {}}).Execute().requests + kMoreRequests;
  }
  for (unsigned pair = 0; pair < count; ++pair) {
    const Plan& plan = kPlans.at(draw(kPlans.size()));
    Run run{&plan, draw(2) == 0, {}};
    for (int hit = 0; hit < 2; ++hit) {
      const FaultCase* const fault = &kFaults.at(draw(kFaults.size()));
      run.hits.push_back({fault, static_cast<unsigned>(1 + draw(requests[&plan]))});
    }
    sweep.Count(run, SweptUpdate(run).Execute(), plan.name);
  }
  return sweep.Print();
}

int Main(const std::vector<std::string>& words) {
  const std::string mode = words.empty() ? "" : words[0];
  const auto number = [&words](std::size_t index, unsigned otherwise) {
    if (index >= words.size()) return otherwise;
    return static_cast<unsigned>(std::strtoul(words[index].c_str(), nullptr, 10));
  };
  if (mode == "singles" && words.size() <= 2) return Singles(words.size() == 2 ? words[1] : "");
  if (mode == "pairs" && words.size() <= 3 && number(1, 0) > 0)
    return Pairs(number(1, 0), number(2, 1));
  if (mode == "updates" && words.size() == 2 && number(1, 0) > 0) {
    return ManyUpdates().Execute(number(1, 0)) == 0 ? 0 : 1;
  }
  std::fprintf(stderr, "usage: fault-sweep singles [PLAN] | pairs COUNT [SEED] | updates COUNT\n");
  return 2;
}

}  // namespace
}  // namespace tavo::test

int main(int argc, char** argv) { return tavo::test::Main({argv + 1, argv + argc}); }
