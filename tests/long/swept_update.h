// One update of a simulated device that meets faults, on the virtual clock, and the promises that hold
// whatever happens:
//
//   const Outcome outcome = SweptUpdate({plan, true, {{fault, 7}}}).Execute();
//   outcome.broken   // the promises that were broken
#pragma once

#include <array>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/station.h"

namespace tavo::test {

struct Plan {
  const char* name;
  const char* family;
  std::uint16_t openTunnel;
  UpdateFlags flags;
  int updates;  // in a row; the faults come in the last one
  tavosim::DeviceState start = tavosim::DeviceState::Application;
  bool intact = true;
};

enum class Interference { None, SendFails, ReceiveFails, TransferFails, EndpointStalls, Stop };

struct FaultCase {
  const char* name;
  const char* spec;  // for the simulated device; # is the number of the request. Null: none
  Interference interference = Interference::None;
};

// A fault at a request of the last update, counted from 1.
struct Hit {
  const FaultCase* fault;
  unsigned request;
};

struct Run {
  const Plan* plan;
  bool usb;
  std::vector<Hit> hits;  // none: the fault-free run
};

// Why the protocol itself cannot keep a promise. Such a run is counted with its reason.
enum class Limit { SharedId, SilenceTolerated, UnnoticedRestart };
inline constexpr std::array<const char*, 3> kLimitTexts{
    "an answer to another request with the same id was taken",
    "the device restarted into its bootloader after its last sign of life",
    "the device lost power and its tunnel, and the update ended before it could notice",
};

struct Outcome {
  bool succeeded = false;
  bool foreignAnswer = false;  // a step took the answer to another request
  bool unknown = false;        // the evidence reports an unknown state
  bool recovered = false;      // by a fault-free update
  bool thirdNeeded = false;
  std::chrono::milliseconds took{0};
  unsigned requests = 0;
  std::set<std::string> broken{};
  std::set<Limit> limits{};  // that broke promises
};

class SweptUpdate : private TransportObserver {
 public:
  explicit SweptUpdate(Run run)
      : m_run(std::move(run)), m_station(Options(*m_run.plan), false, {}, this) {}

  Outcome Execute() {
    for (int update = 1; update < m_run.plan->updates; ++update) Update(m_run.plan->flags);
    m_station.ForgetRequests();
    m_before = Flash();
    Interfere();

    const auto begin = m_station.platform.MonotonicNow();
    m_outcome.succeeded = Update(m_run.plan->flags);
    m_outcome.took = m_station.platform.MonotonicNow() - begin;
    m_outcome.requests = RequestCount();
    m_limit = FindLimit();
    CheckResult();
    CheckEvidence();
    UpdateAgain();
    return m_outcome;
  }

 private:
  // The longest an update may take: a silent device costs 7 tries of a block, then the closing plan
  // with a tunnel to close, 7 signs of life, and the waits for a quiet line in between.
  static constexpr std::chrono::seconds kTimeBound{180};

  static tavosim::DeviceOptions Options(const Plan& plan) {
    tavosim::Family family = *tavosim::FindFamily(plan.family);
    family.applicationKiB = 1;  // a few blocks show as much as many
    tavosim::DeviceOptions options = tavosim::OptionsFor(family);
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
  bool Runs() { return m_station.ApplicationRuns(); }
  bool Intact() const { return m_station.device.ApplicationFlash().Intact(); }
  unsigned RequestCount() const {
    const auto& journal = m_station.device.Journal();
    return journal.empty() ? 0 : journal.back().number;
  }

  void Interfere() {
    std::vector<tavosim::Fault> faults;
    for (const Hit& hit : m_run.hits) {
      if (!hit.fault->spec) {
        m_pending.push_back(hit);
        continue;
      }
      std::string spec = hit.fault->spec;
      spec.replace(spec.find('#'), 1, std::to_string(hit.request));
      faults.push_back(tavosim::ParseFault(spec).fault.value());
    }
    m_station.device.SetFaults(faults);
    m_station.usb.failSend = m_station.d2xx.failSend = [this] {
      return TakeDue(Interference::SendFails, RequestCount() + 1);
    };
    m_station.usb.failReceive = m_station.d2xx.failReceive = [this] {
      StopIfDue();
      return TakeDue(Interference::ReceiveFails, RequestCount());
    };
    m_station.d2xx.onPoll = [this] { StopIfDue(); };
    m_station.d2xx.endTransfer = [this]() -> std::optional<TransferEnd> {
      if (TakeDue(Interference::TransferFails, RequestCount())) return TransferEnd::Failed;
      if (TakeDue(Interference::EndpointStalls, RequestCount())) return TransferEnd::Stalled;
      return std::nullopt;
    };
  }

  void StopIfDue() {
    if (TakeDue(Interference::Stop, RequestCount())) m_station.engine.RequestStop();
  }

  // Each interference happens once, when its request is reached.
  bool TakeDue(Interference interference, unsigned reached) {
    for (auto hit = m_pending.begin(); hit != m_pending.end(); ++hit) {
      if (hit->fault->interference != interference || hit->request > reached) continue;
      m_pending.erase(hit);
      return true;
    }
    return false;
  }

  void Promise(bool kept, const std::string& promise, std::optional<Limit> limit = std::nullopt) {
    if (kept) return;
    if (m_limit) limit = m_limit;
    if (limit) {
      m_outcome.limits.insert(*limit);
    } else {
      m_outcome.broken.insert(promise);
    }
  }
  // No limit of the protocol excuses these.
  void PromiseAlways(bool kept, const char* promise) {
    if (!kept) m_outcome.broken.insert(promise);
  }

  // The simulated device numbers its answers, which shows the request that each belongs to. The answer
  // to an earlier try of the same request is as good.
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
    m_outcome.foreignAnswer = true;
  }

