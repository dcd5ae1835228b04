// The course of an update as a person follows it: a handful of phases instead of some twenty steps, the
// time that each took, the bytes written and the requests repeated. It listens to the engine and feeds a
// view.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "device/dialogue.h"
#include "engine/error_code.h"
#include "engine/update_observer.h"
#include "platform/platform.h"
#include "transport/refused_bytes.h"

namespace tavo::tool {

enum class Phase { None, Contact, Bootloader, Erase, Write, Verify, Start, Finish, BringBack };

struct PhaseDescription {
  Phase phase;
  const char* name;   // stable, for scripts
  const char* title;  // for a person
};

// Row n describes phase n.
inline constexpr std::array<PhaseDescription, 9> kPhaseTable{{
    {Phase::None, "none", "-"},
    {Phase::Contact, "contact", "Contacting device"},
    {Phase::Bootloader, "bootloader", "Entering bootloader"},
    {Phase::Erase, "erase", "Erasing"},
    {Phase::Write, "write", "Writing"},
    {Phase::Verify, "verify", "Verifying"},
    {Phase::Start, "start", "Starting application"},
    {Phase::Finish, "finish", "Finishing"},
    {Phase::BringBack, "bring-back", "Bringing device back"},
}};

inline const PhaseDescription& DescriptionOf(Phase phase) {
  return kPhaseTable[static_cast<std::size_t>(phase)];
}

enum class PhaseEnd { Ok, Failed, Stopped };

struct Transfer {
  std::int64_t done = 0;   // bytes; blank blocks that were written too can take it above `total`
  std::int64_t total = 0;  // bytes that have to be written
  std::chrono::milliseconds elapsed{0};
};

class View {
 public:
  virtual ~View() = default;
  virtual void PhaseBegins(Phase phase) = 0;
  virtual void Wrote(const Transfer& transfer) = 0;
  // `transfer` is that of the update so far.
  virtual void PhaseEnds(Phase phase, PhaseEnd end, std::chrono::milliseconds elapsed,
                         const Transfer& transfer) = 0;
  // `refused`: the bytes that came instead of an answer.
  virtual void Retried(const std::string& request, const RefusedBytes& refused) = 0;
};

class Course final : public UpdateObserver {
 public:
  // `dialogue` observes the update's transport. `stop` asks the engine for an end; `refused` returns the
  // transport's refused bytes. The thread that runs the update calls them.
  Course(Platform& platform, View& view, const Dialogue& dialogue, std::function<void()> stop,
         std::function<RefusedBytes()> refused)
      : m_platform(platform),
        m_view(view),
        m_dialogue(dialogue),
        m_stop(std::move(stop)),
        m_askRefused(std::move(refused)) {}

  void StepCalled(const Step& step, StepPhase phase) override;
  void StatusReported(const StatusMessage& message) override;
  // The update is over; `end` is that of the phase under way.
  void End(PhaseEnd end) { Leave(end); }

  // From any thread, as Stop is.
  Phase Current() const { return m_phase; }
  // The user wants an end, before the next step; the engine's failure that follows is none.
  void Stop() { m_stopping = true; }
  bool IsStopping() const { return m_stopping; }

  // For the thread that ran the update, and over all its updates, should there be several.
  Transfer Written() const {
    return {m_earlier.done + m_transfer.done, m_earlier.total + m_transfer.total};
  }
  int Retries() const { return m_retries; }
  RefusedBytes Refused() const { return m_refused; }
  std::chrono::milliseconds Duration(Phase phase) const {
    return m_durations[static_cast<std::size_t>(phase)];
  }
  // Whether an erase may have been asked for in any of the updates.
  bool MayHaveErased() const { return m_mayHaveErased; }
  // The first failure of the current update: what follows it may only be its consequence.
  ErrorCode Failure() const { return m_failure; }
  const std::string& FailureText() const { return m_failureText; }
  // The request that was sent last before it.
  const SentRequest& FailureRequest() const { return m_failureRequest; }
  // The bytes that came instead of the answer whose lack was that failure.
  const RefusedBytes& FailureRefused() const { return m_failureRefused; }
  // Whether that failure was a device that gave no id.
  bool FailedForIdentity() const { return m_identityMissing; }

 private:
  void Enter(Phase phase);
  void Leave(PhaseEnd end);

  Platform& m_platform;
  View& m_view;
  const Dialogue& m_dialogue;
  std::atomic<Phase> m_phase = Phase::None;
  std::atomic<bool> m_stopping = false;
  std::chrono::milliseconds m_phaseBegin{0};
  std::array<std::chrono::milliseconds, kPhaseTable.size()> m_durations{};
  const std::function<void()> m_stop;
  const std::function<RefusedBytes()> m_askRefused;
  Transfer m_transfer;
  Transfer m_earlier;  // of the updates before
  int m_retries = 0;
  bool m_mayHaveErased = false;
  ErrorCode m_failure = ErrorCode::None;
  bool m_asksIdentity = false;  // the step under way does
  bool m_identityMissing = false;
  std::string m_failureText;
  RefusedBytes m_refused;      // in all updates
  RefusedBytes m_lastRefused;  // since the last request
  RefusedBytes m_failureRefused;
  SentRequest m_failureRequest;
};

}  // namespace tavo::tool
