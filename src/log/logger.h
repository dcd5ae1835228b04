// The log sink of all parts of the library. Each call writes one line, with local time and level, to
// the console and appends it to a file beside the host's executable.
//
// The file is opened and closed for every line: it is complete on disk after each call, and it may be
// moved away at any time. Nothing ever truncates it.
//
// Thread rules: any thread may log at any time; one lock inside keeps lines whole and in order.
#pragma once

#include <cstdarg>
#include <mutex>
#include <string>

#include "log/printf_like.h"
#include "platform/platform.h"

namespace tavo {

enum class LogLevel : int { Debug = 0, Info = 1, Warn = 2, Crit = 3 };

class Logger {
 public:
  // `platform` must outlive the logger.
  explicit Logger(Platform& platform) : m_platform(platform) {}
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  // Formats like printf and writes one line; a message is cut to 299 characters. Never throws and
  // reports no failure: a line that cannot be written is lost.
  void LogDebug(const char* format, ...) TAVO_PRINTF_LIKE(2, 3);
  void LogInfo(const char* format, ...) TAVO_PRINTF_LIKE(2, 3);
  void LogWarn(const char* format, ...) TAVO_PRINTF_LIKE(2, 3);
  void LogCrit(const char* format, ...) TAVO_PRINTF_LIKE(2, 3);

  // The path of a log file with this name, in the folder of the host's executable. A name that
  // contains a backslash is a path already and is returned unchanged.
  std::string LogFilePath(const std::string& name);

  // Writes the line; a level outside the enumeration is tagged "----".
  void Write(LogLevel level, const char* format, std::va_list arguments) noexcept;

 private:
  void WriteLine(LogLevel level, const char* message);

  Platform& m_platform;
  std::mutex m_lock;
};

}  // namespace tavo
