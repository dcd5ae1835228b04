#include "simulator/state_directory.h"

#include <array>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace tavosim {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

constexpr const char* kFlashFile = "flash.bin";
constexpr const char* kStateFile = "state.json";
constexpr const char* kJournalFile = "journal.txt";

// A larger file was not written here and is not read into memory.
constexpr std::uintmax_t kLargestFile = 16 * 1024 * 1024;

[[noreturn]] void Fail(const fs::path& file, const std::string& what) {
  throw std::runtime_error(file.string() + ": " + what);
}

std::string Read(const fs::path& file) {
  std::error_code error;
  const auto size = fs::file_size(file, error);
  if (error || size > kLargestFile)
    Fail(file, "cannot be read; delete the directory to start with a fresh device");
  std::string content(size, 0);
  std::ifstream(file, std::ios::binary)
      .read(content.data(), static_cast<std::streamsize>(content.size()));
  return content;
}

void Replace(const fs::path& path, std::string_view content) {
  NewFile file(path, Existing::Replace);
  file.Write(content);
  file.Name();
}

json ToJson(const Device& device, const Snapshot& snapshot) {
  const bool bootloader = snapshot.state == DeviceState::Bootloader;
  json state{{"family", device.Options().family.name},
             {"state", bootloader ? "bootloader" : "application"},
             {"intact", device.ApplicationFlash().Intact()},
             {"label", nullptr},
             {"tunnel", nullptr}};
  if (snapshot.label) state["label"] = *snapshot.label;
  if (snapshot.tunnel != 0)
    state["tunnel"] = {{"master", snapshot.tunnel >> 8}, {"slave", snapshot.tunnel & 0xFF}};
  return state;
}

// Throws json::exception when something is missing or has the wrong type.
Snapshot FromJson(const json& state) {
  Snapshot snapshot;
  const bool bootloader = state.at("state").get<std::string>() == "bootloader";
  snapshot.state = bootloader ? DeviceState::Bootloader : DeviceState::Application;
  if (!state.at("label").is_null()) snapshot.label = state.at("label").get<std::uint8_t>();
  const json& tunnel = state.at("tunnel");
  if (!tunnel.is_null())
    snapshot.tunnel = static_cast<std::uint16_t>(tunnel.at("master").get<std::uint8_t>() * 256 +
                                                 tunnel.at("slave").get<std::uint8_t>());
  return snapshot;
}

bool Same(const Snapshot& one, const Snapshot& other) {
  return one.state == other.state && one.label == other.label && one.tunnel == other.tunnel &&
         one.flash == other.flash;
}

std::string Line(const Exchange& exchange) {
  std::array<char, 64> head{};
  const double seconds = std::chrono::duration<double>(exchange.at).count();
  std::snprintf(head.data(), head.size(), "%10.6f  %5u  ", seconds, exchange.number);
  return head.data() + Describe(exchange) + (exchange.answered ? "" : "  (no answer)");
}

}  // namespace

StateDirectory::StateDirectory(fs::path directory, Device& device)
    : m_directory(std::move(directory)), m_device(device) {
  std::error_code error;
  fs::create_directories(m_directory, error);
  if (error) Fail(m_directory, "cannot be created; choose another --state");
  if (fs::exists(m_directory / kStateFile)) Restore();
  Save(m_device.Save());
  m_journal.emplace(m_directory / kJournalFile);
  m_journal->Append("   seconds   number  request\n");
}

void StateDirectory::Restore() {
  const fs::path file = m_directory / kStateFile;
  try {
    const json state = json::parse(Read(file));
    const std::string family = state.at("family").get<std::string>();
    if (family != m_device.Options().family.name)
      Fail(file, "belongs to a device of the family \"" + family +
                     "\"; choose another --state, or --family " + family);
    Snapshot snapshot = FromJson(state);
    const std::string flash = Read(m_directory / kFlashFile);
    snapshot.flash.assign(flash.begin(), flash.end());
    if (!m_device.Restore(snapshot))
      Fail(m_directory / kFlashFile,
           "has another size than the flash; delete the directory to start with a fresh device");
  } catch (const json::exception& error) {
    Fail(file, std::string("is damaged; delete the directory to start with a fresh device (") +
                   error.what() + ")");
  }
}

void StateDirectory::Update(SimTime now) {
  const DeviceState state = m_device.State(now);
  if (m_device.Journal().empty() && state == m_lastState) return;
  m_lastState = state;
  const Snapshot snapshot = m_device.Save();
  if (!Same(snapshot, m_saved)) Save(snapshot);
  // The journal comes last, so a reader that waits for a line in it finds the files up to date.
  std::string lines;
  for (const Exchange& exchange : m_device.Journal()) lines += Line(exchange) + '\n';
  m_device.ClearJournal();
  m_journal->Append(lines);
}

void StateDirectory::Save(const Snapshot& snapshot) {
  const std::string flash(snapshot.flash.begin(), snapshot.flash.end());
  Replace(m_directory / kFlashFile, flash);
  Replace(m_directory / kStateFile, ToJson(m_device, snapshot).dump(2) + "\n");
  m_saved = snapshot;
}

}  // namespace tavosim
