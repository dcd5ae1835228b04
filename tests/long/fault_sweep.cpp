// fault-sweep: every request of every kind of update, meeting every fault, over both transports, on
// the virtual clock. After each run it asks what a user of the library would ask: did the call return
// in time, is its result true, does what it says about the device hold, and does the next update
// work? Prints a table of what ran, and every promise that was broken; exit code 1 if there is one.
//
//   fault-sweep [PLAN]     only the plan of that name
#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "tests/support/engine_rig.h"
#include "tests/support/station.h"

namespace tavo::test {
namespace {

using namespace std::chrono_literals;
using tavosim::DeviceOptions;
using tavosim::DeviceState;

struct Plan {
  const char* name;
  const char* family;
  std::uint16_t openTunnel;
  UpdateFlags flags;
  int updates;  // in a row; the fault comes in the last one
  DeviceState start = DeviceState::Application;
  bool intact = true;
};

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

enum class Interference { None, SendFails, ReceiveFails, TransferFails, EndpointStalls, Stop };

struct FaultCase {
  const char* name;
  const char* spec;  // for the simulated device; # is the number of the request. Null: none
  Interference interference = Interference::None;
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

// The longest an update may take: a silent device costs 7 tries of a block, then the closing plan
// with a tunnel to close, 7 signs of life, and the waits for a quiet line in between.
constexpr std::chrono::milliseconds kTimeBound = 180s;

// --- One run ---

struct Run {
  const Plan& plan;
  bool usb;
  const FaultCase* fault;  // none: the fault-free run
  unsigned request;        // of the last update, from 1
};

// What the protocol cannot hold, whoever speaks it. A promise that is broken for one of these reasons
// is counted with its reason and is no fault of ours.
enum class Limit { None, SharedId, SilenceTolerated };
constexpr std::array<const char*, 3> kLimitTexts{
    "",
    "an answer to another request with the same id was taken: answers carry nothing but the id",
    "the device restarted into its bootloader after its last sign of life: silence at the module "
    "request is tolerated, and the closing of a tunnel is not awaited",
};

// Promises that no limit of the protocol excuses.
constexpr const char* kTimely = "returns within its bound of time";
constexpr const char* kQuiet = "nothing is left pending";
constexpr const char* kClosed = "the device is closed again";

struct Outcome {
  bool succeeded = false;
  bool foreignAnswer = false;  // a step took the answer to another request
  bool unknown = false;
  std::pair<int, int> cell{};  // of the table of evidence that said so
  std::string truth;           // what was true then
  bool secondSucceeded = false;
  bool thirdNeeded = false;
  std::chrono::milliseconds took{0};
  unsigned requests = 0;
  std::set<std::string> broken;  // promises
  Limit limit = Limit::None;     // why they could not be kept
};

std::string Spec(const FaultCase& fault, unsigned request) {
  std::string spec = fault.spec;
  spec.replace(spec.find('#'), 1, std::to_string(request));
  return spec;
}

unsigned RequestCount(const tavosim::Device& device) {
  return device.Journal().empty() ? 0 : device.Journal().back().number;
}

class SweptUpdate : private TransportObserver {
 public:
  explicit SweptUpdate(const Run& run)
      : m_run(run), m_station(Options(run.plan), false, {}, this) {}

  Outcome Execute() {
    for (int update = 1; update < m_run.plan.updates; ++update) Update(m_run.plan.flags);
    m_station.ForgetRequests();
    m_before = Flash();
    if (m_run.fault) Interfere();

    const auto begin = m_station.platform.MonotonicNow();
    m_outcome.succeeded = Update(m_run.plan.flags);
    m_outcome.took = m_station.platform.MonotonicNow() - begin;
    m_outcome.requests = RequestCount(m_station.device);
    m_outcome.foreignAnswer = m_foreignAnswer;
    m_outcome.limit = FindLimit();
    CheckResult();
    if (m_run.fault) CheckStep();
    if (m_run.fault && IsGlitch(*m_run.fault))
      Promise(m_outcome.succeeded, "a glitch costs no update");
    CheckCode();
    CheckEvidence();
    UpdateAgain();
    return m_outcome;
  }

