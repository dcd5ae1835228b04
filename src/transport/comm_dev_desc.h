// One device found by an enumeration.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace tavo {

class CCommDevDesc {
 public:
  CCommDevDesc(std::uint32_t ref, std::string portName, std::string text)
      : deviceRef(ref), port(std::move(portName)), description(std::move(text)) {}
  CCommDevDesc(const CCommDevDesc&) = default;
  CCommDevDesc& operator=(const CCommDevDesc&) = default;
  virtual ~CCommDevDesc() = default;

  // The argument for Open of the transport that made the record; valid until its next enumeration.
  // USB: position in the kept device list plus one (0 means any device). FTDI: the adapter's index.
  std::uint32_t deviceRef;

  // USB: the port numbers from the root hub, joined by hyphens ("1-4-2"). FTDI: the adapter's
  // serial number. Empty: the device has no name and cannot be opened by one.
  std::string port;

  // USB: the number of the bus, which `port` does not contain. FTDI: 0.
  unsigned bus = 0;

  // One printable line.
  std::string description;

  // False: the device exists, but its texts could not be read; the log has the reason.
  bool isReadable = true;
};

}  // namespace tavo
