#include "device/target_choice.h"

#include <algorithm>
#include <ostream>
#include <utility>
#include <vector>

#include "device/device_survey.h"

namespace tavo::tool {
namespace {

constexpr std::uint32_t kSlowestBaudRate = 183;  // the largest divisor that an adapter has
constexpr std::uint32_t kFastestBaudRate = 12'000'000;

using Devices = std::vector<FoundDevice>;

std::string CheckName(const std::string& text) {
  return text.empty() ? "is empty; `firmware-updater list` shows what to name" : "";
}

TargetChoice Refuse(const Machine& machine, ExitCode exit, const std::string& text,
                    const std::string& hint, const Devices& shown = {}) {
  Complain(machine, text, hint);
  PrintDevices(machine.err, shown);
  TargetChoice choice{std::nullopt, exit, text, hint};
  const char* between = " ";
  for (const FoundDevice& device : shown) {
    if (!device.IsUsable()) continue;
    choice.hint += between + TargetOptions({device.kind, device.address});
    between = ", ";
  }
  return choice;
}

TargetChoice RefuseUnusable(const Machine& machine, const std::string& name,
                            const Obstacle& obstacle) {
  return Refuse(machine, ExitCode::NoDevice, name + " cannot be used: " + obstacle.text,
                obstacle.hint);
}

TargetChoice RefuseMissing(const Machine& machine, const std::string& name,
                           const Devices& connected) {
  return connected.empty()
             ? Refuse(machine, ExitCode::NoDevice,
                      name + " is not there, nor is any other device (" + kSearchedFor + ")",
                      "check cable and power")
             : Refuse(machine, ExitCode::NoDevice, name + " is not there",
                      "name one of these, or check cable and power:", connected);
}

TargetChoice Named(const Machine& machine, const Target& target, const Devices& connected) {
  const std::string name = TargetOptions({target.kind, target.address});
  const auto found = std::ranges::find_if(connected, [&](const FoundDevice& device) {
    return device.kind == target.kind && device.address == target.address;
  });
  if (found == connected.end()) return RefuseMissing(machine, name, connected);
  if (!found->IsUsable()) return RefuseUnusable(machine, name, found->obstacles.front());
  return {target};
}

// Which of several is taken must not depend on what stands in the way of the others at the moment.
TargetChoice OnlyOne(const Machine& machine, const Devices& connected) {
  Devices found;
  std::ranges::copy_if(connected, std::back_inserter(found),
                       [](const FoundDevice& device) { return device.kind == TransportKind::Usb; });
  if (found.size() == 1) {
    const FoundDevice& device = found.front();
    if (device.IsUsable()) return {Target{TransportKind::Usb, device.address}};
    return RefuseUnusable(machine, "the USB device", device.obstacles.front());
  }
  if (std::ranges::any_of(found, &FoundDevice::IsUsable)) {
    return Refuse(machine, ExitCode::Usage, "several USB devices are connected",
                  "name one of these:", found);
  }
  if (connected.empty()) {
    return Refuse(machine, ExitCode::NoDevice,
                  std::string("nothing found: looked for ") + kSearchedFor,
                  "check cable and power; `firmware-updater list --wait 10` waits for a device");
  }
  return Refuse(machine, ExitCode::NoDevice, "there is no USB device that can be used",
                "an adapter is used only when it is named; this is what is there:", connected);
}

TargetChoice Choose(const Machine& machine, const TargetOptionsValues& named,
                    const Devices& connected) {
  if (!named.usbPort.empty()) return Named(machine, {TransportKind::Usb, named.usbPort}, connected);
  if (named.ftdiSerial.empty()) return OnlyOne(machine, connected);
  return Named(machine, {TransportKind::Ftdi, named.ftdiSerial, named.baudRate, named.echo},
               connected);
}

}  // namespace

void AddTargetOptions(CommandOptions& command, TargetOptionsValues& to) {
  Option usb =
      command.Value("--usb", to.usbPort, "The USB device at this port path, as list shows it");
  usb.Shown("PORT").Checked(CheckName);
  Option ftdi = command.Value("--ftdi", to.ftdiSerial,
                              "The device at the FTDI adapter with this serial number");
  ftdi.Shown("SERIAL").Checked(CheckName).Excludes(usb);
  command.Value("--baud", to.baudRate, "Baud rate of the adapter")
      .Shown("N")
      .Between(kSlowestBaudRate, kFastestBaudRate)
      .WithDefault()
      .Needs(ftdi);
  command.Flag("--echo", to.echo, "The adapter's line gives back every byte sent").Needs(ftdi);
}

TargetChoice ChooseTarget(const Machine& machine, const TargetOptionsValues& named) {
  std::string trouble;
  const Devices connected = SurveyDevices(machine, &trouble);
  if (!trouble.empty()) Complain(machine, trouble, {});
  TargetChoice choice = Choose(machine, named, connected);
  if (!choice.target && !trouble.empty()) choice.text = trouble + "; " + choice.text;
  return choice;
}

}  // namespace tavo::tool
