// Ctrl-C, and a polite request to end: SIGINT, SIGTERM and SIGHUP; on Windows Ctrl-C, Ctrl-Break, a closed
// console, the end of the session. While one of these lives, they do not end the program but are counted,
// in a thread of their own. Afterwards they have no effect: the program is about to end with the exit code
// that its record names, and a late Ctrl-C must not replace it. Signals that the program was started to
// ignore, as by nohup, stay ignored.
#pragma once

#include <functional>
#include <memory>

namespace tavo::tool {

class Interrupts {
 public:
  // `onInterrupt` gets the number of the interrupt, 1 for the first. It runs in the other thread.
  // One Interrupts at a time, made before the program starts other threads.
  explicit Interrupts(std::function<void(int number)> onInterrupt);
  ~Interrupts();
  Interrupts(const Interrupts&) = delete;
  Interrupts& operator=(const Interrupts&) = delete;

#ifdef _WIN32
  // As the console does, for tests, which have none: Ctrl-C, or Ctrl-Break. Returns when the interrupt has
  // been counted and handled.
  static void Bring(bool ctrlC);
#endif

 private:
  struct Listener;
  std::unique_ptr<Listener> m_listener;
};

}  // namespace tavo::tool
