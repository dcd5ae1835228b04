// The device that a command works on: the one that the user selects, or the only one connected. An
// adapter is used only when it is selected: a lone adapter may belong to anything.
//
//   auto values = std::make_shared<TargetOptionsValues>();
//   AddTargetOptions(command, *values);
//   ...
//   const Target target = ChooseTarget(machine, *values);
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "device/device_survey.h"
#include "device/target.h"
#include "text/machine.h"
#include "text/options.h"

namespace tavo::tool {

// At most one of the two names is not empty.
struct TargetOptionsValues {
  std::string usbPort{};
  std::string ftdiSerial{};
  std::uint32_t baudRate = Target{}.baudRate;
  bool echo = false;
};

// --usb, or --ftdi with --baud and --echo. `to` must outlive the parsing.
void AddTargetOptions(CommandOptions& command, TargetOptionsValues& to);

// As the kernel calls a USB device: "1-4.2" for the port path 4-2 on bus 1; empty for an adapter.
std::string KernelName(const FoundDevice& device);

// Whether the user means this device, or none by name. Others are not to be opened: another program may be
// about to.
bool IsWanted(const TargetOptionsValues& named, const FoundDevice& device);

// Any number of devices.
struct SeveralTargets {
  std::vector<std::string> usbPorts{};
  std::vector<std::string> ftdiSerials{};
  TargetOptionsValues line{};  // of all adapters
  bool all = false;

  std::size_t Count() const { return usbPorts.size() + ftdiSerials.size(); }
  // The only one that is named, if one is.
  TargetOptionsValues One() const;
};

// The same options, of which --usb and --ftdi may be repeated.
void AddTargetOptions(CommandOptions& command, SeveralTargets& to);

// The devices by their addresses as `list` shows them. One that is named need not be connected; --all
// stands for all USB devices. Opens none. Throws a Refusal.
std::vector<Target> ChooseTargets(const Machine& machine, const SeveralTargets& named);

// Looks at what is connected; sends nothing, and opens nothing for longer than a moment. Throws a
// Refusal when it finds no device, none that is usable, or several to choose from.
Target ChooseTarget(const Machine& machine, const TargetOptionsValues& named);

// The same with all that is known of the device.
struct ChosenDevice {
  Target target;
  std::optional<UsbIdentity> usb;
};
ChosenDevice ChooseDevice(const Machine& machine, const TargetOptionsValues& named);

// Waits until that device is connected. A device that stays unusable for more than a moment is refused
// as ChooseDevice does it, since waiting would not help, and so is a search that fails.
struct DeviceWait {
  std::chrono::milliseconds bound;
  std::function<bool()> isStopped;                    // asked at every look
  std::function<void(const std::string& text)> note;  // says once what is waited for
};
ChosenDevice AwaitDevice(const Machine& machine, const TargetOptionsValues& named,
                         const DeviceWait& wait);

}  // namespace tavo::tool
