#include <windows.h>

#include "platform/utf16_windows.h"
#include "system/shared_file.h"

namespace tavo::tool {
namespace {

HANDLE AsHandle(std::intptr_t handle) { return reinterpret_cast<HANDLE>(handle); }

// Locks bind readers too, so that the locked byte is one that no file has.
OVERLAPPED FarBehindTheEnd() {
  OVERLAPPED position{};
  position.OffsetHigh = 0x7FFFFFFF;
  return position;
}

}  // namespace

SharedFile::SharedFile(const std::string& path) {
  constexpr DWORD kAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  // Without the right to write elsewhere, every write appends.
  constexpr DWORD kRights = GENERIC_READ | FILE_APPEND_DATA;
  m_handle =
      reinterpret_cast<std::intptr_t>(CreateFileW(SystemPath(path).c_str(), kRights, kAll, nullptr,
                                                  OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
}

SharedFile::~SharedFile() {
  if (AsHandle(m_handle) != INVALID_HANDLE_VALUE) CloseHandle(AsHandle(m_handle));
}

bool SharedFile::IsUsable() const {
  if (AsHandle(m_handle) == INVALID_HANDLE_VALUE) return false;
  const DWORD type = GetFileType(AsHandle(m_handle));
  return type == FILE_TYPE_DISK || type == FILE_TYPE_CHAR;
}

bool SharedFile::Lock() {
  OVERLAPPED position = FarBehindTheEnd();
  constexpr DWORD kAtOnce = LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY;
  return LockFileEx(AsHandle(m_handle), kAtOnce, 0, 1, 0, &position) != 0;
}

void SharedFile::Unlock() {
  OVERLAPPED position = FarBehindTheEnd();
  UnlockFileEx(AsHandle(m_handle), 0, 1, 0, &position);
}

bool SharedFile::EndsInMidLine() const {
  LARGE_INTEGER last{};
  if (GetFileSizeEx(AsHandle(m_handle), &last) == 0 || last.QuadPart-- == 0) return false;
  char byte = '\n';
  DWORD count = 0;
  return SetFilePointerEx(AsHandle(m_handle), last, nullptr, FILE_BEGIN) != 0 &&
         ReadFile(AsHandle(m_handle), &byte, 1, &count, nullptr) != 0 && count == 1 && byte != '\n';
}

bool SharedFile::Append(std::string_view text) {
  DWORD count = 0;
  const auto size = static_cast<DWORD>(text.size());
  return WriteFile(AsHandle(m_handle), text.data(), size, &count, nullptr) != 0 && count == size;
}

// A character device has no disk behind it.
bool SharedFile::Flush() {
  return FlushFileBuffers(AsHandle(m_handle)) != 0 ||
         GetFileType(AsHandle(m_handle)) == FILE_TYPE_CHAR;
}

}  // namespace tavo::tool
