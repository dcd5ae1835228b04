// The platform, with the library's console led into a log file: its lines, those of its own log among
// them, are appended to one file, and with --verbose shown on a stream as well. The tool reports to the
// user itself.
//
// Every write opens the file and closes it again, as the library's log does: it is complete after
// each line and may be moved away at any time.
#pragma once

#include <iosfwd>
#include <string>

#include "platform/platform.h"

namespace tavo::tool {

class LogPlatform final : public Platform {
 public:
  // An empty path: no file. `echo` may be null.
  LogPlatform(Platform& machine, std::string path, std::ostream* echo);

  std::chrono::milliseconds MonotonicNow() override { return m_machine.MonotonicNow(); }
  std::uint32_t TickCount() override { return m_machine.TickCount(); }
  std::tm LocalTime() override { return m_machine.LocalTime(); }
  void Sleep(std::chrono::milliseconds duration) override { m_machine.Sleep(duration); }
  std::string ExecutablePath() override { return m_machine.ExecutablePath(); }

  void Print(std::string_view text) override;
  // The library's log file: the same lines come by Print.
  FileHandle OpenFile(const std::string& path, const char* mode) override;

  // Whether a line could not be written to the file.
  bool HasLost() const { return m_lost; }

 private:
  Platform& m_machine;
  std::string m_path;
  std::ostream* m_echo;
  bool m_lost = false;
};

// Where the log goes when the user names no file: firmware-updater/firmware-updater.log in
// $XDG_STATE_HOME, or in .local/state of $HOME. Makes the folders. Empty when they cannot be made.
std::string DefaultLogPath();

}  // namespace tavo::tool
