// Open devices: interfaces and the kernel drivers on them, and the standard control requests.
#include <algorithm>
#include <memory>
#include <utility>

#include "simulator/substitute_libusb/context.h"

using namespace tavosim::substitute;

namespace {

constexpr unsigned kStandardTimeoutMs = 1000;
constexpr std::size_t kLongestConfiguration = 4096;

std::uint32_t Bit(int interfaceNumber) { return 1U << interfaceNumber; }

// The mask of the kernel's drivers after a change, or none when this very device is gone.
std::optional<std::uint32_t> Drivers(const libusb_device_handle& handle, std::uint32_t detach = 0,
                                     std::uint32_t attach = 0) {
  const libusb_device& device = *handle.device;
  if (device.view.isOrdinary) return handle.lost ? std::nullopt : std::optional(0U);
  const auto view = FetchHostView(device.address, detach, attach);
  if (!view || view->record.deviceNumber != device.view.record.deviceNumber) return std::nullopt;
  return view->driverMask;
}

// The descriptors that an ordinary server does not show.
int ReadDescriptors(libusb_device_handle& handle) {
  HostView& view = handle.device->view;
  Bytes raw(kLongestConfiguration);
  int size = libusb_get_descriptor(&handle, LIBUSB_DT_DEVICE, 0, raw.data(), LIBUSB_DT_DEVICE_SIZE);
  if (size < LIBUSB_DT_DEVICE_SIZE) return std::min<int>(size, LIBUSB_ERROR_IO);
  view.deviceDescriptor.assign(raw.begin(), raw.begin() + size);
  size =
      libusb_get_descriptor(&handle, LIBUSB_DT_CONFIG, 0, raw.data(), static_cast<int>(raw.size()));
  if (size < 0) return size;
  view.configuration.assign(raw.begin(), raw.begin() + size);
  return LIBUSB_SUCCESS;
}

int StandardRequest(libusb_device_handle* handle, std::uint8_t recipient, std::uint8_t request,
                    std::uint16_t value, std::uint16_t index) {
  const int result = libusb_control_transfer(handle, recipient, request, value, index, nullptr, 0,
                                             kStandardTimeoutMs);
  return std::min<int>(result, LIBUSB_SUCCESS);
}

}  // namespace

int LIBUSB_CALL libusb_open(libusb_device* device, libusb_device_handle** result) {
  if (device->context == nullptr) return LIBUSB_ERROR_INVALID_PARAM;
  auto handle = std::make_unique<libusb_device_handle>();
  switch (handle->connection.Import(device->address, device->view.record)) {
    case Connection::ImportOutcome::Busy: return LIBUSB_ERROR_BUSY;
    case Connection::ImportOutcome::Gone: return LIBUSB_ERROR_NO_DEVICE;
    case Connection::ImportOutcome::Imported: break;
  }
  handle->device = libusb_ref_device(device);
  *result = device->context->handles.emplace_back(handle.release());
  if (!device->view.isOrdinary) return LIBUSB_SUCCESS;
  const int error = ReadDescriptors(**result);
  if (error != LIBUSB_SUCCESS) libusb_close(std::exchange(*result, nullptr));
  return error;
}

libusb_device_handle* LIBUSB_CALL libusb_open_device_with_vid_pid(libusb_context* context,
                                                                  std::uint16_t vendor,
                                                                  std::uint16_t product) {
  libusb_device** list = nullptr;
  if (libusb_get_device_list(context, &list) < 0) return nullptr;
  libusb_device_handle* handle = nullptr;
  for (libusb_device** entry = list; *entry != nullptr; ++entry) {
    const auto& record = (*entry)->view.record;
    if (record.vendor != vendor || record.product != product) continue;
    libusb_open(*entry, &handle);
    break;
  }
  libusb_free_device_list(list, 1);
  return handle;
}

void LIBUSB_CALL libusb_close(libusb_device_handle* handle) {
  if (handle == nullptr) return;
  const std::unique_ptr<libusb_device_handle> owned(handle);
  handle->connection.Close();
  if (libusb_context* context = handle->device->context) {
    std::erase(context->handles, handle);
    std::erase_if(context->ended, [handle](const libusb_transfer* transfer) {
      return transfer->dev_handle == handle;
    });
  }
  libusb_unref_device(handle->device);
}

libusb_device* LIBUSB_CALL libusb_get_device(libusb_device_handle* handle) {
  return handle->device;
}

int LIBUSB_CALL libusb_get_configuration(libusb_device_handle* handle, int* configuration) {
  std::uint8_t value = 0;
  const int result =
      libusb_control_transfer(handle, LIBUSB_ENDPOINT_IN, LIBUSB_REQUEST_GET_CONFIGURATION, 0, 0,
                              &value, 1, kStandardTimeoutMs);
  if (result < 0) return result;
  *configuration = value;
  return LIBUSB_SUCCESS;
}

