// The command line as people and shells meet it: completion, and what is said about mistakes.
#include <gtest/gtest.h>

#include "tests/support/child_process.h"
#include "tests/tools/tool_station.h"

namespace tavo::tool {
namespace {

using test::ChildProcess;

class CommandLineTest : public testing::Test {
 protected:
  CommandLineTest() {
    run.Write("fw one.hex", "");
    std::filesystem::create_directory(run.Path("fw"));
  }

  // The exit code; the output goes to `output`.
  int Run(const std::string& shell, const std::string& script) {
    ChildProcess child(run.Path(""), {shell, "-c", script},
                       {"PATH=" TAVO_BUILD_DIR "/bin:/usr/bin:/bin"}, "output.txt");
    const int code = child.Wait(std::chrono::seconds(20)).value_or(-1);
    output = child.Output();
    return code;
  }

  // The candidates of bash for the last of the words, one a line.
  std::string Complete(const std::string& words) {
    EXPECT_EQ(Run("bash", "source " TAVO_SOURCE_DIR
                          "/packaging/completion.bash; COMP_WORDS=(firmware-updater " +
                              words +
                              "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1));"
                              "_firmware_updater firmware-updater;"
                              "printf '%s\\n' \"${COMPREPLY[@]}\" | LC_ALL=C sort"),
              0);
    return output;
  }

  ToolMachine station;
  CommandRun& run = station.run;
  std::string output;
};

TEST_F(CommandLineTest, BashCompletes) {
  const struct {
    const char* words;
    const char* offered;
  } kCases[] = {
      {"si", "simulate\n"},
      {"--v", "--version\n"},
      {"com", "\n"},
      {"simulate --family l", "labelled\nlegacy\n"},
      {"simulate --family = d", "drive\n"},
      {"simulate --family =", "drive\ngateway\nlabelled\nlegacy\nplain\ntunnel\nvariant\n"},
      {"simulate --port-p", "--port-path\n"},
      {"simulate --seed ''", "\n"},
      {"simulate --state f", "fw\n"},
      {"simulate --ftdi --start b", "bootloader\n"},
      {"simulate -- firmware-updater update f", "fw\nfw one.hex\n"},
      {"update f", "fw\nfw one.hex\n"},
      {"simulate -- true f", "fw\nfw one.hex\n"},
      {"update --dry", "--dry-run\n"},
      {"update --log f", "fw\nfw one.hex\n"},
      {"pack --image f", "fw\nfw one.hex\n"},
  };
  for (const auto& row : kCases) EXPECT_EQ(Complete(row.words), row.offered) << row.words;
  EXPECT_NE(Complete("simulate -- tru").find("true\n"), std::string::npos);
}

// A device may call itself anything. Nothing of that is run, and what would not fit a line is left out.
TEST_F(CommandLineTest, BashOffersTheConnectedDevicesQuoted) {
  run.Write("complete.sh",
            "source " TAVO_SOURCE_DIR
            "/packaging/completion.bash; COMP_WORDS=(firmware-updater info \"$1\" \"$2\");"
            " COMP_CWORD=3; _firmware_updater firmware-updater;"
            " eval \"printf '%s\\n' ${COMPREPLY[*]}\"; ls -1 ran 2>/dev/null");
  const char* const kName = "T 1;$(>ran)";
  const std::pair<std::string, std::string> kCases[] = {
      {"--port-path 1-4.2 -- bash complete.sh --usb ''", "4-2\n"},
      {"--ftdi --serial '" + std::string(kName) + "' -- bash complete.sh --ftdi 'T\\ '",
       std::string(kName) + "\n"},
  };
  for (const auto& [words, offered] : kCases) {
    Run("bash", "firmware-updater simulate " + words);
    EXPECT_EQ(output, offered);
  }
}

// With stand-ins for the parts of zsh's completion, which exist only while it completes.
TEST_F(CommandLineTest, ZshCompletes) {
  const std::string standIns =
      "compset() { }; _files() { echo files $*; }; _command_names() { echo commands $*; };"
      "_describe() { print -l -- ${(P)2}; };"
      "complete() { words=(firmware-updater $@) CURRENT=$(($# + 1)) PREFIX=$@[-1];"
      " source " TAVO_SOURCE_DIR "/packaging/completion.zsh; };";
  const std::pair<std::string, std::string> cases[] = {
      {"list --w", "--wait:Wait this long for a usable device\n"},
      {"simulate --family=d", "drive\n"},
      {"simulate --state f", "files -/\n"},
      {"simulate -- tr", "commands -e\n"},
      {"update f", "files\n"},
      {"list x", ""},
  };
  for (const auto& [words, offered] : cases) {
    const int code = Run("zsh", standIns + "complete " + words);
    if (code == 127) GTEST_SKIP() << "needs zsh";
    EXPECT_EQ(output, offered) << words;
  }
}

TEST_F(CommandLineTest, ACommandWhoseOutputNobodyGetsIsNotDone) {
  for (const char* line : {"--version", "pack --family plain -o @fw.hex", "inspect @fw.hex --json",
                           "inspect @fw.hex"}) {
    run.machine.out.setstate(std::ios::badbit);
    EXPECT_EQ(run(line), ExitCode::EvidenceLost) << line;
    EXPECT_TRUE(run.Complains("standard output cannot be written")) << line;
  }
  // A stream that is closed from the start must not become a device or a file that is opened.
  EXPECT_EQ(Run("bash", TAVO_BUILD_DIR "/bin/firmware-updater --version >&-"), 8) << output;
}

TEST_F(CommandLineTest, AWrongCommandLineGetsOneLineAndAHint) {
  const struct {
    const char* line;
    std::string complaint;
    const char* helpOf;
  } kCases[] = {
      {"nothing", "unknown command \"nothing\"", ""},
      {"updat", "unknown command \"updat\"; did you mean \"update\"?", ""},
      {"--nothing", "unknown option \"--nothing\"", ""},
      {"list --nothing", "unknown option \"--nothing\"", "list "},
      {"list x", "unexpected argument \"x\"", "list "},
      {"list --wait", "--wait needs a value", "list "},
      {"--json list", "unknown option \"--json\" before the command", "list "},
      {"info --usb 1 --usb 2", "--usb can be given only once", "info "},
      {"update", "FILE is required", "update "},
      {"simulate --nothing -- true", "unknown option \"--nothing\"", "simulate "},
  };
  for (const auto& row : kCases) {
    EXPECT_EQ(run(row.line), ExitCode::Usage);
    EXPECT_EQ(run.Err(), "firmware-updater: " + row.complaint + "\nhint: firmware-updater " +
                             row.helpOf + "--help\n");
    EXPECT_EQ(run.Out(), "");
  }
  for (const char* wrong : {"", "loose:1", "lose", "lose:0", "lose:1:2s", "delay:1", "delay:1:9",
                            "damage:1:2.8", "otherid:1:0x4000", "before:1:A", "lose:id=:1"}) {
    EXPECT_EQ(run(std::string("simulate --fault \"") + wrong + "\" -- true"), ExitCode::Usage);
    EXPECT_TRUE(run.Complains(": --fault: ")) << wrong << run.Err();
  }
  EXPECT_EQ(run(""), ExitCode::Usage);
  EXPECT_TRUE(run.Complains("Exit codes:")) << "without a command the help is shown";
}

}  // namespace
}  // namespace tavo::tool
