// Ctrl-C, and a polite request to end. While one of these lives, the signals SIGINT, SIGTERM and
// SIGHUP do not end the program but are counted, in a thread of its own. Afterwards they stay blocked:
// the program is about to end with the exit code that its record names, and a late Ctrl-C must not
// replace it. Signals that the program was started to ignore, as by nohup, stay ignored.
#pragma once

#include <signal.h>

#include <atomic>
#include <functional>
#include <thread>

namespace tavo::tool {

class Interrupts {
 public:
  // `onInterrupt` gets the number of the interrupt, 1 for the first. It runs in the other thread.
  // One Interrupts at a time, made before the program starts other threads.
  explicit Interrupts(std::function<void(int number)> onInterrupt);
  ~Interrupts();
  Interrupts(const Interrupts&) = delete;
  Interrupts& operator=(const Interrupts&) = delete;

 private:
  void Listen();

  const sigset_t m_signals;
  std::atomic<bool> m_ending = false;
  std::function<void(int number)> m_onInterrupt;
  std::thread m_thread;
};

}  // namespace tavo::tool
