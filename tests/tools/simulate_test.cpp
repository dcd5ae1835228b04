// The command "simulate", as a process of its own: it starts others and takes signals.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "tests/support/child_process.h"
#include "tests/support/temporary_folder.h"

namespace tavo::test {
namespace {

constexpr std::chrono::seconds kPrompt{20};

class SimulateTest : public testing::Test {
 protected:
  ChildProcess Start(Words arguments, Words environment = {}) {
    arguments.insert(arguments.begin(), {TAVO_BUILD_DIR "/bin/firmware-updater", "simulate"});
    environment.push_back("PATH=/usr/bin:/bin");
    return {folder.Path(), arguments, environment, "output.txt"};
  }
  int Run(Words arguments, Words environment = {}) {
    ChildProcess tool = Start(std::move(arguments), std::move(environment));
    const int code = tool.Wait(kPrompt).value_or(-1);
    output = tool.Output();
    return code;
  }
  bool Says(const std::string& text) const { return output.find(text) != std::string::npos; }

  TemporaryFolder folder;
  std::string output;
};

TEST_F(SimulateTest, ACommandSeesTheDeviceBesideThoseThatAreThere) {
  const std::string substitute = "LD_LIBRARY_PATH=" TAVO_BUILD_DIR "/substitute";
  ASSERT_EQ(Run({"--", "env"}), 0) << output;
  EXPECT_TRUE(Says("TAVO_SIMULATORS=127.0.0.1:")) << output;
  EXPECT_TRUE(Says(substitute + "\n")) << output;
  ASSERT_EQ(Run({"--", "env"}, {"TAVO_SIMULATORS=1.2.3.4:5", "LD_LIBRARY_PATH=/there"}), 0);
  EXPECT_TRUE(Says("TAVO_SIMULATORS=1.2.3.4:5,127.0.0.1:")) << output;
  EXPECT_TRUE(Says(substitute + ":/there\n")) << output;
}

TEST_F(SimulateTest, TheArgumentsOfTheCommandStayAsTheyAreAndItsExitCodeIsHandedOn) {
  EXPECT_EQ(Run({"--family", "8.2.14", "--", "sh", "-c", "echo \"$@\"; exit 9", "sh", "--family",
                 "[a,b]", "--", "update"}),
            9);
  EXPECT_EQ(output, "--family [a,b] -- update\n");
  EXPECT_EQ(Run({"--", "sh", "-c", "kill -KILL $$"}), 128 + SIGKILL);
}

TEST_F(SimulateTest, SignalsGoToTheCommand) {
  ChildProcess tool =
      Start({"--", "sh", "-c", "trap 'exit 7' TERM; echo ready; while :; do sleep 0.1; done"});
  ASSERT_TRUE(WaitUntil([&] { return tool.Output() == "ready\n"; }, kPrompt)) << tool.Output();
  EXPECT_EQ(tool.AskToEnd(kPrompt), 7);
}

TEST_F(SimulateTest, WithoutACommandItPrintsTheEnvironmentAndServesUntilItIsEnded) {
  ChildProcess tool = Start({"--family", "drive"});
  const auto printed = [&] { return tool.Output().find("/substitute\n") != std::string::npos; };
  ASSERT_TRUE(WaitUntil(printed, kPrompt)) << tool.Output();
  EXPECT_NE(tool.Output().find("export TAVO_SIMULATORS=127.0.0.1:"), std::string::npos);
  EXPECT_EQ(tool.AskToEnd(kPrompt), 0);
}

// As in a virtual machine, whose kernel takes the substitute's place.
TEST_F(SimulateTest, WithoutTheSubstituteItServesButRunsNoCommand) {
  std::filesystem::copy(TAVO_BUILD_DIR "/bin/firmware-updater", folder.Path());
  const Words environment{"PATH=/usr/bin:/bin"};
  ChildProcess bare(folder.Path(), {"./firmware-updater", "simulate", "--port-file", "port"},
                    environment, "output.txt");
  ASSERT_TRUE(WaitUntil([&] { return std::filesystem::exists(folder.Path() / "port"); }, kPrompt));
  EXPECT_EQ(bare.AskToEnd(kPrompt), 0);
  EXPECT_EQ(bare.Output(), "listening on 127.0.0.1:" + FileText(folder.Path() / "port"));
  ChildProcess mistaken(folder.Path(), {"./firmware-updater", "simulate", "--", "true"},
                        environment, "output.txt");
  EXPECT_EQ(mistaken.Wait(kPrompt), 3) << mistaken.Output();
}

// In a folder that another account prepared.
TEST_F(SimulateTest, ItWritesThroughNoLink) {
  const std::filesystem::path victim = folder.Path() / "victim";
  std::ofstream(victim) << "kept";
  const auto plant = [&](const std::string& name) {
    std::filesystem::create_directories(folder.Path() / "device");
    std::filesystem::remove(folder.Path() / name);
    std::filesystem::create_symlink(victim, folder.Path() / name);
  };
  for (const char* name : {"port", "port.new", "device/flash.bin", "device/flash.bin.new"}) {
    plant(name);
  }
  EXPECT_EQ(Run({"--port-file", "port", "--state", "device", "--", "cat", "port"}), 0) << output;
  EXPECT_FALSE(std::filesystem::is_symlink(folder.Path() / "port"));
  EXPECT_FALSE(std::filesystem::is_symlink(folder.Path() / "device/flash.bin"));
  plant("device/journal.txt");
  EXPECT_EQ(Run({"--state", "device", "--", "true"}), 2);
  EXPECT_TRUE(Says("it is a link")) << output;
  std::filesystem::remove(folder.Path() / "device/journal.txt");
  ASSERT_EQ(mkfifo((folder.Path() / "device/journal.txt").c_str(), 0600), 0);
  EXPECT_EQ(Run({"--state", "device", "--", "true"}), 2) << "and a FIFO blocks nothing";
  EXPECT_EQ(FileText(victim), "kept");
}

TEST_F(SimulateTest, MistakesAreExplained) {
  EXPECT_EQ(Run({"--family", "8.9.9", "--", "true"}), 2);
  EXPECT_TRUE(Says("unknown family \"8.9.9\"")) << output;
  EXPECT_TRUE(Says("gateway   8.2.14  behind a tunnel")) << output;
  EXPECT_EQ(Run({"--open-tunnel", "4,256", "--", "true"}), 2);
  EXPECT_TRUE(Says("\"4,256\" is not a tunnel")) << output;
  EXPECT_EQ(Run({"--modules", "ABC,XY", "--", "true"}), 2);
  EXPECT_TRUE(Says("\"ABC,XY\" names no modules")) << output;
  EXPECT_EQ(Run({"--", "no-such-program"}), 2);
  EXPECT_TRUE(Says("no-such-program: No such file or directory\nhint: ")) << output;
  EXPECT_EQ(Run({"--state", "/proc/nowhere", "--", "true"}), 2);
  EXPECT_TRUE(Says("choose another --state")) << output;
}

}  // namespace
}  // namespace tavo::test
