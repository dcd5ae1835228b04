#include <winsock2.h>
// After it:
#include <windows.h>
// After that:
#include <bcrypt.h>
#include <cfgmgr32.h>
#include <fcntl.h>
#include <io.h>
#include <sddl.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <future>
#include <iostream>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <sstream>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/platform.h"
#include "platform/undying.h"
#include "platform/utf16_windows.h"
#include "system/interrupts.h"
#include "system/lines.h"
#include "system/process.h"
#include "system/system.h"

namespace tavo::tool {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void ThrowLastError(const std::string& what) {
  throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), what);
}

bool IsConsole(HANDLE stream) {
  DWORD mode = 0;
  return GetConsoleMode(stream, &mode) != 0;
}

void Write(HANDLE stream, std::string_view text) {
  DWORD written = 0;
  if (IsConsole(stream)) {
    const std::wstring wide = WidenText(text);
    WriteConsoleW(stream, wide.data(), static_cast<DWORD>(wide.size()), &written, nullptr);
  } else {
    WriteFile(stream, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
  }
}

// A console takes UTF-16, whatever its code page.
class ConsoleBuffer final : public std::stringbuf {
 public:
  explicit ConsoleBuffer(HANDLE console) : m_console(console) {}

  int sync() override {
    Write(m_console, view());
    str({});
    return 0;
  }

 private:
  const HANDLE m_console;
};

// Elsewhere line ends stay as they are on other systems too.
void Prepare(DWORD number, std::FILE* file, std::ostream& stream) {
  const HANDLE handle = GetStdHandle(number);
  if (IsConsole(handle)) {
    stream.rdbuf(new ConsoleBuffer(handle));  // for ever: the stream is flushed last of all
  } else {
    _setmode(_fileno(file), _O_BINARY);
  }
}

// The runtime's own parser of the command line; "main" would get it in the code page, with patterns
// replaced by names of files.
extern "C" int __cdecl __wgetmainargs(int* count, wchar_t*** words, wchar_t*** environment,
                                      int patterns, int* newMode);

}  // namespace

void PrepareStreams() {
  Prepare(STD_OUTPUT_HANDLE, stdout, std::cout);
  Prepare(STD_ERROR_HANDLE, stderr, std::cerr);
}

std::vector<std::string> CommandLineWords(int /*argc*/, const char* const* /*argv*/) {
  int count = 0;
  wchar_t** words = nullptr;
  wchar_t** environment = nullptr;
  int newMode = 0;
  __wgetmainargs(&count, &words, &environment, 0, &newMode);
  std::vector<std::string> arguments;
  for (int i = 0; i < count; ++i) arguments.push_back(ToUtf8(words[i]));
  return arguments;
}

std::string Environment(const char* name) {
  const std::wstring wideName = WidenText(name);
  std::wstring value(GetEnvironmentVariableW(wideName.c_str(), nullptr, 0), L'\0');
  value.resize(
      GetEnvironmentVariableW(wideName.c_str(), value.data(), static_cast<DWORD>(value.size())));
  return ToUtf8(value);
}

// Here nothing else happens to a program either.
void SurviveLostOutput() {}