 private:
  static DeviceOptions Options(const Plan& plan) {
    tavosim::Family family = *tavosim::FindFamily(plan.family);
    family.applicationKiB = 1;  // a few blocks say as much as many
    DeviceOptions options = tavosim::OptionsFor(family);
    options.openTunnel = plan.openTunnel;
    options.start = plan.start;
    options.applicationIntact = plan.intact;
    options.numbersAnswers = true;
    return options;
  }

  bool Update(const UpdateFlags& flags) {
    return m_run.usb ? m_station.UpdateOverUsb(flags) : m_station.UpdateOverFtdi(flags);
  }

  const std::vector<std::uint8_t>& Flash() const {
    return m_station.device.ApplicationFlash().Bytes();
  }
  DeviceState Mode() { return m_station.device.State(SimNow(m_station.platform)); }
  bool Intact() const { return m_station.device.ApplicationFlash().Intact(); }

  void Interfere() {
    std::vector<tavosim::Fault> faults;
    if (m_run.fault->spec) {
      faults.push_back(tavosim::ParseFault(Spec(*m_run.fault, m_run.request)).fault.value());
    }
    m_station.device.SetFaults(faults);
    const unsigned request = m_run.request;
    auto reached = [this](unsigned count) { return RequestCount(m_station.device) >= count; };
    auto once = [done = false](bool now) mutable { return now && !std::exchange(done, true); };
    switch (m_run.fault->interference) {
      case Interference::None: break;
      case Interference::SendFails:
        m_station.usb.failSend =
            m_station.d2xx.failSend = [=]() mutable { return once(reached(request - 1)); };
        break;
      case Interference::ReceiveFails:
        m_station.usb.failReceive =
            m_station.d2xx.failReceive = [=]() mutable { return once(reached(request)); };
        break;
      case Interference::TransferFails:
      case Interference::EndpointStalls: {
        const bool stalls = m_run.fault->interference == Interference::EndpointStalls;
        const TransferEnd end = stalls ? TransferEnd::Stalled : TransferEnd::Failed;
        m_station.d2xx.endTransfer = [=]() mutable {
          return once(reached(request)) ? std::optional(end) : std::nullopt;
        };
        break;
      }
      case Interference::Stop:
        m_station.d2xx.onPoll = [=, this]() mutable {
          if (once(reached(request))) m_station.engine.RequestStop();
        };
        m_station.usb.failReceive = [this] { return m_station.d2xx.onPoll(), false; };
        break;
    }
  }

  // Nothing is lost: the adapter keeps what arrives until it is read.
  static bool IsGlitch(const FaultCase& fault) {
    return fault.interference == Interference::TransferFails ||
           fault.interference == Interference::EndpointStalls;
  }

  void RemoveInterference() {
    m_station.device.ClearFaults();
    m_station.usb.failSend = m_station.d2xx.failSend = [] { return false; };
    m_station.usb.failReceive = m_station.d2xx.failReceive = [] { return false; };
    m_station.d2xx.endTransfer = [] { return std::nullopt; };
    m_station.d2xx.onPoll = [] {};
    if (!m_station.device.Connected(SimNow(m_station.platform))) {
      m_station.device.Unplug(SimNow(m_station.platform), 0s);
    }
  }

  void Broken(const std::string& promise) { m_outcome.broken.insert(promise); }
  void Promise(bool kept, const std::string& promise) {
    if (!kept) Broken(promise);
  }

  // The simulated device numbers its answers: to which request belongs the one that was taken? A
  // repeated try of the same request may be answered by the answer to an earlier try.
  void Polled(PollResult result, const TavoMessage& answer) override {
    if (result != PollResult::Answer) return;
    const auto& journal = m_station.device.Journal();
    if (answer.length < tavosim::kAnswerNumberOffset + 2 || journal.empty()) return;
    const unsigned number = answer.payload[tavosim::kAnswerNumberOffset] |
                            unsigned{answer.payload[tavosim::kAnswerNumberOffset + 1]} << 8;
    const tavosim::Exchange& last = journal.back();
    if (number == last.number) return;
    for (const tavosim::Exchange& exchange : journal) {
      if (exchange.number == number && exchange.id == last.id && exchange.payload == last.payload) {
        return;
      }
    }
    m_foreignAnswer = true;
  }

