#include <fcntl.h>
#include <grp.h>
#include <openssl/evp.h>
#include <poll.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <future>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/platform.h"
#include "system/interrupts.h"
#include "system/lines.h"
#include "system/process.h"
#include "system/system.h"

namespace tavo::tool {
namespace {

namespace fs = std::filesystem;

bool TakesText(int descriptor) {
  constexpr int kPatienceMs = 200;
  pollfd screen{descriptor, POLLOUT, 0};
  return poll(&screen, 1, kPatienceMs) == 1;
}

}  // namespace

void PrepareStreams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(stream, F_GETFD) == -1) open(kNullFile, O_RDONLY);  // becomes the lowest free one
  }
}

std::vector<std::string> CommandLineWords(int argc, const char* const* argv) {
  return {argv, argv + argc};
}

std::string Environment(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? std::string() : value;
}

void SurviveLostOutput() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

bool IsTerminal() { return isatty(STDOUT_FILENO) == 1 && Environment("TERM") != "dumb"; }

TerminalSize SizeOfTerminal() {
  winsize size{};
  const bool known =
      ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0;
  return known ? TerminalSize{size.ws_col, size.ws_row} : TerminalSize{};
}

bool OutputTakesText() { return TakesText(STDOUT_FILENO); }

void SayLast(std::string_view text) {
  if (TakesText(STDERR_FILENO) && write(STDERR_FILENO, text.data(), text.size()) < 0) {
    return;  // nobody reads it
  }
}

fs::path PathOf(const std::string& text) { return text; }

std::string TextOf(const fs::path& path) { return path.string(); }

fs::path StateFolder() {
  // A relative path counts as none, as the convention for this variable demands.
  const std::string state = Environment("XDG_STATE_HOME");
  if (state.starts_with('/')) return state;
  const std::string home = Environment("HOME");
  return home.empty() ? fs::path() : fs::path(home) / ".local" / "state";
}

std::optional<Access> AccessTo(const fs::path& file) {
  struct stat status {};
  if (stat(file.c_str(), &status) != 0) return std::nullopt;
  const passwd* const owner = getpwuid(status.st_uid);
  const ::group* const group = getgrgid(status.st_gid);
  std::vector<gid_t> mine(static_cast<std::size_t>(std::max(getgroups(0, nullptr), 0)));
  if (getgroups(static_cast<int>(mine.size()), mine.data()) < 0) mine.clear();
  mine.push_back(getegid());
  constexpr unsigned kPermissions = 07777;
  return Access{.granted = access(file.c_str(), R_OK | W_OK) == 0,
                .inGroup = std::ranges::count(mine, status.st_gid) > 0,
                .mode = status.st_mode & kPermissions,
                .owner = owner == nullptr ? std::to_string(status.st_uid) : owner->pw_name,
                .group = group == nullptr ? std::to_string(status.st_gid) : group->gr_name};
}

bool IsOurs(const fs::path& folder) {
  struct stat status {};
  return stat(folder.c_str(), &status) == 0 && status.st_uid == geteuid();
}

void MakePrivateFolder(const fs::path& folder) {
  if (mkdir(folder.c_str(), S_IRWXU) == 0) return;
  throw std::system_error(errno, std::generic_category(), folder.string());
}

std::optional<FileVersion> VersionOf(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
  constexpr std::uint64_t kNanoseconds = 1'000'000'000;
  const timespec& time = status.st_mtim;
  return FileVersion{.size = static_cast<std::uint64_t>(status.st_size),
                     .time = static_cast<std::uint64_t>(time.tv_sec) * kNanoseconds +
                             static_cast<std::uint64_t>(time.tv_nsec),
                     .identity = status.st_ino};
}

std::string UsbDrivers(std::uint16_t /*vendor*/, std::uint16_t /*product*/) { return {}; }

std::string HostName() {
  std::array<char, 256> name{};
  return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

// A port is shared only when both programs ask for it.
void KeepPortAlone(std::uintptr_t /*socket*/) {}

std::optional<Sha256Digest> Sha256Of(std::span<const std::uint8_t> bytes) {
  Sha256Digest digest{};
  unsigned size = 0;
  const bool done =
      EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, EVP_sha256(), nullptr) == 1;
  return done && size == digest.size() ? std::optional(digest) : std::nullopt;
}

