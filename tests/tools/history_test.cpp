// The journal, and what history makes of it.
#include <gtest/gtest.h>

#include "tests/tools/tool_station.h"
#include "update/journal.h"

namespace tavo::tool {
namespace {

TEST(Journal, ATornLineIsLeftAloneAndHistoryCountsADeviceUntilItPasses) {
  ToolStation station(Options("plain"), false, {"lose:id=0x134:*"});
  const std::string journal = " --journal @journal --log @tool.log";
  station.run.Write("journal", "{\"version\":1,\"event\":\"resu");
  EXPECT_EQ(station.run("update @firmware.hex" + journal), ExitCode::FailedInBootloader);
  station.device.ClearFaults();
  EXPECT_EQ(station.run(station.run.Recommended() + journal), ExitCode::Done);
  EXPECT_EQ(station.run("update @firmware.hex" + journal), ExitCode::Done);
  EXPECT_EQ(station.run("update @firmware.hex --dry-run" + journal), ExitCode::Done);
  station.run.Write("journal", station.run.Read("journal") +
                                   "\n# a note\n{\"event\":\"result\"}\n" +
                                   std::string(100'000, '[') + std::string(100'000, ']'));

  EXPECT_EQ(station.run("history @journal --json"), ExitCode::Done);
  const Json sums = Json::Parse(station.run.Out());
  const std::pair<const char*, const char*> kExpected[] = {
      {"updates", "3"},       {"succeeded", "2"},
      {"failed", "1"},        {"dryRuns", "1"},
      {"devices", "2"},       {"passedFirst", "1"},
      {"unfinished", "[]"},   {"torn", "[1]"},
      {"foreign", "[7,8,9]"}, {"failures", "{\"timeout\":1}"}};
  for (const auto& [name, value] : kExpected) EXPECT_EQ(sums[name].Text(), value) << name;

  EXPECT_EQ(station.run("history @journal --csv"), ExitCode::Done);
  const auto rows = test::LinesOf(station.run.Out());
  EXPECT_EQ(rows.size(), 5);
  EXPECT_TRUE(station.run.Complains("1 line torn")) << station.run.Err();
  EXPECT_NE(rows[1].find(",update,false,failed,5,timeout,bootloader-flash-erased,usb,1-4-2,"),
            std::string::npos)
      << rows[1];
  EXPECT_EQ(station.run("history @journal --since 2026-31-12"), ExitCode::Usage);
  EXPECT_EQ(station.run("history @journal --since 2100-01-01"), ExitCode::Done);
  EXPECT_TRUE(station.run.Says("Updates: 0;")) << station.run.Out();
}

TEST(Journal, TakesWholeLinesFromSeveralWritersAtOnce) {
  ToolMachine station;
  const std::string path = station.run.Path("journal").string();
  const auto write = [&path] {
    for (int line = 0; line < 10; ++line) EXPECT_TRUE(AppendToJournal(path, {}));
  };
  std::thread other(write);
  write();
  other.join();
  int results = 0;
  const OtherLines others = ReadJournal(path, [&results](const Json&) { ++results; });
  EXPECT_EQ(results, 20);
  EXPECT_TRUE(others.torn.empty() && others.foreign.empty());
}

}  // namespace
}  // namespace tavo::tool