bool IsTerminal() {
  const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
  DWORD mode = 0;
  return GetConsoleMode(output, &mode) != 0 &&
         SetConsoleMode(output, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

TerminalSize SizeOfTerminal() {
  CONSOLE_SCREEN_BUFFER_INFO information{};
  const bool known = GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &information) != 0;
  const SMALL_RECT& window = information.srWindow;
  return known ? TerminalSize{window.Right - window.Left + 1, window.Bottom - window.Top + 1}
               : TerminalSize{};
}

// A pipe does not report whether it has room. But each interrupt has a thread of its own, so one that
// waits for a reader does not hold up the next.
bool OutputTakesText() { return true; }

void SayLast(std::string_view text) {
  constexpr std::chrono::milliseconds kPatience{200};
  std::promise<void> written;
  const std::future<void> done = written.get_future();
  std::thread([text = std::string(text), written = std::move(written)]() mutable {
    Write(GetStdHandle(STD_ERROR_HANDLE), text);
    written.set_value();
  }).detach();
  done.wait_for(kPatience);
}

fs::path PathOf(const std::string& text) { return SystemPath(text); }

std::string TextOf(const fs::path& path) {
  constexpr std::wstring_view kLong = LR"(\\?\)";
  constexpr std::wstring_view kLongNetwork = LR"(\\?\UNC)";
  const std::wstring text = path.wstring();
  if (text.starts_with(kLongNetwork)) return "\\" + ToUtf8(text.substr(kLongNetwork.size()));
  return ToUtf8(text.starts_with(kLong) ? text.substr(kLong.size()) : text);
}

fs::path StateFolder() { return PathOf(Environment("LOCALAPPDATA")); }

// The folder for logs is the user's own by its place.
std::optional<Access> AccessTo(const fs::path& /*file*/) { return std::nullopt; }

bool IsOurs(const fs::path& folder) {
  std::error_code ignored;
  return fs::is_directory(folder, ignored);
}

// Full access for its owner and administrators, on it and on all that will be in it; nothing is inherited
// from above.
void MakePrivateFolder(const fs::path& folder) {
  constexpr const wchar_t* kOwnerAlone = L"D:P(A;OICI;FA;;;OW)(A;OICI;FA;;;BA)";
  SECURITY_ATTRIBUTES attributes{sizeof attributes, nullptr, FALSE};
  const bool made = ConvertStringSecurityDescriptorToSecurityDescriptorW(
                        kOwnerAlone, SDDL_REVISION_1, &attributes.lpSecurityDescriptor, nullptr) &&
                    CreateDirectoryW(folder.c_str(), &attributes);
  if (!made) ThrowLastError(TextOf(folder));
  LocalFree(attributes.lpSecurityDescriptor);
}

// Opens nothing: an open file cannot be replaced by another one.
std::optional<FileVersion> VersionOf(const std::string& path) {
  WIN32_FILE_ATTRIBUTE_DATA data{};
  if (GetFileAttributesExW(PathOf(path).c_str(), GetFileExInfoStandard, &data) == 0) return {};
  if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return {};
  const auto whole = [](DWORD high, DWORD low) { return std::uint64_t{high} << 32 | low; };
  const FILETIME& written = data.ftLastWriteTime;
  const FILETIME& created = data.ftCreationTime;
  return FileVersion{.size = whole(data.nFileSizeHigh, data.nFileSizeLow),
                     .time = whole(written.dwHighDateTime, written.dwLowDateTime),
                     .identity = whole(created.dwHighDateTime, created.dwLowDateTime)};
}

std::string UsbDrivers(std::uint16_t vendor, std::uint16_t product) {
  constexpr ULONG kPresentUsb = CM_GETIDLIST_FILTER_ENUMERATOR | CM_GETIDLIST_FILTER_PRESENT;
  constexpr std::wstring_view kDivider = L"usbccgp";  // only divides a device into its interfaces
  ULONG size = 0;
  if (CM_Get_Device_ID_List_SizeW(&size, L"USB", kPresentUsb) != CR_SUCCESS) return {};
  std::wstring ids(size, L'\0');
  if (CM_Get_Device_ID_ListW(L"USB", ids.data(), size, kPresentUsb) != CR_SUCCESS) return {};
  std::array<wchar_t, 32> wanted{};
  std::swprintf(wanted.data(), wanted.size(), L"USB\\VID_%04X&PID_%04X", unsigned{vendor},
                unsigned{product});
  std::set<std::string> drivers;
  for (const wchar_t* id = ids.c_str(); *id != L'\0'; id += std::wcslen(id) + 1) {
    std::array<wchar_t, 64> driver{};
    auto bytes = static_cast<ULONG>(sizeof driver);
    DEVINST device = 0;
    const bool known = _wcsnicmp(id, wanted.data(), std::wcslen(wanted.data())) == 0 &&
                       CM_Locate_DevNodeW(&device, const_cast<wchar_t*>(id),
                                          CM_LOCATE_DEVNODE_NORMAL) == CR_SUCCESS &&
                       CM_Get_DevNode_Registry_PropertyW(device, CM_DRP_SERVICE, nullptr,
                                                         driver.data(), &bytes, 0) == CR_SUCCESS;
    if (known && driver.data() != kDivider) drivers.insert(ToUtf8(driver.data()));
  }
  std::string names;
  for (const std::string& driver : drivers) names += (names.empty() ? "" : ", ") + driver;
  return names;
}

std::string HostName() {
  std::array<wchar_t, 256> name{};
  auto size = static_cast<DWORD>(name.size());
  const bool known = GetComputerNameExW(ComputerNameDnsHostname, name.data(), &size) != 0;
  return known ? ToUtf8({name.data(), size}) : "";
}

void KeepPortAlone(std::uintptr_t socket) {
  const int yes = 1;
  if (setsockopt(socket, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&yes),
                 sizeof yes) != 0) {
    ThrowLastError("a port");
  }
}

