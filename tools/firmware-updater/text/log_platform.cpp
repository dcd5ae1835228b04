#include "text/log_platform.h"

#include <algorithm>
#include <filesystem>
#include <ostream>
#include <string_view>
#include <system_error>
#include <utility>

#include "system/system.h"

namespace tavo::tool {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLongestName = 100;
constexpr std::string_view kNameSigns =
    "-.0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

fs::path NearestExisting(fs::path folder) {
  std::error_code ignored;
  while (!fs::exists(folder, ignored) && folder.has_relative_path()) folder = folder.parent_path();
  return folder;
}

}  // namespace

LogPlatform::LogPlatform(Platform& machine, LogFile log, std::ostream* echo,
                         std::function<void()> onLost)
    : m_machine(machine), m_log(std::move(log)), m_echo(echo), m_onLost(std::move(onLost)) {}

void LogPlatform::Print(std::string_view text) {
  if (m_echo != nullptr) *m_echo << text << std::flush;
  if (m_log.path.empty()) return;
  const FileHandle file = m_machine.OpenLog(m_log.path, m_log.links);
  const bool written = file &&
                       std::fwrite(text.data(), 1, text.size(), file.get()) == text.size() &&
                       std::fflush(file.get()) == 0;
  if (!written && !std::exchange(m_lost, true)) m_onLost();
}

FileHandle LogPlatform::OpenLog(const std::string& /*path*/, Links links) {
  return m_machine.OpenLog(kNullFile, links);
}

std::string FileName(std::string text) {
  text.resize(std::min(text.size(), kLongestName));
  std::ranges::replace_if(
      text, [](char c) { return kNameSigns.find(c) == kNameSigns.npos; }, '_');
  return text;
}

LogFile DefaultLog(const std::string& device) {
  const fs::path state = StateFolder();
  if (!IsOurs(NearestExisting(state))) return {};
  const fs::path folder = state / "firmware-updater";
  std::error_code error;
  fs::create_directories(folder, error);
  if (error || !IsOurs(folder)) return {};
  return {TextOf(folder / (FileName(device) + ".log")), Links::Refuse};
}

}  // namespace tavo::tool
