#include "interrupts.h"

#include <pthread.h>
#include <signal.h>

#include <utility>

namespace tavo::tool {
namespace {

// Ends the thread; nobody else uses it.
constexpr int kEnd = SIGUSR1;

sigset_t Signals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, kEnd}) sigaddset(&signals, signal);
  return signals;
}

}  // namespace

Interrupts::Interrupts(std::function<void(int number)> onInterrupt)
    : m_onInterrupt(std::move(onInterrupt)) {
  const sigset_t signals = Signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  m_thread = std::thread([this] { Listen(); });
}

Interrupts::~Interrupts() {
  pthread_kill(m_thread.native_handle(), kEnd);
  m_thread.join();
  const sigset_t signals = Signals();
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

void Interrupts::Listen() {
  const sigset_t signals = Signals();
  int number = 0;
  int signal = 0;
  while (sigwait(&signals, &signal) == 0 && signal != kEnd) m_onInterrupt(++number);
}

}  // namespace tavo::tool
