// Contexts, the device list, and where a device sits.
#include "simulator/substitute_libusb/context.h"

#include <algorithm>
#include <memory>

using namespace tavosim::substitute;

namespace {

libusb_context* g_defaultContext = nullptr;

// Real libusb gives the same pointer for the same device as long as somebody holds it.
libusb_device* FindKnown(libusb_context& context, const Address& address, const HostView& view) {
  const auto same = [&](const libusb_device* device) {
    return device->address == address && device->view.record.busId == view.record.busId &&
           device->view.record.deviceNumber == view.record.deviceNumber;
  };
  const auto found = std::ranges::find_if(context.devices, same);
  return found == context.devices.end() ? nullptr : libusb_ref_device(*found);
}

libusb_device* DeviceAt(libusb_context& context, const Address& address) {
  std::optional<HostView> view = FetchHostView(address);
  if (!view || view->deviceDescriptor.size() < LIBUSB_DT_DEVICE_SIZE) return nullptr;
  if (libusb_device* known = FindKnown(context, address, *view)) return known;
  std::vector<std::uint8_t> place = tavosim::usbip::ParseBusId(view->record.busId);
  if (place.empty()) return nullptr;
  return context.devices.emplace_back(new libusb_device{.context = &context,
                                                        .address = address,
                                                        .view = std::move(*view),
                                                        .place = std::move(place)});
}

}  // namespace

libusb_context* tavosim::substitute::Resolve(libusb_context* context) {
  return context != nullptr ? context : g_defaultContext;
}

int LIBUSB_CALL libusb_init(libusb_context** context) {
  if (context == nullptr && g_defaultContext != nullptr) {
    ++g_defaultContext->references;
    return LIBUSB_SUCCESS;
  }
  (context != nullptr ? *context : g_defaultContext) =
      new libusb_context{.simulators = AddressesFromEnvironment()};
  return LIBUSB_SUCCESS;
}

void LIBUSB_CALL libusb_exit(libusb_context* context) {
  context = Resolve(context);
  if (context == nullptr || --context->references > 0) return;
  // Objects that the program still holds stay valid until it returns them.
  for (libusb_device* device : context->devices) device->context = nullptr;
  if (context == g_defaultContext) g_defaultContext = nullptr;
  delete context;
}

void LIBUSB_CALL libusb_set_debug(libusb_context*, int) {}  // it never logs

int LIBUSB_CALL libusb_set_option(libusb_context*, libusb_option, ...) { return LIBUSB_SUCCESS; }

ssize_t LIBUSB_CALL libusb_get_device_list(libusb_context* context, libusb_device*** list) {
  context = Resolve(context);
  if (context == nullptr || list == nullptr) return LIBUSB_ERROR_INVALID_PARAM;
  std::vector<libusb_device*> devices;
  for (const Address& address : context->simulators)
    if (libusb_device* device = DeviceAt(*context, address)) devices.push_back(device);
  *list = new libusb_device* [devices.size() + 1] {};
  std::ranges::copy(devices, *list);
  return static_cast<ssize_t>(devices.size());
}

void LIBUSB_CALL libusb_free_device_list(libusb_device** list, int unrefDevices) {
  if (list == nullptr) return;
  for (libusb_device** entry = list; unrefDevices != 0 && *entry != nullptr; ++entry)
    libusb_unref_device(*entry);
  delete[] list;
}

libusb_device* LIBUSB_CALL libusb_ref_device(libusb_device* device) {
  ++device->references;
  return device;
}

void LIBUSB_CALL libusb_unref_device(libusb_device* device) {
  if (device == nullptr || --device->references > 0) return;
  if (device->context != nullptr) std::erase(device->context->devices, device);
  delete device;
}

std::uint8_t LIBUSB_CALL libusb_get_bus_number(libusb_device* device) {
  return device->place.front();
}

std::uint8_t LIBUSB_CALL libusb_get_port_number(libusb_device* device) {
  return device->place.back();
}

int LIBUSB_CALL libusb_get_port_numbers(libusb_device* device, std::uint8_t* ports, int capacity) {
  const std::size_t count = device->place.size() - 1;
  if (capacity <= 0 || ports == nullptr) return LIBUSB_ERROR_INVALID_PARAM;
  if (count > static_cast<std::size_t>(capacity)) return LIBUSB_ERROR_OVERFLOW;
  std::copy(device->place.begin() + 1, device->place.end(), ports);
  return static_cast<int>(count);
}

// Hubs are not simulated.
libusb_device* LIBUSB_CALL libusb_get_parent(libusb_device*) { return nullptr; }

std::uint8_t LIBUSB_CALL libusb_get_device_address(libusb_device* device) {
  return static_cast<std::uint8_t>(device->view.record.deviceNumber);
}

int LIBUSB_CALL libusb_get_device_speed(libusb_device*) { return LIBUSB_SPEED_FULL; }
