// What is connected: every device of both kinds, how it is addressed, and what stands in the way of
// using it. Looking changes nothing: no driver is detached, nothing is sent to a device, and what is
// opened to learn whether it can be opened is closed again at once.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "device/target.h"
#include "text/machine.h"

namespace tavo::tool {

// The reason why a connected device cannot be used.
struct Obstacle {
  std::string name;  // stable, for scripts: "no-permission", "no-port-path", "ambiguous-port", ...
  std::string text;  // one sentence
  std::string hint;  // what to do
};

struct FoundDevice {
  TransportKind kind = TransportKind::Usb;
  std::string address{};      // what --usb or --ftdi takes; empty when there is nothing to take
  std::string description{};  // for a person; printable ASCII, whatever the device calls itself
  std::vector<Obstacle> obstacles{};

  bool IsUsable() const { return obstacles.empty(); }
};

// What a search looks for, as messages put it.
inline constexpr const char* kSearchedFor = "USB devices 03eb:2404 and FTDI adapters";

// USB devices first, then adapters, each in the order in which the system lists them. `trouble`,
// unless null, tells in one sentence why the search itself did not work; empty when it did.
std::vector<FoundDevice> SurveyDevices(const Machine& machine, std::string* trouble = nullptr);

// One aligned line per device, what addresses it first; below an unusable one, why and what to do.
void PrintDevices(std::ostream& to, const std::vector<FoundDevice>& devices);

}  // namespace tavo::tool
