// The commands that update, as a user types them, against simulated devices on a virtual clock. What
// the tool says at the end is held against what the device really is, and the command that it
// recommends is run.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>

#include "file/digest.h"
#include "package/adb_view.h"
#include "package/file_reading.h"
#include "system/system.h"
#include "tests/tools/situation.h"
#include "update/closing_state.h"
#include "update/wire_record.h"

#ifndef _WIN32
#include <sys/resource.h>
#include <unistd.h>
#endif

namespace tavo::tool {
namespace {

#ifdef _WIN32
constexpr int kHangUp = SIGTERM;  // both are Ctrl-Break there
#else
constexpr int kHangUp = SIGHUP;
#endif

using enum DeviceCondition;
using enum ExitCode;
using namespace std::chrono_literals;
using tavosim::DeviceState;
using test::Lines;

// The file vanishes when the tool has asked its first question, before the engine starts.
TEST(UpdateCommand, TheFileIsReadOnceToJudgeHashAndWriteTheSameBytes) {
  ToolStation station(Options("plain"));
  const std::filesystem::path file = station.run.Path("firmware.hex");
  station.AtRequest("0x", 1, [&] { EXPECT_TRUE(std::filesystem::remove(file)); });
  EXPECT_EQ(station.Update(), Done) << station.run.Err();
  EXPECT_TRUE(station.UpdatedAndRuns());
}

// One thing that goes wrong, and what the tool must say of it. A recovery begins with an erased device.
struct Trouble {
  const char* family;
  const char* command;
  const char* fault;
  ExitCode exit;
  DeviceCondition condition;
};

const Trouble kTroubles[] = {
    {"plain", "update", "lose:id=0x120:*", FailedRuns, OldApplicationRuns},
    {"plain", "update", "lose:id=0x130:1", FailedUnknown, Unknown},
    {"plain", "update", "lose:id=0x136:*", FailedRuns, UpdatedNotVerified},
    {"plain", "update", "lose:id=0x132:*", FailedRuns, OldApplicationRuns},
    {"plain", "update", "lose:id=0x134:*", FailedInBootloader, BootloaderFlashErased},
    {"plain", "update", "powercut:id=0x134:9", FailedInBootloader, BootloaderFlashErased},
    {"labelled", "update", "lose:id=0x12F:2", FailedRuns, RunsIncomplete},
    {"tunnel", "update", "lose:id=0x134:*", FailedInBootloader, BootloaderFlashErased},
    {"drive", "update", "lose:id=0x130:1", FailedUnknown, Unknown},
    {"plain", "recover", "lose:id=0x134:*", FailedInBootloader, BootloaderFlashErased},
    // The second run, which sets the label, fails.
    {"labelled", "recover", "lose:id=0x121:3+", FailedRuns, RunsIncomplete},
    {"labelled", "recover", "lose:260+", FailedUnknown, Unknown},
};

TEST(UpdateCommand, ATroubleIsToldAsItIsAndTheRecommendedCommandEndsIt) {
  for (const Trouble& trouble : kTroubles) {
    SCOPED_TRACE(std::string(trouble.family) + " " + trouble.fault);
    tavosim::DeviceOptions options = Options(trouble.family);
    options.applicationIntact = trouble.command == std::string("update");
    ToolStation station(options, false, {trouble.fault});
    const std::vector<std::uint8_t> before = station.Flash();
    const std::string arguments = " @firmware.hex --usb 1-4-2 --log @tool.log --extended-erase";
    EXPECT_EQ(station.run(trouble.command + arguments), trouble.exit)
        << station.run.Out() << station.run.Err();
    EXPECT_TRUE(station.run.Err().starts_with("firmware-updater: timeout: ")) << station.run.Err();
    EXPECT_TRUE(station.run.Complains("\nhint: "));
    EXPECT_TRUE(station.run.LastLine().starts_with(SentenceOf(trouble.condition)))
        << station.run.LastLine();
    EXPECT_TRUE(station.Holds(trouble.condition, before));

    station.device.ClearFaults();
    const std::string next = station.run.Recommended();
    EXPECT_TRUE(next.ends_with(" --extended-erase")) << next;
    EXPECT_EQ(station.run(next + " --log @tool.log"), Done) << next << "\n" << station.run.Err();
    EXPECT_TRUE(station.UpdatedAndRuns());
    EXPECT_EQ(station.device.OpenTunnel(), 0);
    EXPECT_EQ(station.device.Label().has_value(), station.device.Options().family.adbType == 5);
  }
}

// A device that differs from the one that the file is for.
TEST(UpdateCommand, AFailureNamesItsCauseAndNotItsConsequence) {
  const struct {
    void (*change)(tavosim::Family& family);
    const char* fault;
    const char* options;
    const char* says;
  } kRows[] = {
      {[](auto& family) { family.hardwareId = 0x8990; }, "lose:id=0x100:5+", "",
       "hardware-id: the file is for hardware 8.4.1.0, the device is 8.9.9.0"},
      {[](auto& family) { family.hardwareId = 0x8990; }, "lose:500", " --skip-identity-check", ""},
      {[](auto& family) { family.applicationKiB = 32; }, "lose:500", "",
       "application-size: the firmware has 16 KiB, the device takes exactly 32 KiB"},
      {[](auto& family) { family.processorId = 0x1E9842; }, "lose:500", "",
       "firmware: the file is for processor 0x1E9748, the device has 0x1E9842"},
      {[](auto& family) { family.bootloaderVersion = 0; }, "lose:500", "",
       "bootloader-version: The bootloader is incompatible."},
      {[](auto& family) { family.blockSize = 24; }, "lose:500", "",
       "block size of 24, which does not divide the application section of 16384 bytes"},
      {[](auto& family) { family.processorId = 0x48971E; }, "lose:500", "",
       "The bytes are swapped: a bootloader answers PROCESSOR high byte first."},
      {[](auto& family) { family.hardwareId = 0x1084; }, "lose:500", "",
       "The bytes are swapped: a bootloader answers HARDWARE low byte first."},
      {[](auto&) {}, "empty:id=0x122:*", "",
       "hardware-id: The answer to HARDWARE is too short: 0 of 2 bytes (hardware id)."},
      {[](auto&) {}, "empty:id=0x121:*", "", ", block size 128\n"},
      {[](auto&) {}, "damage:id=0x130:1:3.0", "",
       "No answer to ERASE, mode 1 (Timeout: Erase Request); 4 bytes came, no answer among them: "
       "checksum wrong."},
      {[](auto&) {}, "delay:id=0x130:1:5s", "", "within 4 s; it came after 5.1 s."},
      {[](auto&) {}, "lose:id=0x133:121+", "", "No answer to POSITION, address 0x00008000"},
  };
  const std::pair<BenchLine, bool> kPlaces[] = {
      {kLines[0], false}, {kLines[0], true}, {kLines[2], false}};
  for (const auto& [line, inBootloader] : kPlaces) {
    for (const auto& row : kRows) {
      tavosim::DeviceOptions options = Options("plain");
      row.change(options.family);
      options.start = inBootloader ? DeviceState::Bootloader : DeviceState::Application;
      ToolStation station(options, line.echoes, {row.fault});
      station.TakeFileOf("plain");
      const std::string command = inBootloader ? "recover" : "update";
      const ExitCode exit =
          station.run(command + " @firmware.hex --log @tool.log " + line.options + row.options);
      EXPECT_EQ(exit == Done, *row.says == '\0') << station.run.Err();
      EXPECT_TRUE(station.run.Complains(row.says)) << row.says << station.run.Err();
      EXPECT_TRUE(exit == Done || station.run.Complains("bootloader version "));
    }
  }
  ToolStation station(Options("plain"));
  station.usb.failSend = [&] {
    const Lines requests = station.Requests();
    return !requests.empty() && requests.back() == "0x132";
  };
  EXPECT_EQ(station.Update(), FailedUnknown);
  EXPECT_TRUE(station.run.Complains("not-sent: A request could not be sent")) << station.run.Err();
}

TEST(ClosingState, HoldsForSeveralRunsAndAnyFileName) {
  EXPECT_EQ(Following(UpdatedAndVerified, BootloaderAsFound), BootloaderFlashIntact);
  EXPECT_EQ(Following(UpdatedAndVerified, Untouched), Unknown);
  EXPECT_EQ(Following(BootloaderFlashErased, BootloaderAsFound), BootloaderAsFound);
  EXPECT_EQ(CommandLine({Purpose::Update, "-x.hex", {TransportKind::Usb, "1"}, {}}),
            "firmware-updater update ./-x.hex --usb 1");
}

TEST(UpdateCommand, PathsMayHaveAnyLettersAndMoreThan260OfThem) {
  ToolStation station(Options("plain"));
  const std::string folder = "\xC3\xBC\xE5\xAD\x97" + std::string(150, 'x');
  const std::string place = TextOf(station.run.Path("") / PathOf(folder) / PathOf(folder)) + "/";
  std::filesystem::create_directories(PathOf(place));
  std::filesystem::rename(station.run.Path("firmware.hex"), PathOf(place + "fw.hex"));
  EXPECT_EQ(station.run("update " + place + "fw.hex --usb 1-4-2 --json --log " + place +
                        "l --record " + place + "r"),
            Done)
      << station.run.Err();
  EXPECT_TRUE(station.UpdatedAndRuns());
  const Json last = Json::Parse(station.run.LastLine());
  EXPECT_TRUE(Plain(last["file"]).ends_with("fw.hex")) << last.Text();
  for (const char* file : {"l", "r"}) {
    EXPECT_NE(std::filesystem::file_size(PathOf(place + file)), 0u);
  }
}

TEST(UpdateCommand, WhatCannotBeDoneIsToldBeforeAnythingIsOpenedAndNoWrongDeviceIsTaken) {
  const struct {
    const char* line;
    ExitCode exit;
    const char* phrase = "hint: ";
  } kRows[] = {
      {"update none.hex", BadFile},
      {"update /tmp", BadFile},
      {"recover none.zip", BadFile},
      {"update @firmware.hex --usb 3-9", NoDevice},
      {"update @firmware.hex --ftdi NOBODY", NoDevice},
      {"recover @firmware.hex --usb 1-4-2 --ftdi TAVO0001", Usage},
      {"update @firmware.hex --no-such-option", Usage},
      {"update", Usage},
      {"update @firmware.hex --log /nonexistent/x.log", Usage, "/nonexistent/x"},
      {"update @firmware.hex --record /nonexistent/x.ndjson", Usage, "/nonexistent/x"},
      {"update @firmware.hex --log @firmware.hex", Usage, "is the update file itself"},
      {"recover @firmware.hex --record @./firmware.hex", Usage, "is the update file itself"},
      {"update @firmware.hex --log @both --record @both", Usage, "the same file"},
      {"update @firmware.hex --record \"\"", Usage, "--record: is empty"},
      {"update @firmware.hex --journal /nonexistent/x", Usage, "/nonexistent/x"},
      {"update @firmware.hex --journal @firmware.hex", Usage, "is the update file itself"},
      {"update @firmware.hex --log @both --journal @both", Usage, "is also the log"},
      {"update @firmware.hex --tag unit", Usage, "NAME=VALUE"},
      {"update @firmware.hex --tag a=1 --tag a=2", Usage, "--tag names a twice"},
      {"info --baud 9600", Usage},
      {"info --usb \"\"", Usage},
      {"info --ftdi TAVO0001 --baud 0", Usage},
      {"info --ftdi TAVO0001 --baud fast", Usage},
#ifndef _WIN32
      {"update @firmware.hex --log /dev/full", Usage,
       "/dev/full cannot be written\nhint: name another file with --log"},
      {"update @firmware.hex --record /dev/full", Usage, "with --record"},
      {"replay /dev/zero", BadFile, "is a device, not a file"},
#endif
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.line);
    ToolStation station(Options("plain"));
    const std::string firmware = station.run.Read("firmware.hex");
    EXPECT_EQ(station.run(row.line), row.exit);
    EXPECT_TRUE(station.run.Complains(row.phrase)) << station.run.Err();
    EXPECT_EQ(station.Requests(), Lines());
    EXPECT_EQ(station.usb.handles, 0);
    EXPECT_EQ(station.run.Read("firmware.hex"), firmware);
  }
}

#ifndef _WIN32
TEST(UpdateCommand, ALogThatNobodyAskedForKeepsNoUpdateFromBeingDone) {
  const char* const state = std::getenv("XDG_STATE_HOME");
  const std::string before = state == nullptr ? "" : state;
  const test::TemporaryFolder others;
  constexpr uid_t kNobody = 65534;
  const bool isRoot = chown(others.Path().c_str(), kNobody, kNobody) == 0;
  for (const char* folder : {"/proc/nowhere", isRoot ? others.Path().c_str() : "/usr"}) {
    setenv("XDG_STATE_HOME", folder, 1);
    ToolStation station(Options("plain"));
    EXPECT_EQ(station.run("update @firmware.hex"), Done) << station.run.Err();
    EXPECT_TRUE(station.run.Says("No log is kept")) << folder << station.run.Out();
  }
  EXPECT_TRUE(std::filesystem::is_empty(others.Path()));
  ToolStation linked(Options("plain"));
  setenv("XDG_STATE_HOME", linked.run.Path("").c_str(), 1);
  const std::filesystem::path folder = linked.run.Path("firmware-updater");
  std::filesystem::create_directory(folder);
  std::filesystem::create_symlink("elsewhere", folder / "usb-1-4-2_1.log");
  EXPECT_EQ(linked.run("update @firmware.hex"), Done);
  EXPECT_TRUE(linked.run.Says("_1.log is not a regular file. Name a file with --log."));
  // Without a folder of that name, it is the one below HOME.
  const std::string home = std::getenv("HOME");
  ToolStation station(Options("plain"));
  setenv("XDG_STATE_HOME", "", 1);
  setenv("HOME", station.run.Path("").c_str(), 1);
  EXPECT_EQ(station.run("update @firmware.hex"), Done) << station.run.Err();
  EXPECT_NE(station.run.Read(".local/state/firmware-updater/usb-1-4-2_1.log"), "");
  setenv("HOME", home.c_str(), 1);
  setenv("XDG_STATE_HOME", before.c_str(), 1);
}

TEST(UpdateCommand, AFullDiskIsReportedAtOnceAndAtTheEnd) {
  const struct {
    const char* options;
    rlim_t room;
    const char* warning;
    const char* lost;
  } kRows[] = {{" --log @full", 2000, "Warning: the log cannot", "[\"log\"]"},
               {" --log /dev/null --record @full", 9000, "Warning: the record of", "[\"record\"]"},
               {" --log /dev/null --journal @full", 1000, "", "[\"journal\"]"}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.options);
    ToolStation station(Options("plain"));
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit full{row.room, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
    EXPECT_EQ(station.run("update @firmware.hex --json" + std::string(row.options)), EvidenceLost);
    setrlimit(RLIMIT_FSIZE, &before);
    const Json last = Json::Parse(station.run.LastLine());
    EXPECT_EQ(last["lost"].Text(), row.lost);
    EXPECT_EQ(last["exit"], 8);
    EXPECT_TRUE(station.UpdatedAndRuns());
    const std::string screen = station.run.Out();
    EXPECT_LT(screen.find(row.warning), screen.find("\"phase\":\"verify\"")) << screen;
  }
}

#endif

// The record of a stopped update can be followed too.
TEST(UpdateCommand, ASignalStopsItBeforeTheNextRequestUnlessItIsIgnored) {
  const struct {
    const char* family;
    const char* request;
    int number;
    int signal;
    const char* says;  // empty: the signal changes nothing
  } kRows[] = {
      {"plain", "0x100 BB 0A", 1, SIGINT, "nothing has been written yet"},
      {"plain", "0x130", 1, SIGTERM, "the application is erased or partly written"},
      {"tunnel", "0x134", 9, kHangUp, "The tunnel to it is still open"},
      {"plain", "0x136", 1, SIGINT, "the firmware is completely written"},
      {"labelled", "0x100 A0", 1, SIGINT, "its label may not be set"},
#ifndef _WIN32
      {"plain", "0x134", 9, SIGHUP, ""},
      {"plain", "0x134", 9, SIGPIPE, ""},
#endif
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(std::string(row.family) + " " + row.request);
    const bool stops = *row.says != '\0';
#ifndef _WIN32
    std::signal(SIGHUP, stops ? SIG_DFL : SIG_IGN);
    std::signal(SIGPIPE, SIG_DFL);
#endif
    std::signal(SIGINT, SIG_DFL);  // a shell's background job ignores it
    ToolStation station(Options(row.family));
    const std::vector<std::uint8_t> before = station.Flash();
    station.AtRequest(row.request, row.number,
                      [&] { EXPECT_EQ(station.run.Signal(row.signal, stops), stops); });
    EXPECT_EQ(station.Update(" --json --record @record.ndjson"), stops ? Stopped : Done);
    EXPECT_TRUE(station.run.Says(row.says)) << station.run.Out();
    const Json last = Json::Parse(station.run.LastLine());
    EXPECT_EQ(last["ending"], stops ? "stopped" : "succeeded");
    EXPECT_TRUE(station.IsIn(Plain(last["state"]["device"]), before)) << station.run.LastLine();
    EXPECT_EQ(station.run("replay @record.ndjson"), Done) << station.run.Err();
  }
#ifndef _WIN32
  std::signal(SIGHUP, SIG_DFL);
#endif
}

TEST(UpdateCommandDeathTest, ASecondSignalEndsItAtOnce) {
  std::signal(SIGINT, SIG_DFL);  // a shell's background job ignores it
  for (const auto& [options, next] : {std::pair{"", "recover"}, {" --dry-run", "update"}}) {
    ToolStation station(Options("plain"));
    station.AtRequest("0x122", 1, [&] {
      station.run.Signal(SIGINT);
      station.run.Signal(SIGINT);
    });
    EXPECT_EXIT(station.Update(options), testing::ExitedWithCode(6),
                std::string("Ended at once: nothing has been written yet.* firmware-updater ") +
                    next + " .*firmware.hex --usb 1-4-2");
  }
}

TEST(UpdateCommand, AnAdapterGetsItsLatencyTimerBackOnEveryRoadOut) {
  const Lines shortened{"GetLatencyTimer", "SetLatencyTimer 1", "SetLatencyTimer 16"};
  const auto defect = []() -> int { throw std::runtime_error("a defect"); };
  const auto latencyCalls = [](ToolStation& station) {
    Lines calls = station.d2xx.TakeCalls();
    std::erase_if(calls, [](const auto& call) { return call.find("Latency") == call.npos; });
    return calls;
  };
  const struct {
    const char* command;
    std::function<void(ToolStation&)> prepare;
    ExitCode exit;
    Lines calls;
  } kRoads[] = {
      {"update @firmware.hex", [](auto&) {}, Done, shortened},
      {"recover @firmware.hex", [](auto&) {}, Done, shortened},
      {"check-device", [](auto&) {}, Done, shortened},
      {"check-device", [](auto& station) { station.device.Unplug({}, 1h); }, NoDevice, {}},
      {"info", [](auto&) {}, Done, {}},
      {"update @firmware.hex --keep-latency", [](auto&) {}, Done, {}},
      {"update @firmware.hex", [](auto& station) { station.d2xx.failSend = [] { return true; }; },
       FailedUnknown, shortened},
      {"update @firmware.hex",
       [](auto& station) {
         station.d2xx.failReceive = [&station, polls = 0]() mutable {
           if (++polls == 20) station.run.Signal(SIGTERM);
           return false;
         };
       },
       Stopped, shortened},
      {"update @firmware.hex",
       [&](auto& station) {
         station.run.machine.terminal = true;
         station.run.machine.width = defect;
       },
       FailedUnknown, shortened},
      {"update @firmware.hex",
       [](auto& station) { station.d2xx.status["GetLatencyTimer"] = kD2xxNotSupported; },
       Done,
       {"GetLatencyTimer"}},
      {"update @firmware.hex",
       [](auto& station) { station.d2xx.status["SetLatencyTimer"] = kD2xxIoError; },
       Done,
       {"GetLatencyTimer", "SetLatencyTimer 1", "SetLatencyTimer 2", "SetLatencyTimer 16"}},
  };
  for (const auto& road : kRoads) {
    SCOPED_TRACE(std::string(road.command) + ", exit " +
                 std::to_string(static_cast<int>(road.exit)));
    ToolStation station(Options("plain"));
    road.prepare(station);
    EXPECT_EQ(station.run(road.command + std::string(" --ftdi TAVO0001")), road.exit)
        << station.run.Err();
    EXPECT_EQ(latencyCalls(station), road.calls);
  }
  ToolStation library(Options("plain"));
  EXPECT_TRUE(library.UpdateOverFtdi());
  EXPECT_EQ(latencyCalls(library), Lines());
}

TEST(UpdateCommand, QuickNeedsNoSilenceChecksTheHardwareAndRefusesWhatNeedsMore) {
  tavosim::DeviceOptions otherHardware = Options("plain");
  otherHardware.family.hardwareId = 0x8110;
  tavosim::DeviceOptions inBootloader = Options("plain");
  inBootloader.start = DeviceState::Bootloader;
  const struct {
    tavosim::DeviceOptions device;
    ExitCode exit;
    const char* says;
    bool flashed = false;
    const char* file = "plain";
  } kRows[] = {
      {Options("plain"), Done, "The device runs the new firmware, verified.", true},
      {inBootloader, Done, "The device runs the new firmware, verified.", true},
      {otherHardware, FailedRuns, "The device runs its old firmware; nothing was written."},
      {Options("tunnel"), Usage, "run: firmware-updater update", false, "tunnel"},
      {Options("labelled"), Usage, "run: firmware-updater update", false, "labelled"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(std::string(row.file) + " " + row.says);
    ToolStation station(row.device);
    station.TakeFileOf(row.file);
    const std::vector<std::uint8_t> before = station.Flash();
    EXPECT_EQ(station.Update(" --quick"), row.exit) << station.run.Err();
    EXPECT_TRUE(station.run.Says(row.says)) << station.run.Out();
    EXPECT_EQ(station.FlashHoldsFirmware(), row.flashed);
    EXPECT_EQ(station.Flash() == before, !row.flashed);
    EXPECT_EQ(station.Requests().empty(), row.exit == Usage);
    EXPECT_LT(station.platform.MonotonicNow(), 1s);
  }
}

// The file is written in two pieces, replaced by another one, spoiled, and repaired.
TEST(UpdateCommand, WatchUpdatesOnceForEachCompleteVersionOfTheFile) {
  ToolStation station(Options("plain"));
  const std::string whole = station.run.Read("firmware.hex");
  const auto write = [&](const std::string& name, const std::string& text) {
    station.run.Write(name, text);
    // The clock of the file system may be too coarse for a test.
    const std::filesystem::file_time_type time(station.platform.MonotonicNow());
    std::filesystem::last_write_time(station.run.Path(name), time);
  };
  std::vector<std::pair<std::chrono::milliseconds, std::function<void()>>> events{
      {20s, [&] { write("firmware.hex", whole.substr(0, whole.size() / 2)); }},
      {21s, [&] { write("firmware.hex", whole); }},
      {40s,
       [&] {
         write("new.hex", whole);
         std::filesystem::rename(station.run.Path("new.hex"), station.run.Path("firmware.hex"));
       }},
      {60s, [&] { write("firmware.hex", ":00"); }},
      {80s, [&] { std::filesystem::remove(station.run.Path("firmware.hex")); }},
      {81s, [&] { write("firmware.hex", whole); }},
      {100s, [&] { station.run.Signal(SIGTERM, false); }},
  };
  station.platform.onSleep = [&, next = std::size_t{0}]() mutable {
    if (next == events.size() || station.platform.MonotonicNow() < events[next].first) return;
    events[next++].second();
  };
  EXPECT_EQ(station.Update(" --watch"), Done) << station.run.Err();
  Lines results = test::LinesOf(station.run.Out());
  results.erase(results.begin());  // the file that is watched
  for (std::string& line : results) line = line.substr(10, 9);
  EXPECT_EQ(results, (Lines{"succeeded", "succeeded", "succeeded", "failed   ", "succeeded"}))
      << station.run.Out();
  EXPECT_TRUE(station.UpdatedAndRuns());
}

// Standard output that fails, and a defect of the tool in the middle of an update.
TEST(UpdateCommand, AResultThatIsLostIsNoSuccess) {
  ToolStation station(Options("plain"));
  station.run.machine.out.setstate(std::ios::badbit);
  EXPECT_EQ(station.Update(), EvidenceLost);
  EXPECT_TRUE(station.run.Complains("the result was lost. The device runs the new firmware"));
  EXPECT_FALSE(station.run.Complains("the output was lost")) << "it is said once";
  ToolStation defective(Options("plain"));
  defective.run.machine.terminal = true;
  defective.run.machine.width = []() -> int { throw std::runtime_error("a defect"); };
  EXPECT_EQ(defective.Update(), FailedUnknown);
  EXPECT_TRUE(defective.run.Complains("unexpected: a defect"));
}

// A line that reaches the edge of the terminal goes on in the next one, where it cannot be redrawn.
TEST(UpdateCommand, OnATerminalTheLineInHandIsNarrowerThanTheTerminal) {
  int (*const widths[])() = {[] { return 1; }, [] { return 20; }, [] { return 45; },
                             [] { return 100; }};
  for (const auto width : widths) {
    SCOPED_TRACE(width());
    ToolStation station(Options("plain"));
    station.run.machine.terminal = true;
    station.run.machine.width = width;
    station.run.machine.colour = width() == 1;
    EXPECT_EQ(station.Update(), Done) << station.run.Err();
    EXPECT_EQ(station.run.Says("\x1B[32mUpdated in"), width() == 1);
    const std::string screen = station.run.Out();
    EXPECT_EQ(screen.find('\b'), std::string::npos) << "the library draws its bar another way";
    const std::string erase = "\r\x1B[J";
    for (std::size_t at = screen.find(erase); at != std::string::npos;) {
      const std::size_t begin = at + erase.size();
      at = screen.find(erase, begin);
      const std::string line = screen.substr(begin, at - begin);
      const std::size_t room = static_cast<std::size_t>(std::max(width(), 2)) - 1;
      if (line.find('\n') != std::string::npos) continue;
      EXPECT_LE(line.size(), room) << line;
    }
    EXPECT_EQ(station.run.Says("[####################] 100 %  13.0/13.0 KiB"), width() == 100);
    EXPECT_EQ(station.run.Says(" 100 %"), width() >= 45);
  }
}

// With the file for the device and, as far as that matters, with one for other hardware or another road.
TEST(UpdateCommand, SaysTheTruthInEverySituationAndItsCommandsEndWell) {
  tavosim::Family otherHardware = *tavosim::FindFamily("plain");
  otherHardware.hardwareId = 0x8990;
  tavosim::Family behindMaster = *tavosim::FindFamily("tunnel");
  behindMaster.hardwareId = 0x8151;
  behindMaster.adbType = 5;
  std::vector<Situation> situations;
  for (const tavosim::Family& device : {otherHardware, behindMaster}) {
    for (const Condition& condition : kConditions) {
      for (const char* const command : kCommands) {
        situations.push_back({device, device, kLines[0], condition, command});
        situations.push_back(
            {device, *tavosim::FindFamily(device.name), kLines[0], condition, command});
      }
    }
  }
  for (const tavosim::Family& family : tavosim::kFamilies) {
    situations.push_back({family, family, kLines[0], kConditions[0], "update @firmware.hex"});
    for (const Condition& erased : {kConditions[3], kConditions[4]}) {
      situations.push_back({family, family, kLines[0], erased, "recover @firmware.hex"});
    }
  }
  for (const Situation& situation : situations) {
    Trial trial(situation);
    EXPECT_EQ(trial.Run(), Lines()) << situation.device.name << ", " << situation.condition.name
                                    << ", " << situation.command << ": " << trial.Story();
  }
}

TEST(UpdateCommand, ASlowDeviceIsFoundInItsBootloader) {
  tavosim::DeviceOptions options = Options("plain");
  options.applicationIntact = false;
  options.answerDelay = 700ms;
  ToolStation station(options);
  EXPECT_EQ(station.Update(), FailedInBootloader);
  EXPECT_TRUE(station.run.LastLine().starts_with(SentenceOf(BootloaderAsFound)));
}

TEST(RecoverCommand, DoesNotWriteThroughATunnelThatStaysOpen) {
  for (const bool stays : {false, true}) {
    tavosim::DeviceOptions options = Options("tunnel");
    options.family.processorId = 0x1E9748;
    options.applicationIntact = false;
    options.openTunnel = 0x0401;
    ToolStation station(options);
    const std::vector<std::uint8_t> before = station.Flash();
    station.TakeFileOf("plain");
    // The request to close it, for which the tool waits 5 s, cannot be sent.
    station.usb.failSend = [&] {
      return stays && station.Requests().size() == 3 && station.platform.MonotonicNow() < 4s;
    };
    EXPECT_EQ(station.Recover(" --usb 1-4-2"), FailedUnknown);
    EXPECT_EQ(station.run.Complains("a tunnel to another device is open"), stays)
        << station.run.Err();
    EXPECT_EQ(station.Flash(), before);
    EXPECT_EQ(station.device.OpenTunnel() != 0, stays);
  }
}

TEST(Replay, FollowsWhatWasRecordedAndNoticesWhatWasNot) {
  for (const char* fault : {"lose:id=0x134:3", "lose:id=0x130:1", "powercut:id=0x134:9",
                            "unplug:id=0x134:5:300ms", "damage:id=0x121:1"}) {
    SCOPED_TRACE(fault);
    ToolStation station(Options("plain"), false, {fault});
    station.Update(" --record @record.ndjson");
    EXPECT_EQ(station.run("replay @record.ndjson"), Done) << station.run.Out() << station.run.Err();
    std::string record = station.run.Read("record.ndjson");
    EXPECT_EQ(record.find("A8D304"), std::string::npos) << "no block of the firmware";
    record.replace(record.rfind("\"device\":\"") + 10, 1, "\xC2\x9B");  // C1: steers a terminal
    station.run.Write("record.ndjson", record);
    EXPECT_EQ(station.run("replay @record.ndjson"), FailedRuns) << station.run.Out();
    EXPECT_FALSE(station.run.Complains("\xC2\x9B"));
  }
}

TEST(Replay, DecodesTheDialogueAsItWasTraced) {
  ToolStation station(Options("plain"), false, {"damage:id=0x121:1:3.0", "before:5:00FF"});
  EXPECT_EQ(station.Update(" --trace --record @record.ndjson --record-firmware"), Done);
  const auto untimed = [](const std::string& text) {
    Lines lines;
    for (const std::string& line : test::LinesOf(text)) lines.push_back(line.substr(9));
    return lines;
  };
  const Lines traced = untimed(station.run.Err());
  EXPECT_EQ(station.run("replay --decode @record.ndjson"), Done);
  EXPECT_TRUE(
      station.run.Out().starts_with("run 1 of 1: succeeded, device updated-and-verified\n"));
  Lines decoded = untimed(station.run.Out());
  decoded.erase(decoded.begin());
  EXPECT_TRUE(std::search(traced.begin(), traced.end(), decoded.begin(), decoded.end()) !=
              traced.end())
      << station.run.Out();
  for (const char* line : {"  > 1B 1B 1B                 raw, so that a master listens\n",
                           "  < A5 83 04 03 80 C7        0x120    version 3, block size 128\n",
                           "  < A6 86 04 1F 97 48 C7     refused: checksum wrong\n",
                           "                             0x121    no answer for 5.1 s\n",
                           "  < A6 86 04 1E 97 48 C7     0x121    processor 0x1E9748\n",
                           "  > A7 CD 04 00 40 00 00 74  0x133  POSITION, address 0x00004000\n",
                           "  0x134  WRITE, 128 bytes at 0x00004000\n"}) {
    EXPECT_TRUE(station.run.Says(line)) << line << station.run.Out();
  }
  EXPECT_TRUE(station.run.Says("; also refused: no frame begins with them\n"));
}

TEST(Replay, TellsABrokenRecordFromOneThatIsNotFollowed) {
  struct Row {
    const char* from;
    const char* to;
    ExitCode exit;
    const char* says;
  };
  const Row rows[] = {
      {"1B1B1B", "1B1B1C", FailedRuns, "the engine sends 1B 1B 1B"},
      {"\"ended\"", "\"end\"", BadFile, "the record breaks off before the end of its update"},
      {"\"runs\":[", "\"runs\":[[40000000,1],[40000000,2],", BadFile, "line 2 is no line"},
      {"\"t\":4.", "\"t\":1e300,\"was\":4.", BadFile, "is no line of a record"},
      {"1B1B1B", "1B1B1", BadFile, "is no line of a record"},
      {"1B1B1B", "-11B1B", BadFile, "is no line of a record"},
  };
  ToolStation station(Options("plain"));
  station.Update(" --record @whole.ndjson");
  for (const Row& row : rows) {
    SCOPED_TRACE(row.to);
    std::string record = station.run.Read("whole.ndjson");
    record.replace(record.find(row.from), std::string(row.from).size(), row.to);
    station.run.Write("record.ndjson", record);
    EXPECT_EQ(station.run("replay @record.ndjson"), row.exit) << station.run.Out();
    EXPECT_TRUE(station.run.Complains(row.says)) << station.run.Err();
  }
}

// The list of hardware ids lies in the middle of the program here.
TEST(Replay, ARecordKeepsWhatDescribesAFirmwareAndNothingBehindIt) {
  const tavosim::Firmware built =
      tavosim::BuildFirmware(tavosim::RecipeFor(*tavosim::FindFamily("variant")));
  FirmwareImage image{built.data, built.startAddress};
  constexpr std::size_t kList = 0x100;
  const AdbView view(image);
  const std::size_t entry = view.EntryAddress(0) - image.startAddress;
  const std::uint32_t address = image.startAddress + kList;
  for (unsigned i = 0; i < 3; ++i) image.data[entry + 4 + i] = address >> (8 * i) & 0xFF;
  std::copy_n(std::begin({0x10, 0x84, 0, 0}), 4, image.data.begin() + kList);

  const FirmwareImage bare = WithoutProgram(image);
  std::vector<std::uint16_t> ids;
  EXPECT_EQ(AdbView(bare).HardwareIdList(0, ids), 1);
  EXPECT_EQ(ids, std::vector<std::uint16_t>{0x8410});
  const std::span behind = std::span(bare.data).subspan(kList + 4, 1024);
  EXPECT_TRUE(std::ranges::all_of(behind, [](auto byte) { return byte == 0 || byte == 0xFF; }));
}

// A failure that was recorded becomes a test when its record is put into this folder.
TEST(Replay, EveryKeptRecordIsFollowed) {
  int records = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator(TAVO_SOURCE_DIR "/tests/tools/records")) {
    ToolMachine station;
    EXPECT_EQ(station.run("replay " + entry.path().string()), Done) << station.run.Out();
    ++records;
  }
  EXPECT_GT(records, 0);
}

// A recovery of two runs is one record.
TEST(UpdateRecord, EndsInWhatIsKnownOfTheDeviceAndTheUpdate) {
  tavosim::DeviceOptions options = Options("labelled");
  options.applicationIntact = false;
  ToolStation station(options, false, {"lose:id=0x134:3"});
  const auto now = [] {
    const auto time = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::ostringstream text;
    text << std::put_time(std::gmtime(&time), "%Y-%m-%dT%H:%M:%SZ");
    return text.str();
  };
  const std::string begin = now();
  EXPECT_EQ(station.Recover(" --json --tag unit=4711 --station bench-3"), Done)
      << station.run.Out();
  EXPECT_EQ(station.run.Err(), "");
  const Lines lines = test::LinesOf(station.run.Out());
  EXPECT_EQ(std::adjacent_find(lines.begin(), lines.end()), lines.end()) << "no line repeats one";
  const auto count = [&](const char* text) {
    return std::ranges::count_if(lines,
                                 [=](auto& line) { return line.find(text) != std::string::npos; });
  };
  EXPECT_EQ(count("\"state\":\"begins\""), 13);
  EXPECT_EQ(count("\"state\":\"ok\""), 13);
  const Json last = Json::Parse(station.run.LastLine());
  const Json::Object expected = {{"event", "result"}, {"ending", "succeeded"}, {"retries", 2}};
  for (const auto& [name, value] : expected) EXPECT_EQ(last[name], value) << name;
  EXPECT_EQ(last["state"]["device"], "updated-and-verified");
  EXPECT_EQ(last["flags"]["skipIdentityCheck"], false);
  EXPECT_EQ(last["flags"]["trace"], false);
  EXPECT_EQ(last["tags"]["unit"], "4711");
  EXPECT_EQ(last["station"], "bench-3");
  EXPECT_EQ(last["log"], station.run.Path("tool.log").make_preferred().string());
  EXPECT_EQ(last["target"]["usb"]["product"], "Control Module");
  EXPECT_EQ(last["bytes"]["written"], last["bytes"]["due"]);
  EXPECT_EQ(last["bytes"]["due"], 2 * 13312);
  EXPECT_FALSE(last["verification"]["expected"].IsNull());
  EXPECT_EQ(last["verification"]["calculated"], last["verification"]["expected"]);
  EXPECT_TRUE(last["before"]["deviceId"].IsNull()) << "it was in its bootloader";
  EXPECT_EQ(last["before"]["hardwareId"], 0x8430);
  EXPECT_EQ(last["before"]["bootloaderVersion"], 3);
  EXPECT_EQ(last["after"]["softwareId"], 0x5678);
  EXPECT_EQ(last["after"]["deviceId"], 0x0503);
  EXPECT_EQ(last["sha256"], Sha256(ReadWholeFile(station.run.Path("firmware.hex").string())));
  EXPECT_TRUE(Sha256(std::vector<std::uint8_t>{'a', 'b', 'c'}).starts_with("ba7816bf8f01cfea4141"));
  EXPECT_FALSE(last["durations"]["write"].IsNull());
  EXPECT_LE(begin, Plain(last["begin"]));
  EXPECT_LE(Plain(last["end"]), now());

  EXPECT_EQ(count("\"written\":128,\"due\":13312}"), 2) << "written and due of the first block";

  EXPECT_EQ(station.run("update none.hex --json"), BadFile);
  EXPECT_EQ(Json::Parse(station.run.Out())["failure"]["name"], "bad-file");

  EXPECT_EQ(station.run("update @firmware.hex --usb 3-9 --json --log @tool.log"), NoDevice);
  const Json failure = Json::Parse(station.run.Out())["failure"];
  EXPECT_EQ(failure["text"], "--usb 3-9 is not connected");
  EXPECT_EQ(failure["hint"],
            "check the cable and the power, or select one of these: --usb 1-4-2, --ftdi TAVO0001");
}

}  // namespace
}  // namespace tavo::tool
