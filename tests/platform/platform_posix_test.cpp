// The machine itself, as far as a test can see it without waiting or changing it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>

#include "log/logger.h"
#include "platform/platform.h"
#include "tests/support/virtual_platform.h"

namespace tavo::test {
namespace {

using namespace std::chrono_literals;

// The exit status of a process that does `work` with its standard output closed or on a full disk: 0
// when it has completed.
int ExitStatusWithOutput(const char* output, const std::function<void()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(20);  // blocked means killed
    close(STDOUT_FILENO);
    if (output) open(output, O_WRONLY);
    work();
    _exit(0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return status;
}

// This machine's console, and a folder for the log.
class RealConsole : public VirtualPlatform {
 public:
  void Print(std::string_view text) override { SystemPlatform().Print(text); }
};

TEST(PlatformPosix, AReaderThatHasGoneDoesNotEndTheHost) {
  const auto print = [] {
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0) _exit(1);
    close(ends[0]);
    SystemPlatform().Print("nobody reads this");
  };
  EXPECT_EQ(ExitStatusWithOutput("/dev/null", print), 0);
}

TEST(PlatformPosix, WithoutAConsoleOnlyItsTextIsLostAndTheLogIsTheSame) {
  for (const char* output : {static_cast<const char*>(nullptr), "/dev/full"}) {
    RealConsole platform;
    const auto write = [&platform] {
      Logger log(platform);
      for (int line = 0; line < 1000; ++line) log.LogInfo("%0100d", line);
    };
    EXPECT_EQ(ExitStatusWithOutput(output, write), 0);
    const std::string text = FileText(platform.Folder() + "FirmwareUpdater.log");
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1000) << (output ? output : "closed");
  }
}

TEST(PlatformPosix, TellsThisExecutableAndATimeThatPasses) {
  EXPECT_EQ(SystemPlatform().ExecutablePath(), std::filesystem::canonical("/proc/self/exe"));
  const auto begin = SystemPlatform().MonotonicNow();
  SystemPlatform().Sleep(3ms);
  EXPECT_GE(SystemPlatform().MonotonicNow() - begin, 3ms);
  auto last = begin;
  for (int look = 0; look < 10'000; ++look) {
    const auto now = SystemPlatform().MonotonicNow();
    ASSERT_GE(now, last);
    last = now;
  }
}

// A pipe is refused with and without a reader: without one, opening it must not wait.
TEST(PlatformPosix, TheLogOpensWithoutWaitingAndOnlyWhereALogBelongs) {
  const TemporaryFolder temporary;
  const auto in = [&](const char* name) { return (temporary.Path() / name).string(); };
  ASSERT_EQ(mkfifo(in("pipe").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo(in("read pipe").c_str(), 0600), 0);
  const int reader = open(in("read pipe").c_str(), O_RDONLY | O_NONBLOCK);
  std::filesystem::create_directory(in("folder"));
  std::filesystem::create_symlink("target", in("link"));
  for (const char* name : {"pipe", "read pipe", "folder", "missing/a.log"}) {
    EXPECT_EQ(SystemPlatform().OpenLog(in(name), Links::Follow), nullptr) << name;
  }
  EXPECT_EQ(SystemPlatform().OpenLog(in("link"), Links::Refuse), nullptr);
  EXPECT_FALSE(std::filesystem::exists(in("target")));
  for (const std::string& path : {in("link"), in("new.log"), std::string("/dev/null")}) {
    const FileHandle file = SystemPlatform().OpenLog(path, Links::Follow);
    ASSERT_NE(file, nullptr) << path;
    EXPECT_NE(fcntl(fileno(file.get()), F_GETFD) & FD_CLOEXEC, 0) << path;
  }
  close(reader);
}

}  // namespace
}  // namespace tavo::test
