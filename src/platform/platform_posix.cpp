#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <thread>
#include <utility>

#include "platform/memory.h"
#include "platform/platform.h"
#include "platform/undying.h"

namespace tavo {
namespace {

using std::chrono::milliseconds;

constexpr const char* kOwnExecutable = "/proc/self/exe";
constexpr std::size_t kFirstPathCapacity = 256;
// No file system has longer paths; a kernel that claims one must not make us allocate for ever.
constexpr std::size_t kMaxPathCapacity = 1 << 20;

// While it lives, writing to a pipe without a reader is an error in this thread, not a signal to the
// process: a host that loses the reader of its output must not die in mid-update.
class NoSigpipe {
 public:
  NoSigpipe() {
    sigemptyset(&m_sigpipe);
    sigaddset(&m_sigpipe, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    m_wasPending = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &m_sigpipe, &m_oldMask);
  }
  NoSigpipe(const NoSigpipe&) = delete;
  NoSigpipe& operator=(const NoSigpipe&) = delete;
  ~NoSigpipe() {
    const timespec noWait{};
    if (!m_wasPending) sigtimedwait(&m_sigpipe, nullptr, &noWait);
    pthread_sigmask(SIG_SETMASK, &m_oldMask, nullptr);
  }

 private:
  sigset_t m_sigpipe{};
  sigset_t m_oldMask{};
  bool m_wasPending = false;
};

// Takes ownership of the descriptor; null for an invalid one.
FileHandle AsFile(int descriptor, const char* mode) {
  if (descriptor < 0) return nullptr;
  FileHandle file(fdopen(descriptor, mode));
  if (!file) close(descriptor);
  return file;
}

// Opening a pipe waits for its other end without the first; the second keeps the file from programs
// that the host starts.
constexpr int kOpening = O_NONBLOCK | O_CLOEXEC;

// 0 when there is no file.
mode_t TypeOf(const FileHandle& file) {
  struct stat status {};
  return file && fstat(fileno(file.get()), &status) == 0 ? status.st_mode : 0;
}

class PosixPlatform final : public Platform {
 public:
  // Opens the null device in place of each standard stream that the host has closed. Otherwise the
  // next device or file opened would take its number and receive our console output.
  PosixPlatform() {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
      if (fcntl(stream, F_GETFD) < 0) static_cast<void>(open("/dev/null", O_RDWR));
    }
  }

  milliseconds MonotonicNow() override {
    return std::chrono::duration_cast<milliseconds>(
        std::chrono::steady_clock::now().time_since_epoch());
  }

  std::uint32_t TickCount() override { return static_cast<std::uint32_t>(MonotonicNow().count()); }

  std::tm LocalTime() override {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    return local;
  }

  void Sleep(milliseconds duration) override { std::this_thread::sleep_for(duration); }

  std::string ExecutablePath() override {
    // readlink silently cuts off a path that does not fit: only a result with room to spare is whole.
    for (std::size_t capacity = kFirstPathCapacity; capacity <= kMaxPathCapacity; capacity *= 2) {
      std::string path(capacity, '\0');
      const ssize_t length = readlink(kOwnExecutable, path.data(), path.size());
      if (length < 0) break;
      path.resize(static_cast<std::size_t>(length));
      if (path.size() < capacity) return path;
    }
    return {};
  }

  void Print(std::string_view text) override {
    const NoSigpipe noSigpipe;
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
  }

  FileHandle OpenLog(const std::string& path, Links links) override {
    constexpr mode_t kAsUmaskAllows = 0666;
    const int flags = O_WRONLY | O_APPEND | O_CREAT | kOpening | O_NOCTTY |
                      (links == Links::Refuse ? O_NOFOLLOW : 0);
    FileHandle file = AsFile(open(path.c_str(), flags, kAsUmaskAllows), "a");
    const mode_t type = TypeOf(file);
    if (!S_ISREG(type) && !S_ISCHR(type)) return nullptr;
    if (fileno(file.get()) > STDERR_FILENO) return file;
    // The host has closed a stream since, and the file has taken its number.
    return AsFile(fcntl(fileno(file.get()), F_DUPFD_CLOEXEC, STDERR_FILENO + 1), "a");
  }
};

}  // namespace

Platform& SystemPlatform() {
  static Undying<PosixPlatform> platform;
  return platform.object;
}

void WillBeFilled(void* block, std::size_t bytes) {
  const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  const std::uintptr_t begin = reinterpret_cast<std::uintptr_t>(block);
  const std::uintptr_t firstPage = (begin + page - 1) / page * page;
  if (firstPage - begin >= bytes) return;
  // Only advice: a system without large pages refuses it.
  madvise(reinterpret_cast<void*>(firstPage), bytes - (firstPage - begin), MADV_HUGEPAGE);
}

FileHandle OpenForReading(const std::string& path) {
  FileHandle file = AsFile(open(path.c_str(), O_RDONLY | kOpening), "rb");
  return S_ISREG(TypeOf(file)) ? std::move(file) : nullptr;
}

}  // namespace tavo
