// libusb calls of a machine without obstacles: one context, one bus, no kernel driver, every interface
// free. Derived classes add the devices.
#pragma once

#include "platform/libusb_api.h"

namespace tavo::test {

class PlainUsb : public LibUsb {
 public:
  int Init(libusb_context** context) override {
    *context = reinterpret_cast<libusb_context*>(this);
    return LIBUSB_SUCCESS;
  }
  void Exit(libusb_context* /*context*/) override {}
  void SetDebug(libusb_context* /*context*/, int /*level*/) override {}
  void FreeDeviceList(libusb_device** /*list*/, int /*unrefDevices*/) override {}
  std::uint8_t GetBusNumber(libusb_device* /*device*/) override { return 1; }
  // The first device of the list.
  libusb_device_handle* OpenDeviceWithVidPid(libusb_context* context, std::uint16_t /*vendor*/,
                                             std::uint16_t /*product*/) override {
    libusb_device** list = nullptr;
    libusb_device_handle* handle = nullptr;
    if (GetDeviceList(context, &list) > 0) Open(list[0], &handle);
    return handle;
  }
  int KernelDriverActive(libusb_device_handle* /*handle*/, int /*interface*/) override { return 0; }
  int DetachKernelDriver(libusb_device_handle* /*handle*/, int /*interface*/) override {
    return LIBUSB_ERROR_NOT_FOUND;
  }
  int AttachKernelDriver(libusb_device_handle* /*handle*/, int /*interface*/) override {
    return LIBUSB_ERROR_NOT_FOUND;
  }
  int ClaimInterface(libusb_device_handle* /*handle*/, int /*interface*/) override { return 0; }
  int ReleaseInterface(libusb_device_handle* /*handle*/, int /*interface*/) override { return 0; }
  const char* ErrorName(int code) override { return libusb_error_name(code); }
};

}  // namespace tavo::test
