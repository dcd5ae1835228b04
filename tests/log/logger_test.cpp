#include "log/logger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "log/displayable.h"
#include "tests/support/transcript.h"
#include "tests/support/virtual_platform.h"

namespace tavo::test {
namespace {

using namespace std::chrono_literals;

class LoggerTest : public testing::Test {
 protected:
  std::string LogFile() const { return m_platform.Folder() + "FirmwareUpdater.log"; }

  VirtualPlatform m_platform;
  Logger m_log{m_platform};
};

TEST_F(LoggerTest, LinesCarryTimeAndLevelAndGoToConsoleAndFileAlike) {
  std::ofstream(LogFile()) << "from an earlier day\n";
  m_log.LogDebug("%s", "first");
  m_platform.Advance(1h + 2min + 3s);
  m_log.LogInfo("%d bytes", 42);
  m_log.LogWarn("100 %%");
  m_log.LogCrit("last");

  const std::string lines =
      "2024.03.01 - 12:00:00 DBG  first\n"
      "2024.03.01 - 13:02:03 INFO 42 bytes\n"
      "2024.03.01 - 13:02:03 WARN 100 %\n"
      "2024.03.01 - 13:02:03 CRIT last\n";
  EXPECT_EQ(m_platform.Console(), lines);
  EXPECT_EQ(FileText(LogFile()), "from an earlier day\n" + lines);
}

TEST_F(LoggerTest, MessagesAreCutTo299Characters) {
  const std::string text(298, 'x');
  m_log.LogInfo("%s12", text.c_str());
  EXPECT_EQ(m_platform.Console(), "2024.03.01 - 12:00:00 INFO " + text + "1\n");
}

TEST_F(LoggerTest, TheFileLiesBesideTheExecutable) {
  const struct {
    const char* executable;
    const char* name;
    const char* path;
  } kRows[] = {
      {"/opt/host/updater", "a.log", "/opt/host/a.log"},
      {"C:\\Tools/bin\\updater.exe", "a.log", "C:\\Tools/bin\\a.log"},
      {"updater", "a.log", "a.log"},
      {"/opt/host/updater", "D:\\logs\\a.log", "D:\\logs\\a.log"},
  };
  for (const auto& row : kRows) {
    m_platform.SetExecutablePath(row.executable);
    EXPECT_EQ(m_log.LogFilePath(row.name), row.path);
  }
}

TEST_F(LoggerTest, WithoutAFileTheLineStillReachesTheConsole) {
  std::filesystem::create_directory(LogFile());  // in the way
  m_log.LogInfo("heard");
  EXPECT_EQ(m_platform.Console(),
            "Error during open log file \"" + LogFile() + "\"\n2024.03.01 - 12:00:00 INFO heard\n");
}

TEST(Displayable, ATerminalObeysNothingThatIsShown) {
  const struct {
    std::string_view text;
    std::string_view shown;
  } kRows[] = {
      {"FT232R \xC3\xBC \xE2\x82\xAC \xF0\x9F\x98\x80 ~",
       "FT232R \xC3\xBC \xE2\x82\xAC \xF0\x9F\x98\x80 ~"},
      {std::string_view("a\0\x1B[2J\n\x7F", 8), "a??[2J??"},
      {"\xC2\x9B"
       "2J|\xC2\xA0",
       "??2J|\xC2\xA0"},                                                               // C1
      {"\xE2\x80\xAE|\xE2\x81\xA6|\xD8\x9C|\xE2\x80\x90", "???|???|??|\xE2\x80\x90"},  // direction
      {"\x9B"
       "2J \xC3",
       "?2J ?"},                                                                 // cut off
      {"\xC1\x9B \xE0\x80\x9B \xF0\x80\x80\x9B", "?? ??? ????"},                 // too long
      {"\xED\xA0\x80 \xF4\x90\x80\x80 \xF8\x88\x80\x80\x80", "??? ???? ?????"},  // no character
  };
  for (const auto& row : kRows) EXPECT_EQ(Displayable(row.text), row.shown);
}

// Its console lets others in while it prints, so that only the logger's lock keeps lines whole.
class SlowConsole : public VirtualPlatform {
 public:
  void Print(std::string_view text) override {
    VirtualPlatform::Print(text.substr(0, text.size() / 2));
    std::this_thread::yield();
    VirtualPlatform::Print(text.substr(text.size() / 2));
  }
};

TEST(LoggerThreadsTest, LinesOfTwoThreadsStayWhole) {
  SlowConsole platform;
  Logger log(platform);
  std::atomic<int> here = 0;
  const auto write = [&](const char* name) {
    for (++here; here < 2;) std::this_thread::yield();
    for (int i = 0; i < 200; ++i) log.LogInfo("%s %d", name, i);
  };
  std::thread first(write, "a");
  std::thread second(write, "b");
  first.join();
  second.join();

  EXPECT_EQ(FileText(platform.Folder() + "FirmwareUpdater.log"), platform.Console());
  const Lines lines = LinesOf(platform.Console());
  Lines expected;
  for (int i = 0; i < 400; ++i) {
    expected.push_back("2024.03.01 - 12:00:00 INFO " + std::string(i < 200 ? "a " : "b ") +
                       std::to_string(i % 200));
  }
  EXPECT_TRUE(std::ranges::is_permutation(lines, expected));
}

}  // namespace
}  // namespace tavo::test
