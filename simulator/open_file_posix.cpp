#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "simulator/open_file.h"

namespace tavosim {
namespace {

namespace fs = std::filesystem;

constexpr int kAlways = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC;
constexpr mode_t kMode = 0666;  // less the umask

[[noreturn]] void Fail(int error) { throw std::system_error(error, std::generic_category()); }

int Open(const fs::path& path, int flags) {
  const int descriptor = open(path.c_str(), kAlways | flags, kMode);
  if (descriptor < 0) Fail(errno);
  return descriptor;
}

// Some file systems cannot rename without replacing, some have no hard links.
bool RenameToFreeName(const fs::path& from, const fs::path& to) {
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL || link(from.c_str(), to.c_str()) != 0) return false;
  unlink(from.c_str());
  return true;
}

}  // namespace

OpenFile OpenFile::Create(const fs::path& path) { return OpenFile(Open(path, O_EXCL)); }

OpenFile OpenFile::ToAppend(const fs::path& path) {
  // Without O_NONBLOCK a FIFO would block here until it has a reader.
  OpenFile file(Open(path, O_APPEND | O_NONBLOCK));
  struct stat status {};
  if (fstat(file.m_descriptor, &status) != 0) Fail(errno);
  if (!S_ISREG(status.st_mode)) Fail(EINVAL);
  return file;
}

OpenFile::~OpenFile() {
  if (m_descriptor >= 0) close(m_descriptor);
}

void OpenFile::Write(std::string_view bytes) const {
  while (!bytes.empty()) {
    const ssize_t written = write(m_descriptor, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) Fail(errno);
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}

void Rename(const fs::path& from, const fs::path& to, Existing existing) {
  const bool done = existing == Existing::Keep ? RenameToFreeName(from, to)
                                               : rename(from.c_str(), to.c_str()) == 0;
  if (!done) Fail(errno);
}

}  // namespace tavosim