std::optional<Sha256Digest> Sha256Of(std::span<const std::uint8_t> bytes) {
  BCRYPT_ALG_HANDLE algorithm = nullptr;
  if (BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_SHA256_ALGORITHM, nullptr, 0) != 0) return {};
  BCRYPT_HASH_HANDLE hash = nullptr;
  Sha256Digest digest{};
  // The interface takes mutable bytes but does not change them.
  auto* const data = const_cast<std::uint8_t*>(bytes.data());
  const bool done = BCryptCreateHash(algorithm, &hash, nullptr, 0, nullptr, 0, 0) == 0 &&
                    BCryptHashData(hash, data, static_cast<ULONG>(bytes.size()), 0) == 0 &&
                    BCryptFinishHash(hash, digest.data(), digest.size(), 0) == 0;
  if (hash != nullptr) BCryptDestroyHash(hash);
  BCryptCloseAlgorithmProvider(algorithm, 0);
  return done ? std::optional(digest) : std::nullopt;
}

// --- interrupts ---

struct Interrupts::Listener {
  std::function<void(int number)> onInterrupt;
  std::atomic<int> number = 0;
};

namespace {

// The one that lives now, for the system's threads that bring events. They share the lock, as one may be
// held up while it tells the user.
struct Current {
  std::shared_mutex lock{};
  std::function<void()> interrupt{};
};
Undying<Current> g_current;

BOOL WINAPI OnConsoleEvent(DWORD event) {
  {
    const std::shared_lock lock(g_current.object.lock);
    if (g_current.object.interrupt) g_current.object.interrupt();
  }
  // After any other event, the system ends the program when this function returns, and soon in any case.
  constexpr DWORD kLongestEndMs = 30'000;
  if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) Sleep(kLongestEndMs);
  return TRUE;
}

void LeadInterruptsTo(std::function<void()> interrupt) {
  const std::unique_lock lock(g_current.object.lock);
  g_current.object.interrupt = std::move(interrupt);
}

// Counts the requests to stop of a process that runs in the background. A console event would take a
// console, and would end a process that does not expect it yet.
std::wstring NameOfStops(DWORD process) {
  return L"Local\\firmware-updater-stop-" + std::to_wstring(process);
}

// Each request gets a thread of its own, as from the console.
bool ListenToParent() {
  const HANDLE stops =
      OpenSemaphoreW(SYNCHRONIZE, FALSE, NameOfStops(GetCurrentProcessId()).c_str());
  if (stops == nullptr) return false;
  std::thread([stops] {
    while (WaitForSingleObject(stops, INFINITE) == WAIT_OBJECT_0) {
      std::thread(OnConsoleEvent, CTRL_BREAK_EVENT).detach();
    }
  }).detach();
  return true;
}

}  // namespace

Interrupts::Interrupts(std::function<void(int number)> onInterrupt)
    : m_listener(std::make_unique<Listener>(std::move(onInterrupt))) {
  [[maybe_unused]] static const bool hasParent = ListenToParent();
  LeadInterruptsTo([this] { m_listener->onInterrupt(++m_listener->number); });
  SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
}

Interrupts::~Interrupts() { LeadInterruptsTo({}); }

void Interrupts::Bring(bool ctrlC) {
  std::thread([ctrlC] { OnConsoleEvent(ctrlC ? CTRL_C_EVENT : CTRL_BREAK_EVENT); }).join();
}

// --- processes ---

namespace {

using Words = Process::Words;

class Handle {
 public:
  explicit Handle(HANDLE handle = nullptr) : m_handle(handle) {}
  Handle(Handle&& from) noexcept : m_handle(std::exchange(from.m_handle, nullptr)) {}
  Handle& operator=(Handle&& from) noexcept {
    std::swap(m_handle, from.m_handle);
    return *this;
  }
  ~Handle() {
    if (m_handle != nullptr) CloseHandle(m_handle);
  }
  HANDLE operator*() const { return m_handle; }

