// The transport for devices attached directly by USB. Such a device presents a serial function (CDC
// ACM) that is driven here with libusb, without the operating system's serial driver: found by
// vendor and product id, named by the USB ports that lead to it, opened, switched to 19200 baud
// 8N1, and then read and written over two bulk endpoints. A driver of the system that held the
// device gets it back when it is closed.
//
//   CCommWinUSB usb(link, SystemPlatform(), log, SystemLibUsb());
//   for (const CCommDevDesc& device : *usb.EnumerateDevices()) ...
//   if (usb.OpenPort("1-4-2")) usb.SendRawData(bytes, length);
//
// It never strips echo: a USB line has none.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/libusb_api.h"
#include "transport/i_comm_interface.h"

namespace tavo {

// The ids of such a device, and the interface that carries its bytes.
inline constexpr std::uint16_t kUsbVendorId = 0x03EB;
inline constexpr std::uint16_t kUsbProductId = 0x2404;
inline constexpr int kUsbDataInterface = 1;

// "1-4-2": the ports that lead to a device; empty when the system does not report them.
std::string UsbPortPath(LibUsb& usb, libusb_device* device);

class CCommWinUSB : public ICommInterface {
 public:
  // Begins a session: makes the libusb context. When that fails, the log says so, and nothing is
  // found or opened until the next session. `usb` must outlive the transport.
  CCommWinUSB(TavoLink& link, Platform& platform, Logger& log, LibUsb& usb);
  ~CCommWinUSB() override;

  std::vector<CCommDevDesc>* EnumerateDevices() override;

  // `deviceRef` of a listed device, or 0 for the first one found. Succeeds without touching
  // anything when a device is open already, whichever it is. After a failure none is open.
  bool Open(std::uint32_t deviceRef) override;

  // Opens the device at this port path. Does nothing when this device is open already; any other
  // device is closed first. After a success Reconnect looks for the same bus and port.
  bool OpenPort(const std::string& name) override;

  bool IsOpen() override { return m_isOpen; }
  void Close() override;

  // Closes and opens again: the device at the bus and port that were last opened by name, whatever
  // else is connected. Before any was opened by name, any device.
  bool Reconnect() override;

  // Also ends the libusb context, and with it the thread that libusb may run. While the library is
  // being unloaded that thread cannot end, and ending the context would wait for it.
  void EndSession() override;

  // False when no device is open or a transfer failed; each has the send timeout.
  bool SendRawData(const std::uint8_t* data, std::int32_t length) override;

  // Waits at most 50 ms for input. When no device is open, tries to reconnect to the named one and
  // fails all the same: input comes with the next call.
  bool ReceiveRawData(std::uint8_t* buffer, std::int32_t* length) override;

 private:
  // Where a device is plugged in. Two buses may each have a device at the same port path.
  struct Place {
    unsigned bus;
    std::string port;
    bool operator==(const Place&) const = default;
  };

  void StartSession();
  bool HasContext();
  bool IsUsable(const void* data) const;
  void FreeDeviceList();
  void ListIfSupported(std::size_t position);
  bool OpenAt(const CCommDevDesc& device);

  bool OpenDevice(std::uint32_t deviceRef);
  libusb_device_handle* OpenListed(std::uint32_t deviceRef);
  bool ClaimInterface(int number);
  bool ClaimInterfaces();
  bool SwitchSerialOn();
  bool Control(const char* name, std::uint8_t request, std::uint16_t value,
               std::span<unsigned char> data);
  void AttachDrivers();
  void ReleaseHandle();

  bool SendBytes(const std::uint8_t* data, std::int32_t length);
  bool SendBuffer(const std::uint8_t* data, std::int32_t length);
  int TransferOut(const std::uint8_t* data, std::int32_t length, int* transferred);

  LibUsb& m_usb;
  libusb_device_handle* m_handle = nullptr;
  libusb_context* m_context = nullptr;
  bool m_inSession = false;                // m_context has been made, or could not be
  libusb_device** m_deviceList = nullptr;  // kept so that device references stay valid
  std::size_t m_deviceCount = 0;
  std::vector<CCommDevDesc> m_devices;
  bool m_isOpen = false;
  std::set<int> m_detached;  // interfaces taken from a driver of the system and not yet given back
  std::optional<Place> m_namedPlace;  // for Reconnect; none = no device opened by name yet
  std::optional<Place> m_openPlace;   // of the open device; none = none open, or not by name
};

}  // namespace tavo
