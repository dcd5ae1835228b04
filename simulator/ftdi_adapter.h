// An FTDI USB-serial adapter (FT232R, 0403:6001) with the device on its serial side. Every packet
// it sends opens with two status bytes; a packet leaves when it is full or when the latency timer
// runs out, even with nothing but the status bytes in it. Adapters with two and four channels
// (FT2232C, 0403:6010, and FT4232H, 0403:6011) have the device at one of them.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "simulator/usb_front.h"

namespace tavosim {

struct FtdiOptions {
  UsbStrings strings{"FTDI", "FT232R USB UART", "TAVO0001"};
  // The device's baud rate. At another rate (3 % apart or more), or at anything but 8N1, no bytes get
  // across. 0 = any rate works.
  std::uint32_t deviceBaud = 19200;
  unsigned channels = 1;  // 1, 2 or 4; the device is on the last one
};

class FtdiAdapter : public UsbFront {
 public:
  // `device` must outlive the adapter. The line's echo is what an adapter hears on a one-wire bus.
  explicit FtdiAdapter(Device& device, const LineOptions& line = {}, FtdiOptions options = {});

  std::vector<std::uint8_t> DeviceDescriptor() const override;
  std::vector<std::uint8_t> ConfigurationDescriptor() const override;

  UsbResult Out(std::uint8_t endpoint, std::span<const std::uint8_t> data, SimTime now) override;

  std::uint32_t Baud() const { return m_baud; }  // as the host set it
  SimTime Latency() const { return m_latency; }

 protected:
  UsbResult FunctionRequest(const SetupPacket& setup, std::span<const std::uint8_t> out) override;
  UsbResult Read(std::uint8_t endpoint, std::size_t capacity, SimTime now) override;
  void ResetFunction() override;
  std::optional<SimTime> OwnDue() const override { return m_lastPacket + m_latency; }

 private:
  bool IsForDevice(const SetupPacket& setup) const;
  void Reset(std::uint16_t what);
  UsbResult SetLatency(std::uint16_t milliseconds);
  void AgreeOnLine();
  std::vector<std::uint8_t> Packets(std::size_t capacity, SimTime now);

  FtdiOptions m_options;
  std::uint32_t m_baud = 0;
  std::uint16_t m_format = 0;
  SimTime m_latency{0};
  SimTime m_lastPacket{0};
};

}  // namespace tavosim
