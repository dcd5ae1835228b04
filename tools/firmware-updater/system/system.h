// The tool's seam to the operating system: streams and terminal, environment, folders, digest. Beside it,
// interrupts.h has the requests to stop, process.h the child processes, and shared_file.h a file with several
// writers. Files that end in _posix.cpp and _windows.cpp implement them; only they include system headers.
// Texts and paths are UTF-8.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tavo::tool {

// --- the program ---

// Comes first in main. A standard stream that was closed by whoever started the program would be the next
// file that is opened, a device or the log, and get what is meant for the user: here writing to it fails.
// From here on std::cout and std::cerr take UTF-8.
void PrepareStreams();

// The words of the command line, the program's name first.
std::vector<std::string> CommandLineWords(int argc, const char* const* argv);

// Empty without such a variable.
std::string Environment(const char* name);

// Neither a reader that goes away nor a full quota ends the program from here on: writing only fails.
void SurviveLostOutput();

// --- the terminal ---

// The values hold when the system reports none.
struct TerminalSize {
  int width = 80;
  int height = 24;
};

// Whether standard output is a terminal on which lines can be redrawn, in colours.
bool IsTerminal();

// Of that terminal at this moment, in characters.
TerminalSize SizeOfTerminal();

// Whether a short text can be written to standard output now or in a moment, without waiting for somebody
// to read.
bool OutputTakesText();

// Writes to standard error past every buffer and lock, as their owner may wait for ever; nothing when that
// would wait as well.
void SayLast(std::string_view text);

// --- files ---

inline constexpr const char* kNullFile =
#ifdef _WIN32
    "NUL";
#else
    "/dev/null";
#endif

// The path that a text names, in a form that may have any length, and the text that names a path.
std::filesystem::path PathOf(const std::string& text);
std::string TextOf(const std::filesystem::path& path);

// The folder for the logs of programs; empty when the system names none.
std::filesystem::path StateFolder();

// Files of ours in another user's folder would be in that user's way, and that user could replace them.
bool IsOurs(const std::filesystem::path& folder);

// A new folder that only this user can enter. Throws std::system_error.
void MakePrivateFolder(const std::filesystem::path& folder);

// Changes when the file is written, and when another one is renamed to it. The standard library's time has only
// seconds on Windows.
struct FileVersion {
  std::uint64_t size;
  std::uint64_t time;
  std::uint64_t identity;
  bool operator==(const FileVersion&) const = default;
};
// None: there is no such regular file.
std::optional<FileVersion> VersionOf(const std::string& path);

// Who may use a file; none: there is no such file, or the system has no such rights.
struct Access {
  bool granted;  // to read and write
  bool inGroup;  // this user, in the group of the file
  unsigned mode;
  std::string owner;
  std::string group;
};
std::optional<Access> AccessTo(const std::filesystem::path& file);

// --- facts ---

// The names of the drivers that Windows has bound to USB devices with these ids, such as "usbser"; empty
// when it does not report them, and elsewhere.
std::string UsbDrivers(std::uint16_t vendor, std::uint16_t product);

// Empty when the system does not report it.
std::string HostName();

// No other program can listen on the port of this socket, which is not bound yet. Throws std::system_error.
void KeepPortAlone(std::uintptr_t socket);

// None when the system's cryptography refuses.
using Sha256Digest = std::array<std::uint8_t, 32>;
std::optional<Sha256Digest> Sha256Of(std::span<const std::uint8_t> bytes);

}  // namespace tavo::tool
