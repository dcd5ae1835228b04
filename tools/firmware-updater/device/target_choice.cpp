#include "device/target_choice.h"

#include <algorithm>
#include <iterator>
#include <ostream>
#include <vector>

#include "device/device_survey.h"
#include "platform/platform.h"
#include "text/by_system.h"
#include "text/text_format.h"

namespace tavo::tool {
namespace {

constexpr std::uint32_t kSlowestBaudRate = 183;  // the largest divisor that an adapter has
constexpr std::uint32_t kFastestBaudRate = 12'000'000;

// The system needs a while to set up a device that was just plugged in: its driver, its permissions.
constexpr std::chrono::milliseconds kSetUp{2000};

using Devices = std::vector<FoundDevice>;

std::string CheckName(const std::string& text) {
  return text.empty() ? "is empty; `firmware-updater list` shows the devices" : "";
}

// "--usb 4-2, --ftdi TAVO0001"
std::string Names(const Devices& devices) {
  std::string names;
  for (const FoundDevice& device : devices) {
    if (!device.IsUsable()) continue;
    names += (names.empty() ? "" : ", ") + TargetOptions({device.kind, device.address});
  }
  return names;
}

// The only refusal that may end by itself.
struct NotConnected : Refusal {};

Refusal Unusable(const std::string& name, const Obstacle& obstacle) {
  return {ExitCode::NoDevice, "unusable-device", name + " cannot be used: " + obstacle.text,
          obstacle.hint};
}

NotConnected Missing(const std::string& text, const std::string& hint) {
  return {{ExitCode::NoDevice, "no-device", text, hint}};
}

NotConnected Missing(const std::string& name, const Devices& connected) {
  const std::string others = Names(connected);
  if (others.empty()) {
    return Missing(
        name + " is not connected, and no other device is usable (looked for " + kSearchedFor + ")",
        "check the cable and the power; `firmware-updater list` shows every obstacle");
  }
  return Missing(name + " is not connected",
                 "check the cable and the power, or select one of these: " + others);
}

// A port path goes before a kernel's name: "1-2" can be both.
ChosenDevice Named(Target target, const Devices& connected) {
  const std::string name = TargetOptions({target.kind, target.address});
  const auto called = [&](const auto& nameOf) {
    return std::ranges::find_if(connected, [&](const FoundDevice& device) {
      return device.kind == target.kind && nameOf(device) == target.address;
    });
  };
  auto found = called([](const FoundDevice& device) { return device.address; });
  if (found == connected.end()) found = called(KernelName);
  if (found == connected.end()) throw Missing(name, connected);
  if (!found->IsUsable()) throw Unusable(name, found->obstacles.front());
  target.address = found->address;
  return {target, found->usb};
}

// Which of several is taken must not depend on what prevents the others from being used just now.
ChosenDevice OnlyOne(const Devices& connected) {
  Devices found;
  std::ranges::copy_if(connected, std::back_inserter(found),
                       [](const FoundDevice& device) { return device.kind == TransportKind::Usb; });
  if (found.size() == 1) {
    const FoundDevice& device = found.front();
    if (device.IsUsable()) return {{TransportKind::Usb, device.address}, device.usb};
    throw Unusable("the USB device", device.obstacles.front());
  }
  if (std::ranges::any_of(found, &FoundDevice::IsUsable)) {
    throw Refusal{ExitCode::Usage, "several-devices", "several USB devices are connected",
                  "select one of these: " + Names(found)};
  }
  if (!found.empty()) {
    throw Refusal{ExitCode::NoDevice, "unusable-device", "none of the USB devices can be used",
                  "`firmware-updater list` shows every obstacle"};
  }
  if (const std::string adapters = Names(connected); !adapters.empty()) {
    throw Missing("no USB device is connected",
                  "an adapter is used only when it is selected: " + adapters);
  }
  throw Missing(std::string("no device found (looked for ") + kSearchedFor + ")",
                "check the cable and the power; `firmware-updater list --wait 10` waits for a "
                "device");
}

ChosenDevice Choose(const TargetOptionsValues& named, const Devices& connected) {
  if (!named.usbPort.empty()) return Named({TransportKind::Usb, named.usbPort}, connected);
  if (named.ftdiSerial.empty()) return OnlyOne(connected);
  return Named({TransportKind::Ftdi, named.ftdiSerial, named.baudRate, named.echo}, connected);
}

std::string Wanted(const TargetOptionsValues& named) {
  if (!named.usbPort.empty()) return TargetOptions({TransportKind::Usb, named.usbPort});
  if (!named.ftdiSerial.empty()) return TargetOptions({TransportKind::Ftdi, named.ftdiSerial});
  return "a USB device";
}

constexpr const char* kFtdiHelp = "The device at the FTDI adapter with this serial number";

void AddLineOptions(CommandOptions& command, TargetOptionsValues& to, const Option& ftdi) {
  command.Value("--baud", to.baudRate, "Baud rate of the adapter")
      .Shown("N")
      .Between(kSlowestBaudRate, kFastestBaudRate)
      .WithDefault()
      .Needs(ftdi);
  command.Flag("--echo", to.echo, "The adapter's line gives back every byte sent").Needs(ftdi);
}

// The address of the device that a name stands for; the name itself while that is not connected.
std::string AddressOf(const std::string& usbPort, const Devices& connected) {
  const bool isPath = std::ranges::count(connected, usbPort, &FoundDevice::address) > 0;
  const auto called = std::ranges::find(connected, usbPort, KernelName);
  return isPath || called == connected.end() ? usbPort : called->address;
}

}  // namespace

std::string KernelName(const FoundDevice& device) {
  if (device.kind != TransportKind::Usb || !device.usb) return {};
  std::string name = device.address;
  std::ranges::replace(name, '-', '.');
  return std::to_string(device.usb->bus) + "-" + name;
}

bool IsWanted(const TargetOptionsValues& named, const FoundDevice& device) {
  if (!named.ftdiSerial.empty()) return device.address == named.ftdiSerial;
  return named.usbPort.empty() || device.address == named.usbPort ||
         KernelName(device) == named.usbPort;
}

TargetOptionsValues SeveralTargets::One() const {
  TargetOptionsValues one = line;
  if (!usbPorts.empty()) one.usbPort = usbPorts.front();
  if (!ftdiSerials.empty()) one.ftdiSerial = ftdiSerials.front();
  return one;
}

void AddTargetOptions(CommandOptions& command, TargetOptionsValues& to) {
  Option usb = command.Value("--usb", to.usbPort, kUsbOptionHelp.Here());
  usb.Shown("PORT").Checked(CheckName);
  Option ftdi = command.Value("--ftdi", to.ftdiSerial, kFtdiHelp);
  ftdi.Shown("SERIAL").Checked(CheckName).Excludes(usb);
  AddLineOptions(command, to, ftdi);
}

void AddTargetOptions(CommandOptions& command, SeveralTargets& to) {
  command.Values("--usb", to.usbPorts, kUsbOptionHelp.Here()).Shown("PORT").Checked(CheckName);
  Option ftdi = command.Values("--ftdi", to.ftdiSerials, kFtdiHelp);
  ftdi.Shown("SERIAL").Checked(CheckName);
  AddLineOptions(command, to.line, ftdi);
}

std::vector<Target> ChooseTargets(const Machine& machine, const SeveralTargets& named) {
  const Devices connected = ConnectedDevices(machine, TransportKind::Usb);
  std::vector<Target> targets;
  const auto add = [&targets](const Target& target) {
    const bool isNew = std::ranges::count(targets, target.address, &Target::address) == 0;
    if (isNew) targets.push_back(target);
    return isNew;
  };
  const auto addNamed = [&add](const Target& target) {
    if (add(target)) return;
    throw Refusal{ExitCode::Usage, "repeated-device",
                  TargetOptions({target.kind, target.address}) + " is selected twice",
                  "select each device once"};
  };
  for (const FoundDevice& device : connected) {
    if (!named.all) break;
    if (device.address.empty()) throw Unusable("a USB device", device.obstacles.front());
    add({TransportKind::Usb, device.address});
  }
  for (const std::string& port : named.usbPorts) {
    addNamed({TransportKind::Usb, AddressOf(port, connected)});
  }
  for (const std::string& serial : named.ftdiSerials) {
    addNamed({TransportKind::Ftdi, serial, named.line.baudRate, named.line.echo});
  }
  if (targets.empty()) {
    throw Missing(std::string("no device found (looked for ") + kSearchedFor + ")",
                  "check the cable and the power; `firmware-updater list` shows every obstacle");
  }
  return targets;
}

ChosenDevice ChooseDevice(const Machine& machine, const TargetOptionsValues& named) {
  std::string trouble;
  const Devices connected = SurveyDevices(
      machine, &trouble, [&named](const FoundDevice& device) { return IsWanted(named, device); });
  try {
    ChosenDevice chosen = Choose(named, connected);
    if (!trouble.empty()) Complain(machine, trouble, {});
    if (!named.usbPort.empty() && named.usbPort != chosen.target.address) {
      machine.err << "--usb " << named.usbPort << " is the kernel's name of --usb "
                  << chosen.target.address << std::endl;
    }
    return chosen;
  } catch (Refusal& refusal) {
    if (trouble.empty()) throw;
    refusal.text = trouble + "; " + refusal.text;
    throw Refusal(refusal);  // not a NotConnected: nobody knows whether it is connected
  }
}

ChosenDevice AwaitDevice(const Machine& machine, const TargetOptionsValues& named,
                         const DeviceWait& wait) {
  const std::chrono::milliseconds begin = machine.platform.MonotonicNow();
  std::chrono::milliseconds absent = begin;  // the last look that found nothing
  for (bool first = true;; first = false) {
    const std::chrono::milliseconds now = machine.platform.MonotonicNow();
    const std::chrono::milliseconds left = begin + wait.bound - now;
    try {
      return ChooseDevice(machine, named);
    } catch (NotConnected& refusal) {
      absent = now;
      refusal.text += Format("; waited %g s for it", Seconds(wait.bound));
      if (left.count() <= 0) throw;
    } catch (const Refusal&) {
      if (left.count() <= 0 || now - absent >= kSetUp) throw;
    }
    if (first) wait.note("Waiting for " + Wanted(named) + "; Ctrl-C ends the wait.");
    if (wait.isStopped()) throw Refusal{ExitCode::Stopped, "stopped", "stopped while waiting"};
    machine.platform.Sleep(std::min(left, kLookPace));
  }
}

Target ChooseTarget(const Machine& machine, const TargetOptionsValues& named) {
  return ChooseDevice(machine, named).target;
}

}  // namespace tavo::tool
