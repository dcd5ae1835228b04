#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <algorithm>
#include <optional>

#include "platform/dynamic_library.h"
#include "platform/memory.h"
#include "platform/platform.h"
#include "platform/undying.h"
#include "platform/utf16_windows.h"

namespace tavo {
namespace {

using std::chrono::milliseconds;

// The longest path on Windows, in UTF-16 units.
constexpr DWORD kMaxPathLength = 32768;

// Nothing when the text is not valid in this code page.
std::optional<std::wstring> Widen(UINT codePage, DWORD flags, std::string_view text) {
  if (text.empty()) return std::wstring();
  const int size = static_cast<int>(text.size());
  const int needed = MultiByteToWideChar(codePage, flags, text.data(), size, nullptr, 0);
  if (needed <= 0) return std::nullopt;
  std::wstring wide(static_cast<std::size_t>(needed), L'\0');
  MultiByteToWideChar(codePage, flags, text.data(), size, wide.data(), needed);
  return wide;
}

}  // namespace

std::wstring WidenText(std::string_view text) {
  if (auto wide = Widen(CP_UTF8, MB_ERR_INVALID_CHARS, text)) return *wide;
  return Widen(CP_ACP, 0, text).value_or(std::wstring());
}

std::wstring SystemPath(std::string_view path) {
  std::wstring wide = WidenText(path);
  std::wstring full(kMaxPathLength, L'\0');
  full.resize(std::min(kMaxPathLength,
                       GetFullPathNameW(wide.c_str(), kMaxPathLength, full.data(), nullptr)));
  const bool extended = full.starts_with(LR"(\\?\)") || full.starts_with(LR"(\\.\)");
  if (full.size() < MAX_PATH || extended) return wide;
  return full.starts_with(LR"(\\)") ? LR"(\\?\UNC)" + full.substr(1) : LR"(\\?\)" + full;
}

std::string ToUtf8(std::wstring_view wide) {
  const int size = static_cast<int>(wide.size());
  const int needed =
      WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, nullptr, 0, nullptr, nullptr);
  if (needed <= 0) return {};
  std::string text(static_cast<std::size_t>(needed), '\0');
  WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, text.data(), needed, nullptr, nullptr);
  return text;
}

namespace {

// A console has its own code page, which would show other letters.
void PrintToConsole(HANDLE console, std::string_view text) {
  const std::wstring wide = WidenText(text);
  DWORD written = 0;
  WriteConsoleW(console, wide.data(), static_cast<DWORD>(wide.size()), &written, nullptr);
}

constexpr DWORD kSharing = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// A symbolic link, or something else that leads to bytes elsewhere.
bool IsReparsePoint(HANDLE handle) {
  BY_HANDLE_FILE_INFORMATION information{};
  return GetFileInformationByHandle(handle, &information) != 0 &&
         (information.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

// Takes ownership of the handle; null for an invalid one and for one that is not acceptable.
FileHandle AsFile(HANDLE handle, bool acceptable, int flags, const char* mode) {
  if (handle == INVALID_HANDLE_VALUE) return nullptr;
  const int descriptor =
      acceptable ? _open_osfhandle(reinterpret_cast<std::intptr_t>(handle), flags) : -1;
  if (descriptor < 0) {
    CloseHandle(handle);
    return nullptr;
  }
  FileHandle file(_fdopen(descriptor, mode));
  if (!file) _close(descriptor);
  return file;
}

class WindowsPlatform final : public Platform {
 public:
  milliseconds MonotonicNow() override {
    return std::chrono::duration_cast<milliseconds>(
        std::chrono::steady_clock::now().time_since_epoch());
  }

  std::uint32_t TickCount() override { return GetTickCount(); }

  std::tm LocalTime() override {
    SYSTEMTIME now;
    GetLocalTime(&now);
    std::tm local{};
    local.tm_year = now.wYear - 1900;
    local.tm_mon = now.wMonth - 1;
    local.tm_mday = now.wDay;
    local.tm_hour = now.wHour;
    local.tm_min = now.wMinute;
    local.tm_sec = now.wSecond;
    local.tm_wday = now.wDayOfWeek;
    return local;
  }

  void Sleep(milliseconds duration) override {
    // The largest number means "for ever".
    constexpr milliseconds::rep kLongest = INFINITE - 1;
    ::Sleep(static_cast<DWORD>(std::clamp<milliseconds::rep>(duration.count(), 0, kLongest)));
  }

  std::string ExecutablePath() override {
    std::wstring path(kMaxPathLength, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), kMaxPathLength));
    return ToUtf8(path);
  }

  // Uses the handle of the process: the stream of this library's C runtime is not the host's and does
  // not follow when the host redirects its output. A host without a console has no handle; then the
  // first write fails.
  void Print(std::string_view text) override {
    const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    if (GetConsoleMode(output, &mode)) return PrintToConsole(output, text);
    DWORD written = 0;
    for (; !text.empty(); text.remove_prefix(std::min<std::size_t>(written, text.size()))) {
      const BOOL done =
          WriteFile(output, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
      if (!done || written == 0) return;
    }
  }

  FileHandle OpenLog(const std::string& path, Links links) override {
    const bool refuseLinks = links == Links::Refuse;
    const HANDLE handle = CreateFileW(
        SystemPath(path).c_str(), GENERIC_WRITE, kSharing, nullptr, OPEN_ALWAYS,
        FILE_ATTRIBUTE_NORMAL | (refuseLinks ? FILE_FLAG_OPEN_REPARSE_POINT : 0), nullptr);
    const DWORD type = GetFileType(handle);
    const bool acceptable = (type == FILE_TYPE_DISK || type == FILE_TYPE_CHAR) &&
                            !(refuseLinks && IsReparsePoint(handle));
    return AsFile(handle, acceptable, _O_APPEND | _O_TEXT, "a");
  }
};

}  // namespace

Platform& SystemPlatform() {
  static Undying<WindowsPlatform> platform;
  return platform.object;
}

// Large pages are a privilege that has to be granted here.
void WillBeFilled(void* /*block*/, std::size_t /*bytes*/) {}

FileHandle OpenForReading(const std::string& path) {
  const HANDLE handle = CreateFileW(SystemPath(path).c_str(), GENERIC_READ, kSharing, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  // Folders do not open. Pipes and consoles do, but might make a reader wait.
  return AsFile(handle, GetFileType(handle) == FILE_TYPE_DISK, _O_RDONLY, "rb");
}

AnyFunction FindLibraryFunction(const char* library, const char* function) {
  // Searches the folder of the host and those of the system, never the working directory, where
  // anybody may have put a file of that name.
  const HMODULE module =
      LoadLibraryExW(WidenText(library).c_str(), nullptr, LOAD_LIBRARY_SEARCH_DEFAULT_DIRS);
  if (module == nullptr) return nullptr;
  return reinterpret_cast<AnyFunction>(GetProcAddress(module, function));
}

}  // namespace tavo
