// libusb 1.0, call for call: one virtual function per library function in use, same arguments and
// meaning, no logic. Tests substitute simulated devices.
#pragma once

#include <libusb.h>

#include <cstddef>
#include <cstdint>

namespace tavo {

class LibUsb {
 public:
  virtual ~LibUsb() = default;

  virtual int Init(libusb_context** context) = 0;
  virtual void Exit(libusb_context* context) = 0;
  virtual void SetDebug(libusb_context* context, int level) = 0;

  // Returns the number of devices or a negative error; the caller frees the list.
  virtual std::ptrdiff_t GetDeviceList(libusb_context* context, libusb_device*** list) = 0;
  virtual void FreeDeviceList(libusb_device** list, int unrefDevices) = 0;
  virtual int GetDeviceDescriptor(libusb_device* device, libusb_device_descriptor* descriptor) = 0;
  virtual std::uint8_t GetBusNumber(libusb_device* device) = 0;
  // Returns the number of ports from the root hub to the device, or a negative error.
  virtual int GetPortNumbers(libusb_device* device, std::uint8_t* ports, int capacity) = 0;

  virtual int Open(libusb_device* device, libusb_device_handle** handle) = 0;
  virtual libusb_device_handle* OpenDeviceWithVidPid(libusb_context* context, std::uint16_t vendor,
                                                     std::uint16_t product) = 0;
  virtual void Close(libusb_device_handle* handle) = 0;

  virtual int KernelDriverActive(libusb_device_handle* handle, int interface) = 0;
  virtual int DetachKernelDriver(libusb_device_handle* handle, int interface) = 0;
  virtual int AttachKernelDriver(libusb_device_handle* handle, int interface) = 0;
  virtual int ClaimInterface(libusb_device_handle* handle, int interface) = 0;
  virtual int ReleaseInterface(libusb_device_handle* handle, int interface) = 0;

  // Timeouts in milliseconds, 0 = none.
  virtual int ControlTransfer(libusb_device_handle* handle, std::uint8_t requestType,
                              std::uint8_t request, std::uint16_t value, std::uint16_t index,
                              unsigned char* data, std::uint16_t length, unsigned timeoutMs) = 0;
  virtual int BulkTransfer(libusb_device_handle* handle, unsigned char endpoint,
                           unsigned char* data, int length, int* transferred,
                           unsigned timeoutMs) = 0;

  virtual const char* ErrorName(int code) = 0;
};

// The libusb of the machine this process runs on.
LibUsb& SystemLibUsb();

}  // namespace tavo
