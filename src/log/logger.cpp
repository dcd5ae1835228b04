#include "log/logger.h"

#include <array>
#include <cassert>
#include <cstdio>

namespace tavo {
namespace {

constexpr const char* kLogFileName = "FirmwareUpdater.log";
constexpr std::size_t kMaxMessageLength = 299;

constexpr std::array<const char*, 4> kLevelTags{"DBG ", "INFO", "WARN", "CRIT"};
constexpr const char* kUnknownLevelTag = "----";

const char* Tag(LogLevel level) {
  const auto index = static_cast<std::size_t>(level);
  return index < kLevelTags.size() ? kLevelTags[index] : kUnknownLevelTag;
}

std::string Timestamp(const std::tm& time) {
  std::array<char, 80> text{};
  std::snprintf(text.data(), text.size(), "%.4d.%.2d.%.2d - %.2d:%.2d:%.2d", time.tm_year + 1900,
                time.tm_mon + 1, time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec);
  return text.data();
}

}  // namespace

#define TAVO_FORWARD_LOG(level)    \
  std::va_list arguments;          \
  va_start(arguments, format);     \
  Write(level, format, arguments); \
  va_end(arguments)

void Logger::LogDebug(const char* format, ...) { TAVO_FORWARD_LOG(LogLevel::Debug); }
void Logger::LogInfo(const char* format, ...) { TAVO_FORWARD_LOG(LogLevel::Info); }
void Logger::LogWarn(const char* format, ...) { TAVO_FORWARD_LOG(LogLevel::Warn); }
void Logger::LogCrit(const char* format, ...) { TAVO_FORWARD_LOG(LogLevel::Crit); }

#undef TAVO_FORWARD_LOG

void Logger::Write(LogLevel level, const char* format, std::va_list arguments) noexcept {
  assert(format != nullptr);
  std::array<char, kMaxMessageLength + 1> message{};
  std::vsnprintf(message.data(), message.size(), format, arguments);
  try {
    WriteLine(level, message.data());
  } catch (...) {
    // Out of memory: better an update without this line than one that ends here.
  }
}

void Logger::WriteLine(LogLevel level, const char* message) {
  const std::string path = LogFilePath(kLogFileName);
  // The time is read under the lock too, so that the times in the file never run backwards.
  const std::lock_guard lock(m_lock);
  const std::string line =
      Timestamp(m_platform.LocalTime()) + " " + Tag(level) + " " + message + "\n";
  const FileHandle file = m_platform.OpenLog(path, Links::Refuse);
  if (!file) m_platform.Print("Error during open log file \"" + path + "\"\n");
  m_platform.Print(line);
  if (file) std::fwrite(line.data(), 1, line.size(), file.get());
}

std::string Logger::LogFilePath(const std::string& name) {
  if (name.find('\\') != std::string::npos) return name;
  const std::string executable = m_platform.ExecutablePath();
  const std::size_t separator = executable.find_last_of("\\/");
  return executable.substr(0, separator == std::string::npos ? 0 : separator + 1) + name;
}

}  // namespace tavo