// --- interrupts ---

namespace {

// Wakes the thread for its end; one that comes from elsewhere does nothing.
constexpr int kWake = SIGUSR1;

bool IsIgnored(int signal) {
  struct sigaction action {};
  return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

sigset_t InterruptSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, kWake);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    if (!IsIgnored(signal)) sigaddset(&signals, signal);
  }
  return signals;
}

}  // namespace

struct Interrupts::Listener {
  explicit Listener(std::function<void(int number)> toCall)
      : signals(InterruptSignals()), onInterrupt(std::move(toCall)) {
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    thread = std::thread([this] { Listen(); });
  }
  ~Listener() {
    ending = true;
    pthread_kill(thread.native_handle(), kWake);
    thread.join();
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  void Listen() const {
    int number = 0;
    int signal = 0;
    while (!ending && sigwait(&signals, &signal) == 0) {
      if (signal != kWake) onInterrupt(++number);
    }
  }

  const sigset_t signals;
  std::atomic<bool> ending = false;
  const std::function<void(int number)> onInterrupt;
  std::thread thread;
};

Interrupts::Interrupts(std::function<void(int number)> onInterrupt)
    : m_listener(std::make_unique<Listener>(std::move(onInterrupt))) {}

Interrupts::~Interrupts() = default;

// --- processes ---

namespace {

using Words = Process::Words;

class Descriptor {
 public:
  explicit Descriptor(int number = -1) : m_number(number) {}
  Descriptor(Descriptor&& from) noexcept : m_number(std::exchange(from.m_number, -1)) {}
  Descriptor& operator=(Descriptor&& from) noexcept {
    std::swap(m_number, from.m_number);
    return *this;
  }
  ~Descriptor() {
    if (m_number >= 0) close(m_number);
  }
  int operator*() const { return m_number; }

 private:
  int m_number;
};

struct Pipe {
  Pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0)
      throw std::system_error(errno, std::generic_category(), "a pipe");
    read = Descriptor(ends[0]);
    write = Descriptor(ends[1]);
  }
  Descriptor read;
  Descriptor write;
};

// Blocks all signals while it lives, so that none is lost or meets a half-made child.
class SignalPause {
 public:
  SignalPause() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &m_before);
  }
  ~SignalPause() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
  SignalPause(const SignalPause&) = delete;
  SignalPause& operator=(const SignalPause&) = delete;

  const sigset_t& Before() const { return m_before; }

 private:
  sigset_t m_before{};
};

// This program's variables, but those that `additions` sets.
Words ChildEnvironment(const Words& additions) {
  Words all = additions;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const std::string name = text.substr(0, text.find('=') + 1);
    const auto replaces = [&](const std::string& addition) { return addition.starts_with(name); };
    if (std::ranges::none_of(additions, replaces)) all.push_back(text);
  }
  return all;
}

std::vector<char*> Pointers(Words& words) {
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  return pointers;
}

// The streams of a child, and the signals that are blocked for it.
struct Surroundings {
  std::array<int, 3> streams{STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO};
  sigset_t blocked{};
  bool background = false;
};

// Runs in the child, where only calls are allowed that a signal handler may make.
[[noreturn]] void BecomeProgram(const Surroundings& surroundings, pid_t parent, const char* program,
                                char* const* words, char* const* environment, int failures) {
  if (surroundings.background) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(EXIT_FAILURE);  // the parent was faster
  }
  for (int i = 0; i < 3; ++i) {
    const int stream = surroundings.streams[static_cast<std::size_t>(i)];
    if (stream != i) dup2(stream, i);
  }
  pthread_sigmask(SIG_SETMASK, &surroundings.blocked, nullptr);
  execvpe(program, words, environment);
  const int failure = errno;
  static_cast<void>(!write(failures, &failure, sizeof failure));
  _exit(EXIT_FAILURE);
}

