#include "simulator/new_file.h"

#include <cstdio>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

namespace tavosim {
namespace {

namespace fs = std::filesystem;

std::string Reason(const std::error_code& error) {
  if (error == std::errc::too_many_symbolic_link_levels) return "it is a link";
  if (error == std::errc::invalid_argument) return "not a regular file";
  return error.message();
}

// Runs `action`; a failure gets a text for the user.
template <class Action>
auto Writing(const fs::path& path, const Action& action) try {
  return action();
} catch (const std::system_error& error) {
  throw std::runtime_error("cannot write " + path.string() + ": " + Reason(error.code()));
}

// Beside `path`, hidden, with its extension: ".firmware-1a2b3c4d.hex".
fs::path RandomName(const fs::path& path) {
  std::random_device random;
  char digits[20];
  std::snprintf(digits, sizeof digits, "-%08x%08x", random(), random());
  fs::path name(".");
  name += path.stem();
  name += digits;
  name += path.extension();
  return path.parent_path() / name;
}

}  // namespace

NewFile::NewFile(fs::path path, Existing existing)
    : m_path(std::move(path)), m_temporary(RandomName(m_path)), m_existing(existing) {
  std::error_code ignored;
  if (!fs::exists(fs::symlink_status(m_path, ignored))) m_existing = Existing::Keep;
  m_file = Writing(m_path, [this] { return OpenFile::Create(m_temporary); });
}

NewFile::NewFile(NewFile&& other) noexcept
    : m_path(other.m_path),
      m_temporary(std::exchange(other.m_temporary, {})),
      m_existing(other.m_existing),
      m_file(std::move(other.m_file)) {}

NewFile::~NewFile() {
  if (m_temporary.empty()) return;
  m_file = {};
  std::error_code ignored;
  fs::remove(m_temporary, ignored);
}

void NewFile::Write(std::string_view bytes) {
  Writing(m_path, [&] { m_file.Write(bytes); });
}

void NewFile::Name() {
  m_file = {};
  Writing(m_path, [this] { Rename(m_temporary, m_path, m_existing); });
  m_temporary.clear();
}

GrowingFile::GrowingFile(fs::path path)
    : m_path(std::move(path)),
      m_file(Writing(m_path, [this] { return OpenFile::ToAppend(m_path); })) {}

void GrowingFile::Append(std::string_view bytes) const {
  Writing(m_path, [&] { m_file.Write(bytes); });
}

}  // namespace tavosim
