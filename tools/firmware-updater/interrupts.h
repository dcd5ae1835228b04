// Ctrl-C, and a polite request to end. While one of these lives, the signals SIGINT, SIGTERM and
// SIGHUP do not end the program but are counted, in a thread of its own.
#pragma once

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

  std::function<void(int number)> m_onInterrupt;
  std::thread m_thread;
};

}  // namespace tavo::tool
