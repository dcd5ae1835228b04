#include "platform/libusb_api.h"

#include "platform/undying.h"

namespace tavo {
namespace {

class RealLibUsb final : public LibUsb {
 public:
  int Init(libusb_context** context) override { return libusb_init(context); }

  void Exit(libusb_context* context) override { libusb_exit(context); }

  void SetDebug(libusb_context* context, int level) override {
    // Newer libraries prefer libusb_set_option. The older name works with those and with the ones
    // from before that function existed.
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#endif
    libusb_set_debug(context, level);
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
  }

  std::ptrdiff_t GetDeviceList(libusb_context* context, libusb_device*** list) override {
    return libusb_get_device_list(context, list);
  }

  void FreeDeviceList(libusb_device** list, int unrefDevices) override {
    libusb_free_device_list(list, unrefDevices);
  }

  int GetDeviceDescriptor(libusb_device* device, libusb_device_descriptor* descriptor) override {
    return libusb_get_device_descriptor(device, descriptor);
  }

  std::uint8_t GetBusNumber(libusb_device* device) override {
    return libusb_get_bus_number(device);
  }

  int GetPortNumbers(libusb_device* device, std::uint8_t* ports, int capacity) override {
    return libusb_get_port_numbers(device, ports, capacity);
  }

  int Open(libusb_device* device, libusb_device_handle** handle) override {
    return libusb_open(device, handle);
  }

  libusb_device_handle* OpenDeviceWithVidPid(libusb_context* context, std::uint16_t vendor,
                                             std::uint16_t product) override {
    return libusb_open_device_with_vid_pid(context, vendor, product);
  }

  void Close(libusb_device_handle* handle) override { libusb_close(handle); }

  int KernelDriverActive(libusb_device_handle* handle, int interface) override {
    return libusb_kernel_driver_active(handle, interface);
  }

  int DetachKernelDriver(libusb_device_handle* handle, int interface) override {
    return libusb_detach_kernel_driver(handle, interface);
  }

  int AttachKernelDriver(libusb_device_handle* handle, int interface) override {
    return libusb_attach_kernel_driver(handle, interface);
  }

  int ClaimInterface(libusb_device_handle* handle, int interface) override {
    return libusb_claim_interface(handle, interface);
  }

  int ReleaseInterface(libusb_device_handle* handle, int interface) override {
    return libusb_release_interface(handle, interface);
  }

  int ControlTransfer(libusb_device_handle* handle, std::uint8_t requestType, std::uint8_t request,
                      std::uint16_t value, std::uint16_t index, unsigned char* data,
                      std::uint16_t length, unsigned timeoutMs) override {
    return libusb_control_transfer(handle, requestType, request, value, index, data, length,
                                   timeoutMs);
  }

  int BulkTransfer(libusb_device_handle* handle, unsigned char endpoint, unsigned char* data,
                   int length, int* transferred, unsigned timeoutMs) override {
    return libusb_bulk_transfer(handle, endpoint, data, length, transferred, timeoutMs);
  }

  const char* ErrorName(int code) override { return libusb_error_name(code); }
};

}  // namespace

LibUsb& SystemLibUsb() {
  static Undying<RealLibUsb> library;
  return library.object;
}

}  // namespace tavo
