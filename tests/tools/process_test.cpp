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

TEST(ProcessTest, LinesAndExitCodeArrive) {
  Captured captured;
  Process both({"sh", "-c", "echo one; echo $WORD >&2; printf end; exit 3"}, {"WORD=two"},
               {captured.Into(&Captured::out), captured.Into(&Captured::err)});
  EXPECT_EQ(both.Wait(), 3);
  EXPECT_EQ(captured.out, (Lines{"one", "end"}));
  EXPECT_EQ(captured.err, (Lines{"two"}));
  Process merged({"sh", "-c", "echo three >&2; echo four"}, {},
                 {captured.Into(&Captured::out), {}});
  EXPECT_EQ(merged.Wait(seconds(20)), 0);
  EXPECT_EQ(captured.out, (Lines{"one", "end", "three", "four"}));
  EXPECT_THROW(Process({"no-such-program"}, {}, {captured.Into(&Captured::out), {}}),
               std::system_error);
}

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
  const Process forgotten({"sleep", "60"}, {}, {[](std::string_view /*line*/) {}, {}});
}

}  // namespace
}  // namespace tavo::tool
