// The commands that update, as a user types them, against simulated devices on a virtual clock. What
// the tool says at the end is held against what the device really is, and the command that it
// recommends is run.
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include "app.h"
#include "closing_state.h"
#include "testbench/station.h"

namespace tavo::tool {
namespace {

using Json = nlohmann::json;
using tavosim::DeviceState;
using test::Lines;
using test::Station;

constexpr const char* kTarget = " --usb 1-4-2";

tavosim::DeviceOptions Options(const char* family) {
  return tavosim::OptionsFor(*tavosim::FindFamily(family));
}

std::string FileText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class Tool {
 public:
  explicit Tool(const tavosim::DeviceOptions& options, const std::vector<std::string>& faults = {})
      : station(options, false, faults) {}

  // Runs a command line, whose words have no blanks in them.
  int Run(const std::string& line) {
    m_out.str({});
    m_err.str({});
    Lines words{"firmware-updater"};
    std::istringstream stream(line);
    for (std::string word; stream >> word;) words.push_back(word);
    std::vector<const char*> arguments;
    for (const std::string& word : words) arguments.push_back(word.c_str());
    const Machine machine{station.platform, station.usb, station.d2xx, m_out, m_err};
    return RunTool(static_cast<int>(arguments.size()), arguments.data(), machine);
  }
  int Update(const std::string& options = "") {
    return Run("update " + File() + kTarget + " --log " + Log() + options);
  }

  std::string File() const { return station.platform.Folder() + "firmware.hex"; }
  std::string Log() const { return station.platform.Folder() + "tool.log"; }
  std::string Out() const { return m_out.str(); }
  std::string Err() const { return m_err.str(); }
  std::string LastLine() const { return test::LinesOf(Out()).back(); }

  // The command at the end of the last line; empty when there is none.
  std::string Recommended() const {
    const std::string line = LastLine();
    const std::size_t at = line.find(": firmware-updater ");
    return at == std::string::npos ? ""
                                   : line.substr(at + std::string(": firmware-updater ").size());
  }

  bool UpdatedAndRuns() { return station.FlashHoldsFirmware() && station.ApplicationRuns(); }

  Station station;

 private:
  std::ostringstream m_out;
  std::ostringstream m_err;
};

TEST(UpdateCommand, UpdatesEveryFamilyAndSaysSo) {
  for (const tavosim::Family& family : tavosim::kFamilies) {
    SCOPED_TRACE(family.name);
    Tool tool(tavosim::OptionsFor(family));
    EXPECT_EQ(tool.Update(), 0) << tool.Err();
    EXPECT_TRUE(tool.UpdatedAndRuns());
    const bool verifies = family.bootloaderVersion >= 3;
    EXPECT_TRUE(tool.LastLine().starts_with(verifies
                                                ? "The device runs the new firmware, verified."
                                                : "The device runs the new firmware; nothing has"))
        << tool.Out();
    EXPECT_EQ(tool.Recommended(), "");
    EXPECT_EQ(tool.Out().find('\b'), std::string::npos);
    EXPECT_NE(FileText(tool.Log()).find("FirmwareUpdater: Start."), std::string::npos);
  }
}

// One thing that goes wrong, and what the tool must say of it.
struct Trouble {
  const char* family;
  const char* fault;
  ExitCode exit;
  const char* error;  // stable name at the beginning of the complaint
  DeviceCondition condition;
};

const Trouble kTroubles[] = {
    {"plain", "lose:id=0x120:*", ExitCode::FailedRuns, "timeout",
     DeviceCondition::OldApplicationRuns},
    {"plain", "lose:id=0x130:1", ExitCode::FailedUnknown, "timeout", DeviceCondition::Unknown},
    {"plain", "lose:id=0x136:*", ExitCode::FailedRuns, "timeout",
     DeviceCondition::UpdatedNotVerified},
    {"plain", "lose:id=0x132:*", ExitCode::FailedRuns, "timeout",
     DeviceCondition::OldApplicationRuns},
    {"plain", "lose:id=0x134:*", ExitCode::FailedInBootloader, "timeout",
     DeviceCondition::BootloaderFlashErased},
    {"plain", "powercut:id=0x134:9", ExitCode::FailedInBootloader, "timeout",
     DeviceCondition::BootloaderFlashErased},
    {"labelled", "lose:id=0x12F:2", ExitCode::FailedRuns, "timeout",
     DeviceCondition::RunsIncomplete},
    {"tunnel", "lose:id=0x134:*", ExitCode::FailedInBootloader, "timeout",
     DeviceCondition::BootloaderFlashErased},
    {"drive", "lose:id=0x130:1", ExitCode::FailedUnknown, "timeout", DeviceCondition::Unknown},
};

void PrintTo(const Trouble& trouble, std::ostream* out) {
  *out << trouble.family << " " << trouble.fault;
}

class UpdateTrouble : public testing::TestWithParam<Trouble> {};

TEST_P(UpdateTrouble, IsToldAsItIsAndTheRecommendedCommandEndsIt) {
  const Trouble& trouble = GetParam();
  Tool tool(Options(trouble.family), {trouble.fault});
  EXPECT_EQ(tool.Update(), static_cast<int>(trouble.exit)) << tool.Out() << tool.Err();
  EXPECT_TRUE(tool.Err().starts_with("firmware-updater: " + std::string(trouble.error) + ": "))
      << tool.Err();
  EXPECT_NE(tool.Err().find("\nhint: "), std::string::npos);
  EXPECT_TRUE(tool.LastLine().starts_with(SentenceOf(trouble.condition))) << tool.LastLine();

  if (trouble.condition != DeviceCondition::Unknown) {
    EXPECT_EQ(tool.station.ApplicationRuns(), trouble.exit == ExitCode::FailedRuns);
    const bool isNew = trouble.condition == DeviceCondition::UpdatedNotVerified ||
                       trouble.condition == DeviceCondition::RunsIncomplete;
    EXPECT_EQ(tool.station.FlashHoldsFirmware(), isNew);
  }

  tool.station.device.ClearFaults();
  const std::string next = tool.Recommended();
  ASSERT_NE(next, "") << tool.LastLine();
  EXPECT_EQ(tool.Run(next + " --log " + tool.Log()), 0) << next << "\n" << tool.Out() << tool.Err();
  EXPECT_TRUE(tool.UpdatedAndRuns());
  EXPECT_EQ(tool.station.device.OpenTunnel(), 0);
  const bool labelled = tool.station.device.Options().family.adbType == 5;
  EXPECT_EQ(tool.station.device.Label().has_value(), labelled);
}

INSTANTIATE_TEST_SUITE_P(Faults, UpdateTrouble, testing::ValuesIn(kTroubles));

TEST(UpdateCommand, ADryRunWritesNothingAndLeavesTheApplicationRunning) {
  for (const char* family : {"plain", "tunnel", "labelled"}) {
    Tool tool(Options(family));
    const std::vector<std::uint8_t> before = tool.station.device.ApplicationFlash().Bytes();
    EXPECT_EQ(tool.Update(" --dry-run"), 0) << tool.Err();
    EXPECT_EQ(tool.station.device.ApplicationFlash().Bytes(), before);
    EXPECT_TRUE(tool.station.ApplicationRuns());
    EXPECT_NE(tool.Out().find("nothing was written"), std::string::npos) << tool.Out();
    const Lines requests = tool.station.Requests();
    for (const char* changing : {"0x130", "0x133", "0x134"}) {
      EXPECT_TRUE(std::ranges::none_of(
          requests, [&](const std::string& request) { return request.starts_with(changing); }));
    }
  }
}

TEST(UpdateCommand, ATunnelFoundOpenIsClosedAndTheUpdateWorksAtOnce) {
  for (const std::uint16_t open : {std::uint16_t{0x0401}, std::uint16_t{0x0402}}) {
    tavosim::DeviceOptions options = Options("tunnel");
    options.openTunnel = open;
    Tool tool(options);
    EXPECT_EQ(tool.Update(), 0) << tool.Out() << tool.Err();
    EXPECT_TRUE(tool.UpdatedAndRuns());
    EXPECT_EQ(tool.station.device.OpenTunnel(), 0);
  }
}

TEST(UpdateCommand, NothingIsOpenedForABadFileAndNoWrongDeviceIsTaken) {
  struct Row {
    const char* line;
    ExitCode exit;
  };
  const Row rows[] = {
      {"update none.hex", ExitCode::BadFile},
      {"update /tmp", ExitCode::BadFile},
      {"recover none.zip", ExitCode::BadFile},
      {"update FILE --usb 3-9", ExitCode::NoDevice},
      {"update FILE --ftdi NOBODY", ExitCode::NoDevice},
      {"update FILE --usb 1-4-2 --ftdi TAVO0001", ExitCode::Usage},
      {"update FILE --no-such-option", ExitCode::Usage},
      {"update", ExitCode::Usage},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.line);
    Tool tool(Options("plain"));
    std::string line = row.line;
    if (const std::size_t at = line.find("FILE"); at != std::string::npos) {
      line.replace(at, 4, tool.File());
    }
    EXPECT_EQ(tool.Run(line), static_cast<int>(row.exit));
    EXPECT_NE(tool.Err().find("hint: "), std::string::npos) << tool.Err();
    EXPECT_EQ(tool.station.Requests(), Lines());
    EXPECT_EQ(tool.station.usb.OpenHandles(), 0);
  }
}

TEST(RecoverCommand, RevivesADeviceLeftErasedAndGivesItItsLabel) {
  for (const tavosim::Family& family : tavosim::kFamilies) {
    SCOPED_TRACE(family.name);
    tavosim::DeviceOptions options = tavosim::OptionsFor(family);
    options.applicationIntact = false;
    options.start = DeviceState::Bootloader;
    Tool tool(options);
    EXPECT_EQ(tool.Run("recover " + tool.File() + " --log " + tool.Log()), 0)
        << tool.Out() << tool.Err();
    EXPECT_TRUE(tool.UpdatedAndRuns());
    EXPECT_EQ(tool.station.device.Label().has_value(), family.adbType == 5);
  }
}

// A device whose application runs gets all the checks of an ordinary update.
TEST(RecoverCommand, DoesNotWriteAWrongFirmwareOverARunningApplication) {
  tavosim::DeviceOptions options = Options("plain");
  options.family.hardwareId = 0x8990;
  Tool tool(options);
  const tavosim::Family& other = *tavosim::FindFamily("plain");
  tavosim::WriteFile(tool.File(),
                     tavosim::HexText(tavosim::BuildFirmware(tavosim::RecipeFor(other))));
  const std::vector<std::uint8_t> before = tool.station.device.ApplicationFlash().Bytes();
  EXPECT_EQ(tool.Run("recover " + tool.File() + " --log " + tool.Log()),
            static_cast<int>(ExitCode::FailedRuns));
  EXPECT_TRUE(tool.Err().starts_with("firmware-updater: hardware-id: ")) << tool.Err();
  EXPECT_TRUE(tool.station.ApplicationRuns());
  EXPECT_EQ(tool.station.device.ApplicationFlash().Bytes(), before);
}

// Every way in which a device may be found, met by the right and by a wrong file: what is said at the
// end is true, and a wrong firmware is written over nothing.
TEST(UpdateCommand, SaysTheTruthHoweverTheDeviceIsFoundAndWhicheverFileItGets) {
  struct Found {
    const char* how;
    DeviceState start;
    bool intact;
  };
  const Found founds[] = {{"application", DeviceState::Application, true},
                          {"bootloader", DeviceState::Bootloader, true},
                          {"erased", DeviceState::Bootloader, false}};
  for (const Found& found : founds) {
    for (const char* command : {"update", "recover"}) {
      for (const bool right : {true, false}) {
        SCOPED_TRACE(std::string(found.how) + " " + command + (right ? "" : ", wrong file"));
        tavosim::DeviceOptions options = Options("plain");
        options.start = found.start;
        options.applicationIntact = found.intact;
        Tool tool(options);
        const std::vector<std::uint8_t> before = tool.station.device.ApplicationFlash().Bytes();
        if (!right) {
          const tavosim::Family& other = *tavosim::FindFamily("labelled");
          tavosim::WriteFile(tool.File(),
                             tavosim::HexText(tavosim::BuildFirmware(tavosim::RecipeFor(other))));
        }
        const int exit =
            tool.Run(std::string(command) + " " + tool.File() + kTarget + " --log " + tool.Log());
        const bool revives = found.intact || std::string(command) == "recover";
        EXPECT_EQ(exit == 0, right && revives) << tool.Out() << tool.Err();
        if (exit == 0) {
          EXPECT_TRUE(tool.UpdatedAndRuns());
          continue;
        }
        EXPECT_EQ(tool.station.device.ApplicationFlash().Bytes(), before);
        EXPECT_EQ(exit, tool.station.ApplicationRuns() ? 1 : 5) << tool.Out();
        if (right) {
          const std::string next = tool.Recommended();
          EXPECT_EQ(tool.Run(next + " --log " + tool.Log()), 0) << next;
          EXPECT_TRUE(tool.UpdatedAndRuns());
        } else if (revives) {
          EXPECT_EQ(tool.LastLine().find(tool.File()), std::string::npos)
              << "the wrong file is not recommended again";
        }
      }
    }
  }
}

TEST(RecoverCommand, DoesNotWriteThroughATunnelThatWasLeftOpen) {
  tavosim::DeviceOptions options = Options("tunnel");
  options.family.processorId = 0x1E9748;
  options.applicationIntact = false;
  options.openTunnel = 0x0401;
  Tool tool(options);
  const std::vector<std::uint8_t> before = tool.station.device.ApplicationFlash().Bytes();
  const tavosim::Family& other = *tavosim::FindFamily("plain");
  tavosim::WriteFile(tool.File(),
                     tavosim::HexText(tavosim::BuildFirmware(tavosim::RecipeFor(other))));
  EXPECT_NE(tool.Run("recover " + tool.File() + kTarget + " --log " + tool.Log()), 0);
  EXPECT_EQ(tool.station.device.ApplicationFlash().Bytes(), before);
  EXPECT_EQ(tool.station.device.OpenTunnel(), 0);
}

TEST(UpdateCommand, FilesThatCannotBeWrittenAreToldOfBeforeAnythingIsOpened) {
  for (const char* option : {" --log /nonexistent/x.log", " --record /nonexistent/x.ndjson"}) {
    Tool tool(Options("plain"));
    EXPECT_EQ(tool.Run("update " + tool.File() + option), 2);
    EXPECT_NE(tool.Err().find("/nonexistent/x"), std::string::npos) << tool.Err();
    EXPECT_EQ(tool.station.Requests(), Lines());
  }
}

TEST(Replay, FollowsWhatWasRecordedAndNoticesWhatWasNot) {
  for (const char* fault : {"lose:id=0x134:3", "lose:id=0x130:1", "powercut:id=0x134:9",
                            "unplug:id=0x134:5:300ms", "damage:id=0x121:1"}) {
    SCOPED_TRACE(fault);
    Tool tool(Options("plain"), {fault});
    const std::string record = tool.station.platform.Folder() + "record.ndjson";
    tool.Update(" --record " + record);
    EXPECT_EQ(tool.Run("replay " + record), 0) << tool.Out() << tool.Err();
    EXPECT_EQ(FileText(record).find("A8D304"), std::string::npos) << "no block of the firmware";
    std::string changed = FileText(record);
    changed.replace(changed.rfind("\"device\":\"") + 10, 1, "x");
    tavosim::WriteFile(record, changed);
    EXPECT_EQ(tool.Run("replay " + record), 1) << tool.Out();
  }
}

// A failure that was recorded becomes a test when its record is put into this folder.
TEST(Replay, EveryKeptRecordIsFollowed) {
  int records = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator(TAVO_SOURCE_DIR "/tests/tools/records")) {
    Tool tool(Options("plain"));
    EXPECT_EQ(tool.Run("replay " + entry.path().string()), 0) << tool.Out() << tool.Err();
    ++records;
  }
  EXPECT_GT(records, 0);
}