 private:
  HANDLE m_handle;
};

// Its writing end can be inherited, by a child that is given it.
struct Pipe {
  Pipe() {
    HANDLE reader = nullptr;
    HANDLE writer = nullptr;
    if (CreatePipe(&reader, &writer, nullptr, 0) == 0) ThrowLastError("a pipe");
    read = Handle(reader);
    write = Handle(writer);
    SetHandleInformation(writer, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
  }
  Handle read;
  Handle write;
};

// So that the usual parser makes the same word of it.
std::wstring Quoted(const std::wstring& word) {
  if (!word.empty() && word.find_first_of(L" \t\n\v\"") == std::wstring::npos) return word;
  std::wstring quoted = L"\"";
  std::size_t backslashes = 0;
  for (const wchar_t c : word) {
    // Only before a quotation mark do backslashes need others.
    if (c == L'"') quoted.append(backslashes + 1, L'\\');
    backslashes = c == L'\\' ? backslashes + 1 : 0;
    quoted += c;
  }
  return quoted.append(backslashes, L'\\') + L'"';
}

std::wstring CommandLineOf(const Words& words) {
  std::wstring line;
  for (const std::string& word : words) {
    if (!line.empty()) line += L' ';
    line += Quoted(WidenText(word));
  }
  return line;
}

// This program's variables, but those that `additions` sets; each ends with a zero, and the block with
// another.
std::wstring ChildEnvironment(const Words& additions) {
  std::vector<std::wstring> all;
  for (const std::string& addition : additions) all.push_back(WidenText(addition));
  const std::size_t own = all.size();
  wchar_t* const block = GetEnvironmentStringsW();
  for (const wchar_t* entry = block; *entry != L'\0'; entry += std::wcslen(entry) + 1) {
    const std::wstring text = entry;
    const std::size_t name = text.find(L'=', 1) + 1;
    const auto replaces = [&](const std::wstring& addition) {
      return _wcsnicmp(addition.c_str(), text.c_str(), name) == 0;
    };
    if (std::none_of(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(own), replaces)) {
      all.push_back(text);
    }
  }
  FreeEnvironmentStringsW(block);
  std::wstring joined;
  for (const std::wstring& entry : all) joined += entry + L'\0';
  return joined + L'\0';
}

// The list of the only handles that a child inherits.
class Inheritance {
 public:
  explicit Inheritance(std::vector<HANDLE> handles) : m_handles(std::move(handles)) {
    SIZE_T size = 0;
    InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    m_list.resize(size);
    if (InitializeProcThreadAttributeList(List(), 1, 0, &size) == 0 ||
        UpdateProcThreadAttribute(List(), 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, m_handles.data(),
                                  m_handles.size() * sizeof(HANDLE), nullptr, nullptr) == 0) {
      ThrowLastError("a list of handles");
    }
  }
  ~Inheritance() { DeleteProcThreadAttributeList(List()); }
  Inheritance(const Inheritance&) = delete;
  Inheritance& operator=(const Inheritance&) = delete;

  LPPROC_THREAD_ATTRIBUTE_LIST List() {
    return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(m_list.data());
  }