  Limit FindLimit() const {
    if (m_foreignAnswer) return Limit::SharedId;
    if (!m_run.fault || std::string_view(m_run.fault->name) != "power cut into bootloader") {
      return Limit::None;
    }
    const std::string request = RequestText(m_run.request);
    const bool tolerated = request.starts_with("0x814") || request == "0x100 EC 00";
    return tolerated ? Limit::SilenceTolerated : Limit::None;
  }

  std::string RequestText(unsigned number) const {
    for (const tavosim::Exchange& exchange : m_station.device.Journal()) {
      if (exchange.number == number) return Describe(exchange);
    }
    return {};
  }

  void CheckResult() {
    Promise(m_outcome.took <= kTimeBound, kTimely);
    const bool updated = m_station.FlashHoldsFirmware() && Mode() == DeviceState::Application;
    if (m_outcome.succeeded) Promise(updated, "true means that the firmware is in and runs");
    Promise(m_station.link.IsQuiet() && !m_station.link.HasResponse(), kQuiet);
    Promise(m_station.usb.OpenHandles() == 0, kClosed);
  }

  // A device that falls silent at a request fails the step that sent it, unless that one tolerates it.
  void CheckStep() {
    if (!m_run.fault->spec || std::string_view(m_run.fault->spec) != "lose:#+") return;
    static constexpr std::array<std::pair<const char*, const char*>, 11> kTimeoutOfRequest{{
        {"0x120", "Timeout: Bootloader Version Request"},
        {"0x121", "Timeout: Request Prozessor-ID"},
        {"0x122", "Timeout: Hardware ID Request"},
        {"0x130", "Timeout: Erase Request"},
        {"0x132", "Timeout: Application Size Request"},
        {"0x133", "Timeout: Writing Flash"},
        {"0x134", "Timeout: Writing Flash"},
        {"0x136", "Timeout: Verify Request"},
        {"0x12F", "Timeout: Start Application Request"},
        {"0x100 00", "Timeout: Wait for Application"},
        {"0x100 A0", "Timeout: Set Label Request"},
    }};
    const std::string request = RequestText(m_run.request);
    if (request == "0x12F 01") return;
    for (const auto& [head, text] : kTimeoutOfRequest) {
      if (!request.starts_with(head)) continue;
      const Lines dialogue = m_station.Dialogue();
      const auto first = std::find_if(dialogue.begin(), dialogue.end(), [](const auto& line) {
        return line.starts_with("Timeout: ") || line.starts_with("Error: ");
      });
      Promise(first != dialogue.end() && *first == text, "the failure is that of the step");
    }
  }

  // What the console says last of a failure, and the code that belongs to it.
  void CheckCode() {
    static const std::map<std::string, unsigned, std::less<>> kCodeOfText{
        {"Error: Bootloader Version Request", 2},
        {"Error: Sending Hardware ID Request", 3},
        {"Error: Sending Init Tunnel Request", 6},
        {"Error: Sending Erase Request", 8},
        {"Error: Sending Flash Positioning Request", 9},
        {"Error: Sending Flash Writing Request", 10},
        {"Error: Writing Flash", 10},
        {"Error: Sending: Start Application Request", 11},
        {"Error: Sending Bootloader Request", 12},
        {"Error: Sending Application Size Request", 13},
        {"Error: Sending Verify Request", 14},
        {"Error: Verify. CRC calculation failed.", 14},
        {"Error: Request Device-ID", 15},
        {"Error: Request Device-ID (Admin)", 15},
        {"Error: Request Software-ID", 15},
        {"Error: Request Prozessor-ID", 15},
        {"Error: Sending: Set Label Request", 16},
        {"FirmwareUpdater: Select Firmware: No matching firmware found", 18},
        {"Error: Check Application", 19},
        {"Error: Request resetted Modules", 20},
    };
    unsigned code = 0;
    for (const std::string& line : m_station.Dialogue()) {
      const auto row = kCodeOfText.find(line);
      if (row != kCodeOfText.end()) code = row->second;
      if (line.starts_with("Timeout: ")) code = 1;
      if (line.starts_with("Error: Bootloader incompatible")) code = 2;
      if (line.starts_with("Error: Hardware ID incorrect")) code = 3;
      if (line.starts_with("Error: Firmware does not match")) code = 3;
      if (line.starts_with("Error: Application Size incorrect")) code = 13;
    }
    if (m_outcome.succeeded) return;
    const bool stopped = m_station.platform.ConsoleHas("Firmwareupdate Error: 15\n");
    Promise(code != 0 || stopped, "a failure is said on the console");
    Promise(code == static_cast<unsigned>(m_station.engine.LastError()), "code and text agree");
  }

