// Machines for the commands of the tool, on a virtual clock, each with a folder of its own: one whose
// devices are lists, and one with a simulated device.
#pragma once

#include "tests/support/fake_d2xx.h"
#include "tests/support/fake_libusb.h"
#include "tests/support/station.h"
#include "tests/tools/command_run.h"
#include "update/closing_state.h"

namespace tavo::tool {

struct ToolMachine {
  test::VirtualPlatform platform{};
  test::FakeLibUsb usb{};
  test::FakeD2xx adapters{};
  CommandRun run{platform, usb, adapters, platform.Folder()};
};

// The device is at --usb 1-4-2 and behind --ftdi TAVO0001; its firmware is in firmware.hex.
struct ToolStation : test::Station {
  using Station::Station;

  ExitCode Update(const std::string& options = "") {
    return run("update @firmware.hex --usb 1-4-2 --log @tool.log" + options);
  }
  ExitCode Recover(const std::string& options = "") {
    return run("recover @firmware.hex --log @tool.log" + options);
  }
  bool UpdatedAndRuns() { return FlashHoldsFirmware() && ApplicationRuns(); }
  const std::vector<std::uint8_t>& Flash() const { return device.ApplicationFlash().Bytes(); }

  // Calls `act` when the device has received the request for the `number`th time and will answer.
  void AtRequest(const std::string& request, int number, std::function<void()> act) {
    usb.failReceive = [=, this, seen = std::size_t{0}]() mutable {
      for (; seen < device.Journal().size(); ++seen) {
        if (Describe(device.Journal()[seen]).starts_with(request) && --number == 0) act();
      }
      return false;
    };
  }

  // Whether the device is in the state of this name, if its flash held `before` when it was found.
  bool IsIn(std::string_view state, const std::vector<std::uint8_t>& before) {
    for (int condition = 0; condition <= static_cast<int>(DeviceCondition::Unknown); ++condition) {
      const DeviceCondition claim{condition};
      if (NameOf(claim) == state) return Holds(claim, before);
    }
    return false;
  }

  // From now on firmware.hex is that of another family.
  void TakeFileOf(const char* family) { TakeFileOf(*tavosim::FindFamily(family)); }
  void TakeFileOf(const tavosim::Family& family) {
    run.Write("firmware.hex", tavosim::HexText(tavosim::BuildFirmware(tavosim::RecipeFor(family))));
  }

  CommandRun run{platform, usb, d2xx, platform.Folder()};
};

inline tavosim::DeviceOptions Options(const char* family) {
  return tavosim::OptionsFor(*tavosim::FindFamily(family));
}

}  // namespace tavo::tool