int LIBUSB_CALL libusb_set_configuration(libusb_device_handle* handle, int configuration) {
  if (handle->claimed != 0) return LIBUSB_ERROR_BUSY;
  return StandardRequest(handle, LIBUSB_RECIPIENT_DEVICE, LIBUSB_REQUEST_SET_CONFIGURATION,
                         static_cast<std::uint16_t>(std::max(configuration, 0)), 0);
}

int LIBUSB_CALL libusb_claim_interface(libusb_device_handle* handle, int interfaceNumber) {
  if (!HasInterface(*handle->device, interfaceNumber)) return LIBUSB_ERROR_NOT_FOUND;
  const std::uint32_t bit = Bit(interfaceNumber);
  const auto drivers = Drivers(*handle);
  if (!drivers) return LIBUSB_ERROR_NO_DEVICE;
  if ((*drivers & bit) != 0) {
    if (!handle->autoDetach) return LIBUSB_ERROR_BUSY;
    if (!Drivers(*handle, bit)) return LIBUSB_ERROR_NO_DEVICE;
    handle->driversAside |= bit;
  }
  handle->claimed |= bit;
  return LIBUSB_SUCCESS;
}

int LIBUSB_CALL libusb_release_interface(libusb_device_handle* handle, int interfaceNumber) {
  if (!HasInterface(*handle->device, interfaceNumber)) return LIBUSB_ERROR_NOT_FOUND;
  const std::uint32_t bit = Bit(interfaceNumber);
  if ((handle->claimed & bit) == 0) return LIBUSB_ERROR_NOT_FOUND;
  handle->claimed &= ~bit;
  const std::uint32_t attach =
      std::exchange(handle->driversAside, handle->driversAside & ~bit) & bit;
  return attach == 0 || Drivers(*handle, 0, attach) ? LIBUSB_SUCCESS : LIBUSB_ERROR_NO_DEVICE;
}

int LIBUSB_CALL libusb_set_interface_alt_setting(libusb_device_handle* handle, int interfaceNumber,
                                                 int alternateSetting) {
  if (!HasInterface(*handle->device, interfaceNumber)) return LIBUSB_ERROR_NOT_FOUND;
  return StandardRequest(handle, LIBUSB_RECIPIENT_INTERFACE, LIBUSB_REQUEST_SET_INTERFACE,
                         static_cast<std::uint16_t>(alternateSetting),
                         static_cast<std::uint16_t>(interfaceNumber));
}

int LIBUSB_CALL libusb_kernel_driver_active(libusb_device_handle* handle, int interfaceNumber) {
  if (!HasInterface(*handle->device, interfaceNumber)) return LIBUSB_ERROR_NOT_FOUND;
  const auto drivers = Drivers(*handle);
  if (!drivers) return LIBUSB_ERROR_NO_DEVICE;
  return (*drivers & Bit(interfaceNumber)) != 0 ? 1 : 0;
}

int LIBUSB_CALL libusb_detach_kernel_driver(libusb_device_handle* handle, int interfaceNumber) {
  const int active = libusb_kernel_driver_active(handle, interfaceNumber);
  if (active < 0) return active;
  if (active == 0) return LIBUSB_ERROR_NOT_FOUND;
  return Drivers(*handle, Bit(interfaceNumber)) ? LIBUSB_SUCCESS : LIBUSB_ERROR_NO_DEVICE;
}

int LIBUSB_CALL libusb_attach_kernel_driver(libusb_device_handle* handle, int interfaceNumber) {
  const int active = libusb_kernel_driver_active(handle, interfaceNumber);
  if (active < 0) return active;
  if (active != 0 || (handle->claimed & Bit(interfaceNumber)) != 0) return LIBUSB_ERROR_BUSY;
  return Drivers(*handle, 0, Bit(interfaceNumber)) ? LIBUSB_SUCCESS : LIBUSB_ERROR_NO_DEVICE;
}

int LIBUSB_CALL libusb_set_auto_detach_kernel_driver(libusb_device_handle* handle, int enable) {
  handle->autoDetach = enable != 0;
  return LIBUSB_SUCCESS;
}

int LIBUSB_CALL libusb_clear_halt(libusb_device_handle* handle, unsigned char endpoint) {
  constexpr std::uint16_t kEndpointHalt = 0;
  return StandardRequest(handle, LIBUSB_RECIPIENT_ENDPOINT, LIBUSB_REQUEST_CLEAR_FEATURE,
                         kEndpointHalt, endpoint);
}

// USB/IP has no bus reset; this only checks that the device is still connected.
int LIBUSB_CALL libusb_reset_device(libusb_device_handle* handle) {
  return !handle->lost && Drivers(*handle) ? LIBUSB_SUCCESS : LIBUSB_ERROR_NO_DEVICE;
}
