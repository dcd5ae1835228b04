// Several devices at once: what their processes report, as one table and as one stream.
#include <gtest/gtest.h>

#include <sstream>

#include "device/target_choice.h"
#include "tests/tools/tool_station.h"
#include "text/panels.h"
#include "update/fleet_view.h"
#include "update/station.h"

namespace tavo::tool {
namespace {

std::string TextOf(const LiveLine& line) {
  std::string text;
  for (const Span& span : line) text += span.text;
  return text;
}

struct ReportedCase {
  const char* line;
  const char* wide;
  const char* narrow;
};

const ReportedCase kReported[] = {
    {R"({"event":"note","text":"x"})", "usb-1-4  ", "usb-1-4  "},
    {R"({"event":"phase","phase":"erase","state":"begins"})", "usb-1-4  Erasing",
     "usb-1-4  Erasing"},
    {R"({"event":"phase","phase":"write","state":"begins"})", "usb-1-4  Writing",
     "usb-1-4  Writing"},
    {R"({"event":"bytes","written":3,"due":4})",
     "usb-1-4  Writing  75 %         [###############-----]", "usb-1-4  Writing  75 %"},
    {R"({"event":"retry","request":"ALIVE","refused":{}})", "usb-1-4  no answer to: ALIVE",
     "usb-1-4  no answer to: ALIVE"},
    {R"({"event":"bytes","written":4,"due":4})",
     "usb-1-4  Writing 100 %         [####################]", "usb-1-4  Writing 100 %"},
    {R"({"event":"a later version's"})", "usb-1-4  Writing 100 %         [####################]",
     "usb-1-4  Writing 100 %"},
    {R"({"event":"result","ending":"failed","exit":5,"failure":{"name":"verify"}})",
     "usb-1-4  FAILED: verify", "usb-1-4  FAILED: verify"},
    {R"({"event":"result","ending":"succeeded","exit":8,"lost":["log"]})",
     "usb-1-4  FAILED: evidence is lost", "usb-1-4  FAILED: evidence is lost"},
    {R"({"event":"result","ending":"succeeded","exit":0,"seconds":2})", "usb-1-4  done 2.0 s",
     "usb-1-4  done 2.0 s"},
};

TEST(FleetView, ARowFollowsItsDeviceAndTheStreamNamesIt) {
  ToolMachine station;
  DeviceProgress device({TransportKind::Usb, "1-4"});
  const auto stream = MakeFleetView(station.run.machine, true, false, 1);
  for (const ReportedCase& row : kReported) {
    SCOPED_TRACE(row.line);
    const Json line = Json::Parse(row.line);
    device.Take(line);
    EXPECT_EQ(TextOf(device.Row(7, 79)), row.wide);
    EXPECT_EQ(TextOf(device.Row(7, 39)), row.narrow);
    stream->Reported(device, line);
  }
  EXPECT_TRUE(station.run.Says(R"({"device":"usb-1-4","event":"bytes","written":3,"due":4})"));
}

TEST(ChooseTargets, ADeviceIsSelectedOnceByWhicheverName) {
  ToolMachine station;
  station.usb.devices = {{.ports = {4, 2}}, {.ports = {5}}};
  const auto chosen = [&](const SeveralTargets& named) {
    std::string names;
    for (const Target& target : ChooseTargets(station.run.machine, named)) {
      names += TargetOptions(target) + " ";
    }
    return names;
  };
  EXPECT_EQ(chosen({.ftdiSerials = {"A"}, .all = true}), "--usb 4-2 --usb 5 --ftdi A ");
  EXPECT_EQ(chosen({.usbPorts = {"1-4.2", "7"}}), "--usb 4-2 --usb 7 ");
  EXPECT_THROW(chosen({.usbPorts = {"4-2", "1-4.2"}}), Refusal);
  EXPECT_THROW(chosen({.usbPorts = {"5"}, .all = true}), Refusal);
  EXPECT_EQ(std::ranges::count(station.usb.calls, "Open 5"), 0);
  station.usb.devices.clear();
  EXPECT_THROW(chosen({.all = true}), Refusal);
}

// The lines of a table that is redrawn; its rows are counted again when the window has become narrower.
TEST(FleetView, ATableIsRedrawnInPlaceAndWhatIsSaidStaysAboveIt) {
  ToolMachine station;
  station.run.machine.terminal = true;
  static int width = 40;
  station.run.machine.width = [] { return width; };
  LiveLines lines(station.run.machine);
  lines.Show({{{std::string(60, 'a')}}, {{"b"}, {"c"}}});
  EXPECT_EQ(station.run.Out(), std::string(39, 'a') + "\nbc");
  width = 20;
  lines.Say("said");
  lines.Show({{{"d"}}});
  EXPECT_TRUE(station.run.Out().ends_with("bc\x1B[2A\r\x1B[Jsaid\nd")) << station.run.Out();
  station.run.machine.height = [] { return 3; };
  lines.Show({{{"e"}}, {{"f"}}, {{"g"}}});
  EXPECT_TRUE(station.run.Out().ends_with("d\r\x1B[Je\nf")) << station.run.Out();
}

TEST(StationPort, WaitsForASteadyContactTriesOnceMoreAndShowsItsVerdictUntilUnplugged) {
  using namespace std::chrono_literals;
  using State = Port::State;
  const Task task{.file = "f.hex", .target = {TransportKind::Usb, "4"}};
  const Json failed =
      Json::Parse(R"({"exit":5,"state":{"next":"firmware-updater recover f.hex --usb 4"}})");
  Port port;
  EXPECT_FALSE(port.Look(0ms, true) || port.Look(900ms, false) || port.Look(1000ms, true));
  EXPECT_FALSE(port.Look(1999ms, true));
  EXPECT_TRUE(port.Look(2000ms, true));
  port.Begin();
  EXPECT_FALSE(port.Look(9s, true));
  EXPECT_EQ(port.End(9s, task, failed), Purpose::Recover);
  port.Begin();
  EXPECT_EQ(port.End(10s, task, failed), std::nullopt);
  EXPECT_EQ(port.Current(), State::Failed);
  for (const auto now : {11s, 12s, 13s}) port.Look(now, now == 11s);
  EXPECT_EQ(port.Current(), State::Failed);  // unplugged, but hardly seen yet
  port.Look(14s, true);
  EXPECT_TRUE(port.Look(15s, true));  // the next device
  port.Begin();
  EXPECT_EQ(port.End(16s, task, Json::Parse(R"({"exit":0,"state":{}})")), std::nullopt);
  EXPECT_EQ(port.Current(), State::Passed);
  EXPECT_EQ(port.End(16s, task, Json::Parse(R"({"exit":1,"state":{"next":"other"}})")),
            std::nullopt);
  EXPECT_EQ(port.End(16s, task, Json::Parse(R"({"exit":6,"ending":"stopped","state":{}})")),
            std::nullopt);
  EXPECT_EQ(port.Current(), State::Stopped);
}

TEST(Panels, FitEveryWindowAndTheWordIsThere) {
  const std::vector<Panel> panels{
      {"usb-1", "PASS"}, {"usb-2", "FAIL"}, {"usb-3", "STOP"}, {"usb-4"}, {"usb-5", "PASS"}};
  for (const std::size_t room : {1U, 23U, 39U, 79U, 199U}) {
    for (const std::size_t rows : {1U, 7U, 23U, 60U}) {
      const auto lines = DrawPanels(panels, room, rows, false);
      std::string text;
      for (const LiveLine& line : lines) {
        const std::string row = TextOf(line);
        text += row;
        EXPECT_TRUE(row.size() <= room || lines.size() == panels.size()) << row;
      }
      EXPECT_TRUE(lines.size() <= rows || lines.size() == panels.size()) << lines.size();
      EXPECT_TRUE(text.find("PASS") != std::string::npos || text.find("####") != std::string::npos);
    }
  }
}

}  // namespace
}  // namespace tavo::tool
