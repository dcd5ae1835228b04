// A simulated device as a USB host sees it. The host is the USB/IP server, or a test in the same
// process. Time is handed in with every call and never fetched, so that a test can run a
// whole update on a virtual clock; one call never blocks.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace tavosim {

// Time since the simulation began.
using SimTime = std::chrono::microseconds;

// The eight bytes that open every control transfer (USB 2.0, 9.3).
struct SetupPacket {
  std::uint8_t requestType;
  std::uint8_t request;
  std::uint16_t value;
  std::uint16_t index;
  std::uint16_t length;
};

enum class UsbStatus {
  Done,      // the transfer has ended, `data` holds what a device-to-host transfer brought
  NotReady,  // the device has nothing to give yet (NAK); ask again at NextDue
  Stall,     // the device refuses this request or endpoint
  Gone,      // the device is unplugged
};

struct UsbResult {
  UsbStatus status = UsbStatus::Done;
  std::vector<std::uint8_t> data{};
};

class UsbDevice {
 public:
  virtual ~UsbDevice() = default;

  // Device descriptor (18 bytes) and configuration descriptor with all that follows it.
  virtual std::vector<std::uint8_t> DeviceDescriptor() const = 0;
  virtual std::vector<std::uint8_t> ConfigurationDescriptor() const = 0;

  // A control transfer on endpoint 0, standard requests (descriptors, configuration, interface)
  // included. `out` is the data stage of a host-to-device request.
  virtual UsbResult Control(const SetupPacket& setup, std::span<const std::uint8_t> out,
                            SimTime now) = 0;

  // A bulk or interrupt transfer; `endpoint` carries the direction bit (0x80 = to the host).
  virtual UsbResult Out(std::uint8_t endpoint, std::span<const std::uint8_t> data, SimTime now) = 0;
  virtual UsbResult In(std::uint8_t endpoint, std::size_t capacity, SimTime now) = 0;

  // The host has released the device (closed it, or died). The device keeps its state.
  virtual void Released(SimTime now) = 0;

  // Whether the device is plugged in at `now`.
  virtual bool Connected(SimTime now) = 0;

  // The next moment after `now` at which an In that is NotReady, or Connected, may change by
  // itself; none when only the host can change anything.
  virtual std::optional<SimTime> NextDue(SimTime now) = 0;
};

}  // namespace tavosim