  std::string Truth() {
    const std::string mode = Mode() == DeviceState::Application ? "application" : "bootloader";
    if (m_station.FlashHoldsFirmware()) return mode + ", new firmware";
    return mode + (Flash() == m_before ? ", flash as before" : ", flash incomplete");
  }

  bool Holds(DeviceCondition claim) {
    const bool application = Mode() == DeviceState::Application;
    const bool bootloader = Mode() == DeviceState::Bootloader;
    const bool unchanged = Flash() == m_before;
    switch (claim) {
      case DeviceCondition::Untouched: return unchanged;
      case DeviceCondition::OldApplicationRuns: return unchanged && application;
      case DeviceCondition::UpdatedAndVerified:
      case DeviceCondition::UpdatedNotVerified:
      case DeviceCondition::RunsIncomplete: return m_station.FlashHoldsFirmware() && application;
      case DeviceCondition::BootloaderAsFound: return bootloader && unchanged;
      case DeviceCondition::BootloaderFlashIntact: return bootloader && Intact();
      case DeviceCondition::BootloaderFlashErased: return bootloader && !Intact();
      case DeviceCondition::Unknown: return true;
    }
    return false;
  }

  void CheckEvidence() {
    const DeviceEvidence evidence = m_station.engine.DeviceState();
    m_outcome.unknown = evidence.device == DeviceCondition::Unknown;
    m_outcome.cell = EngineAccess::EvidenceCell(m_station.engine);
    m_outcome.truth = Truth();
    Promise(Holds(evidence.device), "what is said of the device is true (" +
                                        std::to_string(static_cast<int>(evidence.device)) + ")");
    const bool open = m_station.device.OpenTunnel() != 0;
    Promise(evidence.tunnel != TunnelCondition::Closed || !open, "a closed tunnel is closed");
    Promise(evidence.tunnel != TunnelCondition::LeftOpen || open, "an open tunnel is open");
  }

  // The flags that the device's state calls for.
  UpdateFlags RevivingFlags() {
    if (Intact()) return {};
    if (m_station.device.Options().family.route != 0) return {.checkIdentity = false};
    return {.bootloaderOnly = true};
  }

  void UpdateAgain() {
    RemoveInterference();
    // Two things may cost one update more: a tunnel left open on the right route, which is closed and
    // not opened again, and an answer still on its way, which may come in one read with that to a
    // later request; only the first of two is taken.
    const bool tunnelOpen = m_station.device.OpenTunnel() != 0;
    const bool answerOnItsWay = m_station.device.NextDue().has_value();
    m_outcome.secondSucceeded = Update(RevivingFlags());
    if (!m_outcome.secondSucceeded && (tunnelOpen || answerOnItsWay)) {
      m_outcome.thirdNeeded = true;
      m_outcome.secondSucceeded = Update(RevivingFlags());
    }
    Promise(m_outcome.secondSucceeded && m_station.FlashHoldsFirmware() &&
                Mode() == DeviceState::Application,
            "a fault-free update afterwards succeeds");
  }

  const Run& m_run;
  Station m_station;
  std::vector<std::uint8_t> m_before;
  bool m_foreignAnswer = false;
  Outcome m_outcome;
};

// --- The table ---

struct Row {
  unsigned runs = 0;
  unsigned succeeded = 0;
  unsigned foreign = 0;
  unsigned unknown = 0;
  unsigned second = 0;
  unsigned third = 0;
  std::chrono::milliseconds longest{0};
};

struct Sweep {
  std::map<const FaultCase*, Row> rows;
  unsigned runs = 0;
  unsigned broken = 0;
  std::array<unsigned, kLimitTexts.size()> limits{};
  std::map<std::pair<int, int>, std::map<std::string, unsigned>> openStates;