// The process id. Returns when the program runs. `tool`: its path, if it is the tool.
pid_t Start(const std::string& tool, Words words, const Words& additions,
            const Surroundings& surroundings) {
  const std::string program = tool.empty() ? words.front() : tool;
  Words variables = ChildEnvironment(additions);
  const std::vector<char*> wordPointers = Pointers(words);
  const std::vector<char*> variablePointers = Pointers(variables);
  Pipe failures;
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child == 0) {
    BecomeProgram(surroundings, parent, program.c_str(), wordPointers.data(),
                  variablePointers.data(), *failures.write);
  }
  failures.write = Descriptor();
  int failure = child < 0 ? errno : 0;
  if (child > 0 && read(*failures.read, &failure, sizeof failure) > 0) waitpid(child, nullptr, 0);
  if (failure != 0) throw std::system_error(failure, std::generic_category(), words.front());
  return child;
}

void ReadLines(const Descriptor& from, const Process::OnLine& onLine) {
  LineCutter lines(onLine);
  std::array<char, 4096> bytes{};
  for (;;) {
    const ssize_t count = read(*from, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    lines.Take({bytes.data(), static_cast<std::size_t>(count)});
  }
  lines.End();
}

// For the signal handler, which gets no object.
volatile std::sig_atomic_t g_foreground = 0;

// The terminal signals the program as well; other signals arrive here only and are passed on.
void LeaveSignalsTo(pid_t program) {
  g_foreground = program;
  for (const int signal : {SIGINT, SIGQUIT}) std::signal(signal, SIG_IGN);
  for (const int signal : {SIGTERM, SIGHUP})
    std::signal(signal, [](int number) { kill(g_foreground, number); });
}

}  // namespace

struct Process::Child {
  explicit Child(pid_t started, bool inBackground)
      : pid(started), background(inBackground), end(std::async(std::launch::async, [started] {
          // It stays a zombie, so that no signal reaches a later process with its number.
          siginfo_t info{};
          while (waitid(P_PID, static_cast<id_t>(started), &info, WEXITED | WNOWAIT) != 0) {
            if (errno != EINTR) return EXIT_FAILURE;
          }
          return info.si_code == CLD_EXITED ? info.si_status : 128 + info.si_status;
        })) {}
  ~Child() {
    if (background) Signal(SIGKILL);
    end.wait();
    readers.clear();
    waitpid(pid, nullptr, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  void Signal(int signal) const { kill(background && signal == SIGKILL ? -pid : pid, signal); }
  void Read(Descriptor from, OnLine onLine) {
    readers.emplace_back(
        [from = std::move(from), onLine = std::move(onLine)] { ReadLines(from, onLine); });
  }

  const pid_t pid;
  const bool background;
  std::shared_future<int> end;
  std::vector<std::jthread> readers{};
};

Process::Process(const Words& words, const Words& environment) {
  const SignalPause pause;
  const pid_t pid = Start(ToolIn(words), words, environment, {.blocked = pause.Before()});
  LeaveSignalsTo(pid);
  m_child = std::make_unique<Child>(pid, false);
}

Process::Process(const Words& words, const Words& environment, Output output) {
  const SignalPause pause;
  const Descriptor nothing(open(kNullFile, O_RDONLY | O_CLOEXEC));
  Pipe out;
  std::optional<Pipe> err;
  if (output.err) err.emplace();
  Surroundings surroundings{.streams = {*nothing, *out.write, err ? *err->write : *out.write},
                            .background = true};
  sigemptyset(&surroundings.blocked);
  m_child = std::make_unique<Child>(Start(ToolIn(words), words, environment, surroundings), true);
  m_child->Read(std::move(out.read), std::move(output.out));
  if (err) m_child->Read(std::move(err->read), std::move(output.err));
}

Process::~Process() = default;

int Process::Wait() {
  const int code = m_child->end.get();
  // A program that it started may still hold the pipes.
  if (m_child->background) m_child->Signal(SIGKILL);
  m_child->readers.clear();
  return code;
}

std::optional<int> Process::Wait(std::chrono::milliseconds limit) {
  if (m_child->end.wait_for(limit) != std::future_status::ready) return std::nullopt;
  return Wait();
}

void Process::RequestStop() { m_child->Signal(SIGTERM); }

void Process::Kill() { m_child->Signal(SIGKILL); }

}  // namespace tavo::tool
