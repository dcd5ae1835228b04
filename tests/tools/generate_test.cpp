// What is written from the parser: nothing of it is missing, and the programs that read it take it.
#include <gtest/gtest.h>
#include <CLI/CLI.hpp>

#include "tests/support/child_process.h"
#include "tests/tools/desk.h"

namespace tavo::tool {
namespace {

using test::ChildProcess;
using test::Words;

class GenerateTest : public testing::Test {
 protected:
  GenerateTest() {
    run.Write("fw one.hex", "");
    std::filesystem::create_directory(run.Path("fw"));
  }

  // The document, which is also put into a file of that name.
  std::string Generate(const std::string& document) {
    EXPECT_EQ(run("generate " + document), ExitCode::Done);
    run.Write(document, run.Out());
    return run.Out();
  }

  // The exit code; 127 when the system has no such program. The output goes to `output`.
  int Run(const std::string& script) {
    ChildProcess shell(run.Path(""), {"bash", "-c", script}, {"PATH=/usr/local/bin:/usr/bin:/bin"},
                       "output.txt");
    const int code = shell.Wait(std::chrono::seconds(20)).value_or(-1);
    output = shell.Output();
    return code;
  }

  // What bash offers for the last of the words, one a line.
  std::string Complete(const std::string& words) {
    EXPECT_EQ(Run("source ./bash; COMP_WORDS=(firmware-updater " + words +
                  "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _firmware_updater;"
                  "printf '%s\\n' \"${COMPREPLY[@]}\" | LC_ALL=C sort"),
              0);
    return output;
  }

  BareDesk desk;
  CommandRun& run = desk.run;
  std::string output;
};

// Every visible word of the parser, and the command that it belongs to.
std::vector<std::string> ParserWords(const CLI::App& app) {
  std::vector<std::string> words;
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : option->get_lnames()) words.push_back("--" + name);
  }
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (command->get_group().empty()) continue;
    words.push_back(command->get_name());
    for (const std::string& word : ParserWords(*command)) words.push_back(word);
  }
  return words;
}

TEST_F(GenerateTest, EveryCommandAndOptionIsInEveryDocument) {
  CLI::App app{"", "firmware-updater"};
  ExitCode exit = ExitCode::Usage;
  AddEverything(app, run.machine, exit);
  const std::vector<std::string> words = ParserWords(app);
  ASSERT_GT(words.size(), 40U);
  for (const std::string document : {"man", "bash", "zsh"}) {
    std::string text = Generate(document);
    if (document == "man") std::erase(text, '\\');
    for (const std::string& word : words)
      EXPECT_NE(text.find(word), std::string::npos) << word << " is not in " << document;
    EXPECT_EQ(text.find("DOCUMENT"), std::string::npos) << document << " tells of hidden commands";
  }
}

TEST_F(GenerateTest, TheManualIsSoundAndHasTheExitCodes) {
  Generate("man");
  const int code = Run("groff -man -Tascii -P-cbu -ww man");
  if (code == 127) GTEST_SKIP() << "needs groff";
  ASSERT_EQ(code, 0) << output;
  EXPECT_EQ(output.find("man:"), std::string::npos) << output;  // a warning begins with the file
  for (const ExitDescription& row : kExitTable)
    EXPECT_NE(output.find(row.meaning), std::string::npos) << row.meaning;
}

TEST_F(GenerateTest, TheShellsTakeTheirScripts) {
  Generate("bash");
  EXPECT_EQ(Run("bash -n bash"), 0) << output;
  Generate("zsh");
  if (Run("command -v zsh") != 0) GTEST_SKIP() << "needs zsh";
  EXPECT_EQ(Run("zsh -n zsh"), 0) << output;
}

TEST_F(GenerateTest, BashCompletes) {
  Generate("bash");
  const struct {
    const char* words;
    const char* offered;
  } kCases[] = {
      {"si", "simulate\n"},
      {"--v", "--version\n"},
      {"gen", "\n"},
      {"simulate --family l", "labelled\nlegacy\n"},
      {"simulate --family = d", "drive\n"},
      {"simulate --family =", "drive\ngateway\nlabelled\nlegacy\nplain\ntunnel\nvariant\n"},
      {"simulate --port-p", "--port-path\n"},
      {"simulate --seed ''", "\n"},
      {"simulate --state f", "fw\n"},
      {"simulate --ftdi --start b", "bootloader\n"},
      {"simulate -- firmware-updater update f", "fw\nfw one.hex\n"},
      {"update f", "fw\nfw one.hex\n"},
      {"update --dry", "--dry-run\n"},
      {"update --log f", "fw\nfw one.hex\n"},
      {"pack --image f", "fw\nfw one.hex\n"},
  };
  for (const auto& row : kCases) EXPECT_EQ(Complete(row.words), row.offered) << row.words;
  EXPECT_NE(Complete("simulate -- tru").find("true\n"), std::string::npos);
}

TEST_F(GenerateTest, ACommandWhoseOutputNobodyGetsIsNotDone) {
  for (const char* line : {"--version", "generate man", "pack --family plain -o @fw.hex",
                           "inspect @fw.hex --json", "inspect @fw.hex"}) {
    run.machine.out.setstate(std::ios::badbit);
    EXPECT_EQ(run(line), ExitCode::FailedUnknown) << line;
    EXPECT_TRUE(run.Complains("standard output cannot be written")) << line;
  }
  // A stream that is closed from the start must not become a device or a file that is opened.
  EXPECT_EQ(Run(TAVO_BUILD_DIR "/bin/firmware-updater --version >&-"), 7) << output;
}

TEST_F(GenerateTest, AWrongCommandLineGetsOneLineAndAHint) {
  const struct {
    const char* line;
    std::string complaint;
    const char* helpOf;
  } kCases[] = {
      {"nothing", "there is no command \"nothing\"", ""},
      {"--nothing", "there is no option \"--nothing\"", ""},
      {"list --nothing", "there is no option \"--nothing\"", "list "},
      {"list x", "\"x\" is one argument too many", "list "},
      {"list --wait", "--wait needs a value", "list "},
      {"--json list", "there is no option \"--json\" in front of a command", "list "},
      {"info --usb 1 --usb 2", "--usb can be given only once", "info "},
      {"update", "FILE is required", "update "},
      {"simulate --nothing -- true", "there is no option \"--nothing\"", "simulate "},
  };
  for (const auto& row : kCases) {
    EXPECT_EQ(run(row.line), ExitCode::Usage);
    EXPECT_EQ(run.Err(), "firmware-updater: " + row.complaint + "\nhint: firmware-updater " +
                             row.helpOf + "--help\n");
    EXPECT_EQ(run.Out(), "");
  }
  EXPECT_EQ(run(""), ExitCode::Usage);
  EXPECT_TRUE(run.Complains("Exit codes:")) << "without a command the help is shown";
}

}  // namespace
}  // namespace tavo::tool
