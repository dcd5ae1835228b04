// The one seam between the library and its machine: clocks, sleep, the path of the host program and
// its console. Everything above receives a Platform by reference, so that a test can substitute a
// virtual clock, on which a wait of 25 seconds takes microseconds.
//
// One file per platform implements it and includes system headers; no other file does.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

#include "platform/file.h"

namespace tavo {

class Platform {
 public:
  virtual ~Platform() = default;

  // Time since an arbitrary moment; never jumps, never goes back.
  virtual std::chrono::milliseconds MonotonicNow() = 0;

  // The system's tick count in milliseconds: 32 bits wide, it wraps after 49.7 days. Differences
  // are taken with unsigned subtraction.
  virtual std::uint32_t TickCount() = 0;

  // The wall clock in local calendar time.
  virtual std::tm LocalTime() = 0;

  // Blocks the calling thread for `duration`.
  virtual void Sleep(std::chrono::milliseconds duration) = 0;

  // Full path of the executable file of the host process, in UTF-8; empty when the system does not
  // report it.
  virtual std::string ExecutablePath() = 0;

  // Writes `text` unchanged to the standard output of the host process and flushes it, so that a
  // person sees at once that the device is being written. A host without a console only loses the
  // text.
  virtual void Print(std::string_view text) = 0;

  // Opens a log to append text to and creates it if it is missing; `path` is UTF-8. Null when that
  // fails, and for anything but a regular file or a character device, such as a pipe. Never waits.
  // Processes that the host starts do not inherit the file.
  virtual FileHandle OpenLog(const std::string& path, Links links) = 0;
};

// The machine this process runs on.
Platform& SystemPlatform();

}  // namespace tavo
