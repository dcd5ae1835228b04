// Several devices at once: what their processes report, as one table and as one stream.
#include <gtest/gtest.h>

#include <sstream>

#include "device/target_choice.h"
#include "tests/tools/tool_station.h"
#include "update/fleet_view.h"

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
}

}  // namespace
}  // namespace tavo::tool
