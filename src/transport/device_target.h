// Which device an update is for, and over which line it is reached.
#pragma once

#include <cstdint>
#include <string>

namespace tavo {

enum class TransportKind : std::uint32_t { None = 0, Usb = 1, Ftdi = 3 };

struct DeviceTarget {
  TransportKind kind = TransportKind::Usb;
  std::string address{};           // port path of a USB device, serial number of an adapter
  std::uint32_t baudRate = 19200;  // adapters only, in bits per second
  bool echo = false;               // adapters only: the line returns every byte sent
};

}  // namespace tavo