TEST(UpdateRecord, IsOneObjectALineAndAddsUp) {
  Tool tool(Options("plain"), {"lose:id=0x134:3"});
  EXPECT_EQ(tool.Update(" --json"), 0) << tool.Out();
  Json last;
  double phases = 0;
  int retries = 0;
  for (const std::string& line : test::LinesOf(tool.Out())) {
    last = Json::parse(line);
    EXPECT_EQ(last.at("version"), 1);
    if (last.at("event") == "phase" && last.contains("seconds")) phases += double{last["seconds"]};
    retries += last.at("event") == "retry" ? 1 : 0;
  }
  EXPECT_EQ(last.at("event"), "result");
  EXPECT_EQ(last.at("ending"), "succeeded");
  EXPECT_EQ(last.at("state").at("device"), "updated-and-verified");
  EXPECT_EQ(last.at("retries"), 1);
  EXPECT_EQ(retries, 1);
  EXPECT_EQ(last.at("before").at("deviceId"), 0x0101);
  EXPECT_EQ(last.at("before").at("hardwareId"), 0x8410);
  EXPECT_EQ(last.at("before").at("bootloaderVersion"), 3);
  EXPECT_EQ(last.at("after").at("softwareId"), 0x1234);
  EXPECT_EQ(std::string(last.at("sha256")).size(), 64U);
  double durations = 0;
  for (const auto& [name, seconds] : last.at("durations").items()) durations += double{seconds};
  EXPECT_NEAR(durations, phases, 0.01);
  EXPECT_LE(durations, double{last.at("seconds")} + 0.01);
  EXPECT_EQ(tool.Err(), "");
}

TEST(UpdateRecord, EveryRefusalHasOneToo) {
  Tool tool(Options("plain"));
  EXPECT_EQ(tool.Run("update none.hex --json"), 4);
  const Json refusal = Json::parse(tool.Out());
  EXPECT_EQ(refusal.at("event"), "result");
  EXPECT_EQ(refusal.at("exit"), 4);
  EXPECT_EQ(refusal.at("failure").at("name"), "bad-file");
}

}  // namespace
}  // namespace tavo::tool