  void Count(const Run& run, const Outcome& outcome) {
    Row& row = rows[run.fault];
    ++runs;
    ++row.runs;
    row.succeeded += outcome.succeeded;
    row.foreign += outcome.foreignAnswer;
    row.unknown += outcome.unknown;
    row.second += outcome.secondSucceeded;
    row.third += outcome.thirdNeeded;
    if (outcome.unknown) ++openStates[outcome.cell][outcome.truth];
    row.longest = std::max(row.longest, outcome.took);
    const bool excusable = !outcome.broken.contains(kTimely) && !outcome.broken.contains(kQuiet) &&
                           !outcome.broken.contains(kClosed);
    if (!outcome.broken.empty() && excusable && outcome.limit != Limit::None) {
      ++limits[static_cast<std::size_t>(outcome.limit)];
      return;
    }
    for (const std::string& promise : outcome.broken) {
      ++broken;
      std::printf("BROKEN %s over %s, request %u, %s: %s\n", run.plan.name,
                  run.usb ? "USB" : "FTDI", run.request, run.fault->name, promise.c_str());
    }
  }

  // "Unknown" is only for what is open: after silence each such cell must have met two states. The
  // others are open because nothing was waited for, or nothing has verified what was written.
  void PrintUnknown() {
    static constexpr std::array<const char*, 8> kProgress{
        "nothing asked", "bootloader asked", "bootloader called", "erase asked",
        "erased",        "written",          "verify failed",     "verified"};
    static constexpr std::array<const char*, 4> kResponder{
        "nobody", "the application", "the bootloader, starting the application", "the bootloader"};
    for (const auto& [cell, states] : openStates) {
      const auto& [progress, responder] = cell;
      std::printf(
          "unknown: %s, last answered by %s:", kProgress.at(static_cast<std::size_t>(progress)),
          kResponder.at(static_cast<std::size_t>(responder)));
      for (const auto& [state, count] : states) std::printf(" %s (%u);", state.c_str(), count);
      std::printf("\n");
      if (responder == 0 && states.size() < 2) {
        ++broken;
        std::printf("BROKEN unknown was said where the answers leave one state only\n");
      }
    }
  }

  void Print() const {
    std::printf("%-28s %6s %9s %8s %8s %8s %6s %9s\n", "fault", "runs", "succeeded", "foreign",
                "unknown", "revived", "third", "longest");
    for (const FaultCase& fault : kFaults) {
      const auto found = rows.find(&fault);
      if (found == rows.end()) continue;
      const Row& row = found->second;
      std::printf("%-28s %6u %9u %8u %8u %8u %6u %7.1f s\n", fault.name, row.runs, row.succeeded,
                  row.foreign, row.unknown, row.second, row.third,
                  static_cast<double>(row.longest.count()) / 1000);
    }
    for (std::size_t limit = 1; limit < limits.size(); ++limit) {
      std::printf("%u runs could not keep a promise: %s\n", limits[limit], kLimitTexts[limit]);
    }
    std::printf("%u runs, %u broken promises\n", runs, broken);
  }
};

void SweepPlan(const Plan& plan, bool usb, Sweep& sweep) {
  const Run faultFree{plan, usb, nullptr, 0};
  const Outcome reference = SweptUpdate(faultFree).Execute();
  if (!reference.succeeded || !reference.broken.empty()) {
    std::printf("BROKEN %s: the fault-free update\n", plan.name);
    ++sweep.broken;
  }
  for (unsigned request = 1; request <= reference.requests; ++request) {
    for (const FaultCase& fault : kFaults) {
      const Run run{plan, usb, &fault, request};
      sweep.Count(run, SweptUpdate(run).Execute());
    }
  }
}

int Main(std::string_view onlyPlan) {
  Sweep sweep;
  for (const Plan& plan : kPlans) {
    if (!onlyPlan.empty() && onlyPlan != plan.name) continue;
    for (const bool usb : {true, false}) SweepPlan(plan, usb, sweep);
  }
  sweep.PrintUnknown();
  sweep.Print();
  return sweep.broken == 0 && sweep.runs > 0 ? 0 : 1;
}

}  // namespace
}  // namespace tavo::test

int main(int argc, char** argv) { return tavo::test::Main(argc > 1 ? argv[1] : ""); }