 private:
  std::vector<HANDLE> m_handles;
  std::vector<char> m_list;
};

// Everything in it ends when its last handle is closed, as it is when this program ends.
Handle MakeJob() {
  Handle job(CreateJobObjectW(nullptr, nullptr));
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
  limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
  SetInformationJobObject(*job, JobObjectExtendedLimitInformation, &limits, sizeof limits);
  return job;
}

// Suspended, and made with `flags` besides. `tool`: the path of the program, if it is the tool.
PROCESS_INFORMATION Start(const std::string& tool, const Words& words, const Words& additions,
                          STARTUPINFOEXW& startup, DWORD flags) {
  const std::wstring program = SystemPath(tool);
  std::wstring line = CommandLineOf(words);
  std::wstring environment = ChildEnvironment(additions);
  startup.StartupInfo.cb = sizeof startup;
  PROCESS_INFORMATION started{};
  flags |= CREATE_SUSPENDED | CREATE_UNICODE_ENVIRONMENT | EXTENDED_STARTUPINFO_PRESENT;
  if (CreateProcessW(tool.empty() ? nullptr : program.c_str(), line.data(), nullptr, nullptr, TRUE,
                     flags, environment.data(), nullptr, &startup.StartupInfo, &started) == 0) {
    ThrowLastError(words.front());
  }
  return started;
}

void ReadLines(const Handle& from, const Process::OnLine& onLine) {
  LineCutter lines(onLine);
  std::array<char, 4096> bytes{};
  DWORD count = 0;
  while (ReadFile(*from, bytes.data(), bytes.size(), &count, nullptr) != 0) {
    lines.Take({bytes.data(), count});
  }
  lines.End();
}

}  // namespace

struct Process::Child {
  Child(PROCESS_INFORMATION started, Handle inJob)
      : process(started.hProcess),
        job(std::move(inJob)),
        stops(CreateSemaphoreW(nullptr, 0, LONG_MAX, NameOfStops(started.dwProcessId).c_str())) {
    if (*job != nullptr) AssignProcessToJobObject(*job, *process);
    ResumeThread(started.hThread);
    CloseHandle(started.hThread);
  }
  ~Child() {
    if (*job != nullptr) TerminateJobObject(*job, EXIT_FAILURE);
    WaitForSingleObject(*process, INFINITE);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  void Read(Handle from, OnLine onLine) {
    readers.emplace_back(
        [from = std::move(from), onLine = std::move(onLine)] { ReadLines(from, onLine); });
  }

  const Handle process;
  const Handle job;  // none for a program in the foreground
  const Handle stops;
  std::vector<std::jthread> readers{};
};

// The console brings its events to both; this program leaves them to the other.
Process::Process(const Words& words, const Words& environment) {
  SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
  std::vector<HANDLE> streams;
  for (const DWORD number : {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE}) {
    const HANDLE stream = GetStdHandle(number);
    SetHandleInformation(stream, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
    if (stream != nullptr && std::ranges::count(streams, stream) == 0) streams.push_back(stream);
  }
  Inheritance inheritance(streams);
  STARTUPINFOEXW startup{};
  startup.lpAttributeList = inheritance.List();
  m_child = std::make_unique<Child>(Start(ToolIn(words), words, environment, startup, 0), Handle());
}

Process::Process(const Words& words, const Words& environment, Output output) {
  SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
  const Handle nothing(CreateFileW(WidenText(kNullFile).c_str(), GENERIC_READ, FILE_SHARE_READ,
                                   &inherited, OPEN_EXISTING, 0, nullptr));
  Pipe out;
  std::optional<Pipe> err;
  if (output.err) err.emplace();
  std::vector<HANDLE> streams{*nothing, *out.write};
  if (err) streams.push_back(*err->write);
  Inheritance inheritance(streams);
  STARTUPINFOEXW startup{};
  startup.lpAttributeList = inheritance.List();
  startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
  startup.StartupInfo.hStdInput = streams[0];
  startup.StartupInfo.hStdOutput = streams[1];
  startup.StartupInfo.hStdError = streams.back();
  m_child = std::make_unique<Child>(
      Start(ToolIn(words), words, environment, startup, CREATE_NEW_PROCESS_GROUP), MakeJob());
  m_child->Read(std::move(out.read), std::move(output.out));
  if (err) m_child->Read(std::move(err->read), std::move(output.err));
}

Process::~Process() = default;

int Process::Wait() {
  WaitForSingleObject(*m_child->process, INFINITE);
  DWORD code = 0;
  GetExitCodeProcess(*m_child->process, &code);
  // A program that it started may still hold the pipes.
  if (*m_child->job != nullptr) TerminateJobObject(*m_child->job, EXIT_FAILURE);
  m_child->readers.clear();
  return static_cast<int>(code);
}

std::optional<int> Process::Wait(std::chrono::milliseconds limit) {
  const auto limitMs = static_cast<DWORD>(limit.count());
  if (WaitForSingleObject(*m_child->process, limitMs) != WAIT_OBJECT_0) return std::nullopt;
  return Wait();
}

void Process::RequestStop() { ReleaseSemaphore(*m_child->stops, 1, nullptr); }

void Process::Kill() {
  if (*m_child->job != nullptr) {
    TerminateJobObject(*m_child->job, EXIT_FAILURE);
  } else {
    TerminateProcess(*m_child->process, EXIT_FAILURE);
  }
}

}  // namespace tavo::tool
