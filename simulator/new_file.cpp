#include "simulator/new_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

namespace tavosim {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kMode = 0666;  // less the umask
constexpr int kTries = 10;      // of random names; one is enough but for chance

[[noreturn]] void Fail(const fs::path& path, const std::string& why) {
  throw std::runtime_error("cannot write " + path.string() + ": " + why);
}

std::string Reason(int error) { return std::generic_category().message(error); }

// Beside `path`, hidden, with its extension: ".firmware-1a2b3c4d.hex".
fs::path RandomName(const fs::path& path) {
  std::random_device random;
  char digits[20];
  std::snprintf(digits, sizeof digits, "%08x%08x", random(), random());
  return path.parent_path() /
         ("." + path.stem().string() + "-" + digits + path.extension().string());
}

// Some file systems cannot rename without replacing, some have no hard links.
int RenameToFreeName(const fs::path& from, const fs::path& to) {
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL) return errno;
  if (link(from.c_str(), to.c_str()) != 0) return errno;
  unlink(from.c_str());
  return 0;
}

}  // namespace

NewFile::NewFile(fs::path path, Existing existing) : m_path(std::move(path)) {
  std::error_code ignored;
  m_replaces = existing == Existing::Replace && fs::exists(fs::symlink_status(m_path, ignored));
  for (int i = 0; i < kTries && !m_file; ++i) {
    m_temporary = RandomName(m_path);
    m_file = usbip::Socket(
        open(m_temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMode));
    if (!m_file && errno != EEXIST) break;
  }
  if (!m_file) Fail(m_path, Reason(errno));
}

NewFile::NewFile(NewFile&& other) noexcept
    : m_path(other.m_path),
      m_temporary(std::exchange(other.m_temporary, {})),
      m_replaces(other.m_replaces),
      m_file(std::move(other.m_file)) {}

NewFile::~NewFile() {
  if (!m_temporary.empty()) unlink(m_temporary.c_str());
}

void NewFile::Write(std::string_view bytes) { WriteAll(m_file, bytes, m_path); }

void NewFile::Name() {
  int error = 0;
  if (!m_replaces) {
    error = RenameToFreeName(m_temporary, m_path);
  } else if (rename(m_temporary.c_str(), m_path.c_str()) != 0) {
    error = errno;
  }
  if (error == EEXIST) Fail(m_path, "a file of this name exists now");
  if (error != 0) Fail(m_path, Reason(error));
  m_temporary.clear();
}

usbip::Socket OpenToAppend(const fs::path& path) {
  // Without O_NONBLOCK a FIFO would block here until it has a reader.
  usbip::Socket file(open(
      path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kMode));
  if (!file) Fail(path, errno == ELOOP ? "it is a link" : Reason(errno));
  struct stat status {};
  if (fstat(file.Fd(), &status) != 0 || !S_ISREG(status.st_mode)) Fail(path, "not a regular file");
  return file;
}

void WriteAll(const usbip::Socket& file, std::string_view bytes, const fs::path& path) {
  while (!bytes.empty()) {
    const ssize_t written = write(file.Fd(), bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) Fail(path, Reason(errno));
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace tavosim
