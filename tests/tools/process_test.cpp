#include "system/process.h"

#include <gtest/gtest.h>

#include <csignal>
#include <future>
#include <system_error>

namespace tavo::tool {
namespace {

using Lines = std::vector<std::string>;
using std::chrono::milliseconds;
using std::chrono::seconds;

struct Captured {
  Process::OnLine Into(Lines Captured::*lines) {
    return [this, lines](std::string_view line) { (this->*lines).emplace_back(line); };
  }
  Lines out;
  Lines err;
};

#ifdef _WIN32
const Process::Words kBoth{"cmd", "/d", "/c", "echo one& echo %WORD%>&2& exit 3"};
const Process::Words kMerged{"cmd", "/d", "/c", "echo three>&2& echo four"};
const Process::Words kSleep{"cmd", "/d", "/c", "ping -n 60 127.0.0.1"};
#else
const Process::Words kBoth{"sh", "-c", "echo one; echo $WORD >&2; exit 3"};
const Process::Words kMerged{"sh", "-c", "echo three >&2; printf four"};
const Process::Words kSleep{"sleep", "60"};
#endif

TEST(ProcessTest, LinesAndExitCodeArrive) {
  Captured captured;
  Process both(kBoth, {"WORD=two"}, {captured.Into(&Captured::out), captured.Into(&Captured::err)});
  EXPECT_EQ(both.Wait(), 3);
  EXPECT_EQ(captured.out, (Lines{"one"}));
  EXPECT_EQ(captured.err, (Lines{"two"}));
  Process merged(kMerged, {}, {captured.Into(&Captured::out), {}});
  EXPECT_EQ(merged.Wait(seconds(20)), 0);
  EXPECT_EQ(captured.out, (Lines{"one", "three", "four"}));
  // A test is not the tool, and must not run itself in its place.
  for (const char* const program : {"no-such-program", "firmware-updater"}) {
    EXPECT_THROW(Process({program, "--gtest_list_tests"}, {}, {captured.Into(&Captured::out), {}}),
                 std::system_error);
  }
}

TEST(ProcessTest, OneThatIsForgottenIsKilled) {
  Process forgotten(kSleep, {}, {[](std::string_view /*line*/) {}, {}});
  EXPECT_EQ(forgotten.Wait(milliseconds(50)), std::nullopt);
}

#ifndef _WIN32
TEST(ProcessTest, OneThatRunsOnIsAskedToStopThenKilledWithItsOwnChildren) {
  for (const bool polite : {true, false}) {
    std::promise<void> ready;
    Process program({"sh", "-c",
                     std::string("trap '") + (polite ? "exit 7" : "") +
                         "' TERM; echo ready; sleep 60 & while :; do sleep 0.01; done"},
                    {}, {[&](std::string_view /*line*/) { ready.set_value(); }, {}});
    ready.get_future().wait();
    program.RequestStop();
    EXPECT_EQ(program.Wait(polite ? seconds(20) : milliseconds(50)),
              polite ? std::optional(7) : std::nullopt);
    program.Kill();
    EXPECT_EQ(program.Wait(), polite ? 7 : 128 + SIGKILL);
  }
}
#endif

}  // namespace
}  // namespace tavo::tool
