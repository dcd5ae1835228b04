// list: the connected devices, and the obstacles to using them.
#include <algorithm>
#include <chrono>
#include <memory>
#include <ostream>

#include "commands/commands.h"
#include "device/device_survey.h"
#include "platform/platform.h"
#include "text/json.h"
#include "text/options.h"

namespace tavo::tool {
namespace {

using std::chrono::milliseconds;

constexpr int kDocumentVersion = 1;

struct Options {
  bool json = false;
  std::string wait{};
};

struct Outcome {
  std::vector<FoundDevice> devices;
  std::string trouble;

  bool AnyUsable() const { return std::ranges::any_of(devices, &FoundDevice::IsUsable); }
};

// Returns once a usable device is connected, or when the time is up.
Outcome Look(const Machine& machine, milliseconds wait) {
  const milliseconds end = machine.platform.MonotonicNow() + wait;
  for (;;) {
    Outcome outcome;
    outcome.devices = SurveyDevices(machine, &outcome.trouble);
    const milliseconds left = end - machine.platform.MonotonicNow();
    if (outcome.AnyUsable() || left <= milliseconds(0)) return outcome;
    machine.platform.Sleep(std::min(left, kLookPace));
  }
}

Json AsJson(const FoundDevice& device) {
  Json obstacles = Json::Array();
  for (const Obstacle& obstacle : device.obstacles) {
    obstacles.Add({{"name", obstacle.name}, {"text", obstacle.text}, {"hint", obstacle.hint}});
  }
  return {{"kind", KindName(device.kind)},
          {"address", device.address},
          {"description", device.description},
          {"usable", device.IsUsable()},
          {"usb", device.usb ? device.usb->AsJson() : Json()},
          {"obstacles", obstacles}};
}

void WriteJson(std::ostream& to, const Outcome& outcome) {
  Json devices = Json::Array();
  for (const FoundDevice& device : outcome.devices) devices.Add(AsJson(device));
  to << Json{{"version", kDocumentVersion}, {"devices", devices}}.Text(2) << '\n';
}

ExitCode List(const Machine& machine, const Options& options) {
  const Outcome outcome = Look(machine, SecondsOf(options.wait));
  if (options.json) {
    WriteJson(machine.out, outcome);
  } else {
    PrintDevices(machine, outcome.devices);
  }
  if (!outcome.trouble.empty()) Complain(machine, outcome.trouble, {});
  if (outcome.AnyUsable()) return ExitCode::Done;
  if (outcome.devices.empty()) {
    Complain(machine, std::string("no device found: looked for ") + kSearchedFor,
             "check the cable and the power; --wait 10 waits for a device to be plugged in");
  } else {
    Complain(machine, "no device can be used",
             options.json ? "see \"obstacles\"" : "see the hints above");
  }
  return ExitCode::NoDevice;
}

}  // namespace

void AddListCommand(CLI::App& app, const Machine& machine, ExitCode& exit) {
  CommandOptions command(app, "list", "Show the connected devices and how to name them");
  const auto options = std::make_shared<Options>();
  command.Flag("--json", options->json, "Write one JSON document");
  command.Value("--wait", options->wait, "Wait this long for a usable device").Seconds();
  command.Footer(
      "A device is only asked for its USB texts, and no driver is taken from it.\n\n"
      "Examples:\n"
      "  firmware-updater list\n"
      "  firmware-updater list --wait 10 --json");
  command.OnRun(exit, [&machine, options] { return List(machine, *options); });
}

}  // namespace tavo::tool
