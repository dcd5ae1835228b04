#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <system_error>

#include "simulator/open_file.h"

namespace tavosim {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void Fail(int error) { throw std::system_error(error, std::generic_category()); }

[[noreturn]] void FailAsTheSystemSays() {
  switch (GetLastError()) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_INVALID_NAME: Fail(ENOENT);
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS: Fail(EEXIST);
    case ERROR_ACCESS_DENIED:
    case ERROR_WRITE_PROTECT: Fail(EACCES);
    case ERROR_SHARING_VIOLATION: Fail(EBUSY);
    case ERROR_DISK_FULL: Fail(ENOSPC);
    default: Fail(EIO);
  }
}

// The extended form of a long path, which alone opens on every machine.
std::wstring SystemPath(const fs::path& path) {
  const std::wstring full = fs::absolute(path).make_preferred().wstring();
  if (full.size() < MAX_PATH || full.starts_with(LR"(\\?\)")) return full;
  return full.starts_with(LR"(\\)") ? LR"(\\?\UNC)" + full.substr(1) : LR"(\\?\)" + full;
}

// A link opens itself, instead of the file to which it leads. Others may read and rename meanwhile.
HANDLE Open(const fs::path& path, DWORD access, DWORD disposition) {
  const HANDLE handle = CreateFileW(
      SystemPath(path).c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
      nullptr, disposition, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
  if (handle == INVALID_HANDLE_VALUE) FailAsTheSystemSays();
  return handle;
}

int DescriptorOf(HANDLE handle) {
  return _open_osfhandle(reinterpret_cast<std::intptr_t>(handle), _O_NOINHERIT);
}

// 0, or the reason why not.
int WhyNotRegular(HANDLE handle) {
  BY_HANDLE_FILE_INFORMATION information{};
  if (GetFileType(handle) != FILE_TYPE_DISK || !GetFileInformationByHandle(handle, &information))
    return EINVAL;
  return (information.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 ? ELOOP : 0;
}

}  // namespace

OpenFile OpenFile::Create(const fs::path& path) {
  return OpenFile(DescriptorOf(Open(path, GENERIC_WRITE, CREATE_NEW)));
}

OpenFile OpenFile::ToAppend(const fs::path& path) {
  const HANDLE handle = Open(path, FILE_APPEND_DATA, OPEN_ALWAYS);
  OpenFile file(DescriptorOf(handle));
  if (const int why = WhyNotRegular(handle)) Fail(why);
  return file;
}

OpenFile::~OpenFile() {
  if (m_descriptor >= 0) _close(m_descriptor);
}

void OpenFile::Write(std::string_view bytes) const {
  constexpr std::size_t kMost = 1U << 30;
  while (!bytes.empty()) {
    const auto size = static_cast<unsigned>(std::min(bytes.size(), kMost));
    const int written = _write(m_descriptor, bytes.data(), size);
    if (written <= 0) Fail(errno);
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}

void Rename(const fs::path& from, const fs::path& to, Existing existing) {
  constexpr DWORD kPauseMs = 20;
  const DWORD flags = existing == Existing::Replace ? MOVEFILE_REPLACE_EXISTING : 0;
  const std::wstring source = SystemPath(from);
  const std::wstring target = SystemPath(to);
  // A reader, or a virus scanner, may have the old or the new file open for a moment.
  for (int triesLeft = 50; !MoveFileExW(source.c_str(), target.c_str(), flags); --triesLeft) {
    const DWORD error = GetLastError();
    const bool passes = error == ERROR_SHARING_VIOLATION || error == ERROR_ACCESS_DENIED;
    if (!passes || triesLeft == 0) FailAsTheSystemSays();
    Sleep(kPauseMs);
  }
}

}  // namespace tavosim
