#include "update/interrupts.h"

#include <pthread.h>
#include <utility>

namespace tavo::tool {
namespace {

// Wakes the thread for its end; one that comes from elsewhere does nothing.
constexpr int kWake = SIGUSR1;

bool IsIgnored(int signal) {
  struct sigaction action {};
  return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

sigset_t Signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, kWake);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    if (!IsIgnored(signal)) sigaddset(&signals, signal);
  }
  return signals;
}

}  // namespace

Interrupts::Interrupts(std::function<void(int number)> onInterrupt)
    : m_signals(Signals()), m_onInterrupt(std::move(onInterrupt)) {
  pthread_sigmask(SIG_BLOCK, &m_signals, nullptr);
  m_thread = std::thread([this] { Listen(); });
}

Interrupts::~Interrupts() {
  m_ending = true;
  pthread_kill(m_thread.native_handle(), kWake);
  m_thread.join();
}

void Interrupts::Listen() {
  int number = 0;
  int signal = 0;
  while (!m_ending && sigwait(&m_signals, &signal) == 0) {
    if (signal != kWake) m_onInterrupt(++number);
  }
}

}  // namespace tavo::tool
