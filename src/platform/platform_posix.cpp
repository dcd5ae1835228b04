#include <time.h>
#include <unistd.h>

#include <thread>

#include "platform/platform.h"

namespace tavo {
namespace {

using std::chrono::milliseconds;

constexpr const char* kOwnExecutable = "/proc/self/exe";
constexpr std::size_t kFirstPathCapacity = 256;
// No file system gives longer paths; a kernel that claims so must not make us allocate for ever.
constexpr std::size_t kMaxPathCapacity = 1 << 20;

class PosixPlatform final : public Platform {
 public:
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
    // readlink cuts what does not fit without a word: only a result with room to spare is whole.
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
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
  }

  std::FILE* OpenFile(const std::string& path, const char* mode) override {
    return std::fopen(path.c_str(), mode);
  }
};

}  // namespace

Platform& SystemPlatform() {
  static PosixPlatform platform;
  return platform;
}

}  // namespace tavo
