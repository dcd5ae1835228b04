// The platform, with the library's console led into a log file: its lines, those of its own log among
// them, are appended to one file, and with --verbose shown on a stream as well. The tool reports to the
// user itself.
//
// Every write opens the file and closes it again, as the library's log does: it is complete after
// each line and may be moved away at any time.
#pragma once

#include <functional>
#include <iosfwd>
#include <string>

#include "platform/platform.h"

namespace tavo::tool {

// The file of a log; an empty path: no log is kept.
struct LogFile {
  std::string path{};
  Links links = Links::Follow;
};

class LogPlatform final : public Platform {
 public:
  // `echo` may be null. `onLost` is called once, with the first line that could not be written to the
  // file.
  LogPlatform(
      Platform& machine, LogFile log, std::ostream* echo, std::function<void()> onLost = [] {});

  std::chrono::milliseconds MonotonicNow() override { return m_machine.MonotonicNow(); }
  std::uint32_t TickCount() override { return m_machine.TickCount(); }
  std::tm LocalTime() override { return m_machine.LocalTime(); }
  void Sleep(std::chrono::milliseconds duration) override { m_machine.Sleep(duration); }
  std::string ExecutablePath() override { return m_machine.ExecutablePath(); }

  void Print(std::string_view text) override;
  // The library's log file: the same lines come by Print.
  FileHandle OpenLog(const std::string& path, Links links) override;

  // Whether a line could not be written to the file.
  bool HasLost() const { return m_lost; }

 private:
  Platform& m_machine;
  LogFile m_log;
  std::ostream* m_echo;
  std::function<void()> m_onLost;
  bool m_lost = false;
};

// The text with '_' in place of the signs that a file name should not have.
std::string FileName(std::string text);

// Where the log goes when the user names no file: firmware-updater/DEVICE.log in
// $XDG_STATE_HOME, or in .local/state of $HOME; on Windows in %LOCALAPPDATA%.
// Makes the folders. Empty when they cannot be made, and when they belong to another user, as under
// `sudo -E`.
LogFile DefaultLog(const std::string& device);

}  // namespace tavo::tool