  // A limit that excuses any broken promise of this run but those above.
  std::optional<Limit> FindLimit() const {
    if (m_outcome.foreignAnswer) return Limit::SharedId;
    for (const Hit& hit : m_run.hits) {
      if (std::string_view(hit.fault->name) != "power cut into bootloader") continue;
      for (const tavosim::Exchange& exchange : m_station.device.Journal()) {
        const std::string request = exchange.number == hit.request ? Describe(exchange) : "";
        if (request.starts_with("0x814") || request == "0x100 EC 00")
          return Limit::SilenceTolerated;
      }
    }
    return std::nullopt;
  }

  bool PowerWasCut() const {
    return std::ranges::any_of(m_run.hits, [this](const Hit& hit) {
      return std::string_view(hit.fault->name).starts_with("power cut") &&
             hit.request <= m_outcome.requests;
    });
  }

  // The adapter keeps what arrives until it is read, so nothing is lost.
  bool OnlyGlitches() const {
    return std::all_of(m_run.hits.begin(), m_run.hits.end(), [](const Hit& hit) {
      return hit.fault->interference == Interference::TransferFails ||
             hit.fault->interference == Interference::EndpointStalls;
    });
  }

  void CheckResult() {
    PromiseAlways(m_outcome.took <= kTimeBound, "returns within its bound of time");
    PromiseAlways(m_station.link.IsQuiet() && !m_station.link.HasResponse(),
                  "nothing is left pending");
    PromiseAlways(m_station.usb.handles == 0, "the device is closed again");
    if (OnlyGlitches()) Promise(m_outcome.succeeded, "a glitch costs no update");
    if (m_outcome.succeeded) {
      Promise(m_station.FlashHoldsFirmware() && Runs(),
              "true means that the device holds the firmware and runs it");
    } else {
      const bool stopped = m_station.platform.ConsoleHas("Firmwareupdate Error: 15\n");
      Promise(stopped || m_station.engine.LastError() != ErrorCode::None, "a failure has a code");
      const auto reported = [this](const char* text) {
        return m_station.platform.ConsoleHas(text);
      };
      Promise(stopped || reported("Error: ") || reported("Timeout: ") ||
                  reported("No matching firmware found"),
              "a failure is reported on the console");
    }
  }

  void CheckEvidence() {
    const DeviceEvidence evidence = m_station.engine.DeviceState();
    m_outcome.unknown = evidence.device == DeviceCondition::Unknown;
    Promise(
        m_station.Holds(evidence.device, m_before),
        "the reported state is true (" + std::to_string(static_cast<int>(evidence.device)) + ")");
    const bool open = m_station.device.OpenTunnel() != 0;
    Promise(evidence.tunnel != TunnelCondition::Closed || !open, "a closed tunnel is closed");
    Promise(evidence.tunnel != TunnelCondition::LeftOpen || open, "an open tunnel is open",
            PowerWasCut() ? std::optional(Limit::UnnoticedRestart) : std::nullopt);
  }

  // The flags that recover the device in its present state.
  UpdateFlags RecoveryFlags() {
    if (Intact()) return {};
    if (m_station.device.Options().family.route != 0) return {.checkIdentity = false};
    return {.bootloaderOnly = true};
  }

  void UpdateAgain() {
    m_pending.clear();
    m_station.Repair();
    // Two things may cost one more update: a tunnel left open on the right route, which is closed and
    // not opened again, and a late answer, which may come in one read with a later one; only the first
    // of two is taken.
    const bool tunnelOpen = m_station.device.OpenTunnel() != 0;
    const bool answerPending = m_station.device.NextDue().has_value();
    m_outcome.recovered = Update(RecoveryFlags());
    if (!m_outcome.recovered && (tunnelOpen || answerPending)) {
      m_outcome.thirdNeeded = true;
      m_outcome.recovered = Update(RecoveryFlags());
    }
    Promise(m_outcome.recovered && m_station.FlashHoldsFirmware() && Runs(),
            "a fault-free update afterwards succeeds");
  }

  const Run m_run;
  std::vector<Hit> m_pending;
  std::optional<Limit> m_limit;  // excuses every promise that a limit can excuse
  Outcome m_outcome;
  Station m_station;
  std::vector<std::uint8_t> m_before;
};

}  // namespace tavo::test
