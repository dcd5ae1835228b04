// Every connected device of both kinds: its address, and the obstacles to using it. Looking changes
// nothing: no driver is detached, a device is only asked for its USB texts, and one that is opened for
// that is closed again at once. To other programs it is in use for that moment.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "device/target.h"
#include "text/json.h"
#include "text/machine.h"

namespace tavo::tool {

// The reason why a connected device cannot be used.
struct Obstacle {
  std::string name;  // stable, for scripts: "no-permission", "no-port-path", "ambiguous-port", ...
  std::string text;  // one sentence
  std::string hint;  // what to do
};

// The device as USB describes it.
struct UsbIdentity {
  unsigned bus = 0;
  std::uint16_t vendorId = 0;
  std::uint16_t productId = 0;
  std::string serialNumber{};  // empty: none reported, here and below
  std::string product{};

  Json AsJson() const;
};

struct FoundDevice {
  TransportKind kind = TransportKind::Usb;
  std::string address{};      // what --usb or --ftdi takes; empty when there is nothing to take
  std::string description{};  // for a person; printable ASCII, whatever the device calls itself
  std::vector<Obstacle> obstacles{};
  std::optional<UsbIdentity>
      usb{};  // none: an adapter that the list of USB devices does not explain

  bool IsUsable() const { return obstacles.empty(); }
};

// The wanted devices, as messages name them.
inline constexpr const char* kSearchedFor = "USB devices 03eb:2404 and FTDI adapters";

// Between two looks. A person who plugs a device in sees no delay, and a waiting script leaves the
// processor alone.
inline constexpr std::chrono::milliseconds kLookPace{200};

// Whether to open this device, of which only kind, address and bus are known yet. Without that, its
// texts and the obstacles to opening it stay unknown.
using Opens = std::function<bool(const FoundDevice& device)>;

// The kind of USB device with these ids; none: it does not matter here.
std::optional<TransportKind> KindOfUsb(std::uint16_t vendor, std::uint16_t product);

// The step that puts a rule of udev's for such a device in force; without `assignments` it lets the user open it.
std::string RuleCure(std::uint16_t vendor, std::uint16_t product,
                     const char* assignments = "TAG+=\"uaccess\"");

// USB devices first, then adapters, each in the order in which the system lists them. `trouble`,
// unless null, says in one sentence why the search itself failed; empty when it worked.
std::vector<FoundDevice> SurveyDevices(
    const Machine& machine, std::string* trouble = nullptr,
    const Opens& opens = [](const FoundDevice&) { return true; });

// The devices of one kind, without opening any: a look that disturbs no update.
std::vector<FoundDevice> ConnectedDevices(const Machine& machine, TransportKind kind);

// One aligned line per device, its address first; below an unusable one, the reason and the remedy.
void PrintDevices(const Machine& machine, const std::vector<FoundDevice>& devices);

}  // namespace tavo::tool
