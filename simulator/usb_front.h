// The common part of the two USB faces of a simulated device: strings, standard requests, the bulk
// OUT endpoint and being unplugged. A derived class adds its descriptors, its own control
// requests and its IN endpoints.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "simulator/line.h"
#include "simulator/usb_device.h"

namespace tavosim {

inline constexpr std::uint8_t kBulkIn = 0x81;
inline constexpr std::uint8_t kBulkOut = 0x02;
inline constexpr std::size_t kPacketSize = 64;

// ASCII, at most 126 characters each.
struct UsbStrings {
  std::string manufacturer{};
  std::string product{};
  std::string serialNumber{};
};

class UsbFront : public UsbDevice {
 public:
  UsbResult Control(const SetupPacket& setup, std::span<const std::uint8_t> out,
                    SimTime now) override;
  // NotReady when the device takes bytes more slowly than the host sends them.
  UsbResult Out(std::uint8_t endpoint, std::span<const std::uint8_t> data, SimTime now) override;
  UsbResult In(std::uint8_t endpoint, std::size_t capacity, SimTime now) override;
  void Released(SimTime now) override;
  bool Connected(SimTime now) override;
  std::optional<SimTime> NextDue(SimTime now) override;

 protected:
  // `device` must outlive the front.
  UsbFront(Device& device, const LineOptions& line, UsbStrings strings);

  virtual UsbResult FunctionRequest(const SetupPacket& setup,
                                    std::span<const std::uint8_t> out) = 0;
  virtual UsbResult Read(std::uint8_t endpoint, std::size_t capacity, SimTime now) = 0;
  // Back to the state after power-on, because the cable was pulled.
  virtual void ResetFunction() = 0;
  // When an IN endpoint completes by itself, besides bytes that arrive.
  virtual std::optional<SimTime> OwnDue() const { return std::nullopt; }

  Line& SerialLine() { return m_line; }

 private:
  UsbResult StandardRequest(const SetupPacket& setup);
  UsbResult Descriptor(std::uint16_t typeAndIndex) const;
  UsbResult StringDescriptor(std::size_t index) const;

  Line m_line;
  UsbStrings m_strings;
  std::uint8_t m_configuration = 1;
  unsigned m_unplugsSeen = 0;
};

}  // namespace tavosim
