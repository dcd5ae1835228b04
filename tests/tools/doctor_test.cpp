// doctor, on the files of a Linux system that the test makes, and on simulated lines.
#include <gtest/gtest.h>

#include "tests/tools/tool_station.h"

namespace tavo::tool {
namespace {

namespace fs = std::filesystem;

// One device at port 2 of a hub at port 4, with its serial port.
struct Doctor : testing::Test, ToolMachine {
  Doctor() {
    usb.devices = {{.ports = {4, 2}}};
    run.machine.root = run.Path("root");
    const std::string device = "sys/bus/usb/devices/1-4.2/";
    for (const auto& [file, content] : std::map<std::string, std::string>{{"idVendor", "03eb"},
                                                                          {"idProduct", "2404"},
                                                                          {"busnum", "1"},
                                                                          {"devnum", "9"},
                                                                          {"dev", "189:8"}}) {
      File(device + file, content);
    }
    File(device + "1-4.2:1.0/tty/ttyACM0/dev", "");
    Link("../../drivers/cdc_acm", device + "1-4.2:1.0/driver");
    Link("1", "proc/self");
  }
  void File(const std::string& name, const std::string& content) {
    fs::create_directories((run.machine.root / name).parent_path());
    run.Write("root/" + name, content + "\n");
  }
  void Link(const std::string& to, const std::string& name) {
    fs::create_directories((run.machine.root / name).parent_path());
    fs::create_symlink(to, run.machine.root / name);
  }
  // The findings' names, one after the other.
  std::string Names(const std::string& options = "") {
    run("doctor --json" + options);
    const Json document = Json::Parse(run.Out());
    std::string names;
    for (std::size_t i = 0; i < document["findings"].Size(); ++i) {
      names += document["findings"][i]["name"].String() + " ";
    }
    return names;
  }
};

TEST_F(Doctor, FindsWhatTheSystemKnows) {
  EXPECT_EQ(run("doctor"), ExitCode::Done);
  EXPECT_TRUE(run.Says("Nothing was found")) << run.Out();
  File("proc/99/comm", "ModemManager");
  EXPECT_EQ(Names(), "modem-manager ");
  File("run/udev/data/c189:8", "E:ID_MM_DEVICE_IGNORE=1");
  EXPECT_EQ(Names(), "");
  File("proc/812/comm", "minicom");
  Link("/dev/ttyACM0", "proc/812/fd/3");
  usb.results["ClaimInterface 1"] = LIBUSB_ERROR_BUSY;
  EXPECT_EQ(run("doctor --usb 1-4.2"), ExitCode::NoDevice);
  EXPECT_EQ(run.Out(),
            "--usb 1-4.2: minicom (process 812) has /dev/ttyACM0 open (held)\n"
            "hint: run `kill 812`\n");
  Link("../../drivers/option", "sys/bus/usb/devices/1-4.2/1-4.2:1.1/driver");
  EXPECT_EQ(Names(), "other-driver held ");
  EXPECT_TRUE(run.Says("`echo 1-4.2:1.1 | sudo tee /sys/bus/usb/drivers/option/unbind`"));
  usb.devices.clear();
  EXPECT_EQ(Names(" --usb 4-2"), "not-connected ");
}

TEST(DoctorProbe, FindsTheEchoAndTheSilence) {
  const struct {
    bool echo;
    const char* fault;
    const char* options;
    const char* name;
  } kRows[] = {
      {false, "lose:99", "--usb 1-4-2", nullptr},
      {false, "lose:*", "--usb 1-4-2", "silent"},
      {false, "lose:99", "--ftdi TAVO0001", nullptr},
      {true, "lose:99", "--ftdi TAVO0001", "line-echoes"},
      {false, "lose:*", "--ftdi TAVO0001", "silent"},
  };
  for (const auto& row : kRows) {
    ToolStation station(Options("plain"), row.echo, {row.fault});
    const ExitCode exit = station.run(std::string("doctor --probe --json ") + row.options);
    const Json document = Json::Parse(station.run.Out());
    EXPECT_EQ(exit, row.name == nullptr ? ExitCode::Done : ExitCode::NoDevice) << document.Text();
    EXPECT_EQ(document["findings"].Size(), row.name == nullptr ? 0 : 1) << document.Text();
    EXPECT_EQ(document["findings"][0]["name"], row.name == nullptr ? Json() : Json(row.name));
  }
}

}  // namespace
}  // namespace tavo::tool
