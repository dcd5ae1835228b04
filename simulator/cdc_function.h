// The USB serial function built into a device: CDC-ACM with the ids 03EB:2404, interface 0
// for communication, interface 1 for data. As such devices do, it gives nothing to a host that has
// not raised DTR.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "simulator/usb_front.h"

namespace tavosim {

class CdcFunction : public UsbFront {
 public:
  // `device` must outlive the function.
  explicit CdcFunction(Device& device, const LineOptions& line = {},
                       UsbStrings strings = {"Tavo", "Control Module", "1"});

  std::vector<std::uint8_t> DeviceDescriptor() const override;
  std::vector<std::uint8_t> ConfigurationDescriptor() const override;

  // As the host set it: baud rate (32 bits, least significant byte first), stop bits, parity, bits.
  const std::array<std::uint8_t, 7>& LineCoding() const { return m_lineCoding; }
  bool DtrRaised() const { return (m_controlLines & 0x01U) != 0; }

 protected:
  UsbResult FunctionRequest(const SetupPacket& setup, std::span<const std::uint8_t> out) override;
  UsbResult Read(std::uint8_t endpoint, std::size_t capacity, SimTime now) override;
  void ResetFunction() override;

 private:
  UsbResult SetLineCoding(std::span<const std::uint8_t> coding);
  void SetControlLines(std::uint16_t lines);

  std::array<std::uint8_t, 7> m_lineCoding{};
  std::uint16_t m_controlLines = 0;
};

}  // namespace tavosim
