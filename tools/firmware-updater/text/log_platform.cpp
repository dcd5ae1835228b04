#include "text/log_platform.h"

#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <system_error>
#include <utility>

namespace tavo::tool {
namespace {

constexpr const char* kNoFile = "/dev/null";

std::filesystem::path StateFolder() {
  if (const char* const state = std::getenv("XDG_STATE_HOME"); state != nullptr && *state != '\0') {
    return state;
  }
  const char* const home = std::getenv("HOME");
  if (home == nullptr || *home == '\0') return {};
  return std::filesystem::path(home) / ".local" / "state";
}

}  // namespace

LogPlatform::LogPlatform(Platform& machine, std::string path, std::ostream* echo)
    : m_machine(machine), m_path(std::move(path)), m_echo(echo) {}

void LogPlatform::Print(std::string_view text) {
  if (m_echo != nullptr) *m_echo << text << std::flush;
  if (m_path.empty()) return;
  const FileHandle file = m_machine.OpenFile(m_path, "a");
  const bool written = file &&
                       std::fwrite(text.data(), 1, text.size(), file.get()) == text.size() &&
                       std::fflush(file.get()) == 0;
  m_lost |= !written;
}

FileHandle LogPlatform::OpenFile(const std::string& /*path*/, const char* mode) {
  return m_machine.OpenFile(kNoFile, mode);
}

std::string DefaultLogPath() {
  const std::filesystem::path state = StateFolder();
  if (state.empty()) return {};
  const std::filesystem::path folder = state / "firmware-updater";
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  return error ? std::string() : (folder / "firmware-updater.log").string();
}

}  // namespace tavo::tool
