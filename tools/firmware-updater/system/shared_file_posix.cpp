#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "system/shared_file.h"

namespace tavo::tool {
namespace {

int AsDescriptor(std::intptr_t handle) { return static_cast<int>(handle); }

}  // namespace

SharedFile::SharedFile(const std::string& path) {
  constexpr int kFlags = O_RDWR | O_APPEND | O_CREAT | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
  constexpr mode_t kAsUmaskAllows = 0666;
  m_handle = open(path.c_str(), kFlags, kAsUmaskAllows);
}

SharedFile::~SharedFile() {
  if (m_handle >= 0) close(AsDescriptor(m_handle));
}

bool SharedFile::IsUsable() const {
  struct stat status {};
  return m_handle >= 0 && fstat(AsDescriptor(m_handle), &status) == 0 &&
         (S_ISREG(status.st_mode) || S_ISCHR(status.st_mode));
}

bool SharedFile::Lock() { return flock(AsDescriptor(m_handle), LOCK_EX | LOCK_NB) == 0; }

void SharedFile::Unlock() { flock(AsDescriptor(m_handle), LOCK_UN); }

bool SharedFile::EndsInMidLine() const {
  const off_t size = lseek(AsDescriptor(m_handle), 0, SEEK_END);
  char last = '\n';
  return size > 0 && pread(AsDescriptor(m_handle), &last, 1, size - 1) == 1 && last != '\n';
}

bool SharedFile::Append(std::string_view text) {
  const ssize_t written = write(AsDescriptor(m_handle), text.data(), text.size());
  return written == static_cast<ssize_t>(text.size());
}

// A character device has no disk behind it.
bool SharedFile::Flush() { return fsync(AsDescriptor(m_handle)) == 0 || errno == EINVAL; }

}  // namespace tavo::tool
