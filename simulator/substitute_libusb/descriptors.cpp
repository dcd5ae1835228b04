// Descriptors in the form in which libusb hands them out.
#include <algorithm>
#include <array>
#include <memory>

#include "simulator/substitute_libusb/context.h"

using namespace tavosim::substitute;

namespace {

std::uint16_t Word(ByteView bytes, std::size_t at) {
  return static_cast<std::uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

// Calls `use` with every whole descriptor of a configuration, the configuration's own first.
template <class Use>
void ForEachDescriptor(ByteView rest, Use use) {
  while (rest.size() >= 2 && rest[0] >= 2 && rest[0] <= rest.size()) {
    use(rest.first(rest[0]));
    rest = rest.subspan(rest[0]);
  }
}

bool Is(ByteView descriptor, libusb_descriptor_type type, std::size_t leastSize) {
  return descriptor[1] == type && descriptor.size() >= leastSize;
}

bool IsInterface(ByteView one) { return Is(one, LIBUSB_DT_INTERFACE, LIBUSB_DT_INTERFACE_SIZE); }
bool IsEndpoint(ByteView one) { return Is(one, LIBUSB_DT_ENDPOINT, LIBUSB_DT_ENDPOINT_SIZE); }

// Class-specific descriptors, kept behind the one that they follow.
struct Extra {
  Bytes bytes{};
  const unsigned char* Data() const { return bytes.empty() ? nullptr : bytes.data(); }
  int Size() const { return static_cast<int>(bytes.size()); }
};

struct Setting {
  libusb_interface_descriptor descriptor{};
  std::vector<libusb_endpoint_descriptor> endpoints{};
  std::vector<Extra> endpointExtras{};
  Extra extra{};
};

// The result of libusb_get_config_descriptor, with everything that its pointers point to.
struct OwnedConfiguration : libusb_config_descriptor {
  std::vector<Setting> settings{};  // in the order of the descriptors
  std::vector<std::vector<libusb_interface_descriptor>> alternates{};
  std::vector<libusb_interface> interfaces{};
  Extra ownExtra{};
};

void TakeHead(OwnedConfiguration& configuration, ByteView one) {
  configuration.bLength = one[0];
  configuration.bDescriptorType = one[1];
  configuration.wTotalLength = Word(one, 2);
  configuration.bConfigurationValue = one[5];
  configuration.iConfiguration = one[6];
  configuration.bmAttributes = one[7];
  configuration.MaxPower = one[8];
}

void TakeInterface(OwnedConfiguration& configuration, ByteView one) {
  libusb_interface_descriptor& to = configuration.settings.emplace_back().descriptor;
  to.bLength = one[0];
  to.bDescriptorType = one[1];
  to.bInterfaceNumber = one[2];
  to.bAlternateSetting = one[3];
  to.bInterfaceClass = one[5];
  to.bInterfaceSubClass = one[6];
  to.bInterfaceProtocol = one[7];
  to.iInterface = one[8];
}

void TakeEndpoint(Setting& setting, ByteView one) {
  libusb_endpoint_descriptor& to = setting.endpoints.emplace_back();
  setting.endpointExtras.emplace_back();
  to.bLength = one[0];
  to.bDescriptorType = one[1];
  to.bEndpointAddress = one[2];
  to.bmAttributes = one[3];
  to.wMaxPacketSize = Word(one, 4);
  to.bInterval = one[6];
}

Extra& LastExtra(OwnedConfiguration& configuration) {
  if (configuration.settings.empty()) return configuration.ownExtra;
  Setting& setting = configuration.settings.back();
  return setting.endpoints.empty() ? setting.extra : setting.endpointExtras.back();
}

void Take(OwnedConfiguration& configuration, ByteView one) {
  if (Is(one, LIBUSB_DT_CONFIG, LIBUSB_DT_CONFIG_SIZE)) return TakeHead(configuration, one);
  if (IsInterface(one)) return TakeInterface(configuration, one);
  if (IsEndpoint(one) && !configuration.settings.empty())
    return TakeEndpoint(configuration.settings.back(), one);
  Bytes& extra = LastExtra(configuration).bytes;
  extra.insert(extra.end(), one.begin(), one.end());
}

void LinkSetting(Setting& setting) {
  for (std::size_t i = 0; i < setting.endpoints.size(); ++i) {
    setting.endpoints[i].extra = setting.endpointExtras[i].Data();
    setting.endpoints[i].extra_length = setting.endpointExtras[i].Size();
  }
  setting.descriptor.bNumEndpoints = static_cast<std::uint8_t>(setting.endpoints.size());
  setting.descriptor.endpoint = setting.endpoints.data();
  setting.descriptor.extra = setting.extra.Data();
  setting.descriptor.extra_length = setting.extra.Size();
}

// Gathers the settings by interface and sets the pointers. Nothing may move afterwards.
void Link(OwnedConfiguration& configuration) {
  for (Setting& setting : configuration.settings) {
    LinkSetting(setting);
    const auto sameInterface = [&setting](const auto& group) {
      return group.front().bInterfaceNumber == setting.descriptor.bInterfaceNumber;
    };
    auto group = std::ranges::find_if(configuration.alternates, sameInterface);
    if (group == configuration.alternates.end()) group = configuration.alternates.emplace(group);
    group->push_back(setting.descriptor);
  }
  for (const auto& group : configuration.alternates)
    configuration.interfaces.push_back({group.data(), static_cast<int>(group.size())});
  configuration.bNumInterfaces = static_cast<std::uint8_t>(configuration.interfaces.size());
  configuration.interface = configuration.interfaces.data();
  configuration.extra = configuration.ownExtra.Data();
  configuration.extra_length = configuration.ownExtra.Size();
}

}  // namespace

std::optional<EndpointPlace> tavosim::substitute::FindEndpoint(const libusb_device& device,
                                                               std::uint8_t endpoint) {
  std::optional<EndpointPlace> found;
  std::uint8_t interfaceNumber = 0;
  ForEachDescriptor(device.view.configuration, [&](ByteView one) {
    if (IsInterface(one)) interfaceNumber = one[2];
    if (IsEndpoint(one) && one[2] == endpoint) found = {interfaceNumber, Word(one, 4)};
  });
  return found;
}

bool tavosim::substitute::HasInterface(const libusb_device& device, int interfaceNumber) {
  bool found = false;
  ForEachDescriptor(device.view.configuration, [&](ByteView one) {
    found |= IsInterface(one) && one[2] == interfaceNumber && interfaceNumber < 32;
  });
  return found;
}

int LIBUSB_CALL libusb_get_device_descriptor(libusb_device* device,
                                             libusb_device_descriptor* descriptor) {
  const ByteView raw = device->view.deviceDescriptor;
  descriptor->bLength = raw[0];
  descriptor->bDescriptorType = raw[1];
  descriptor->bcdUSB = Word(raw, 2);
  descriptor->bDeviceClass = raw[4];
  descriptor->bDeviceSubClass = raw[5];
  descriptor->bDeviceProtocol = raw[6];
  descriptor->bMaxPacketSize0 = raw[7];
  descriptor->idVendor = Word(raw, 8);
  descriptor->idProduct = Word(raw, 10);
  descriptor->bcdDevice = Word(raw, 12);
  descriptor->iManufacturer = raw[14];
  descriptor->iProduct = raw[15];
  descriptor->iSerialNumber = raw[16];
  descriptor->bNumConfigurations = raw[17];
  return LIBUSB_SUCCESS;
}

int LIBUSB_CALL libusb_get_config_descriptor(libusb_device* device, std::uint8_t index,
                                             libusb_config_descriptor** result) {
  if (index != 0 || device->view.configuration.empty()) return LIBUSB_ERROR_NOT_FOUND;
  auto configuration = std::make_unique<OwnedConfiguration>();
  ForEachDescriptor(device->view.configuration, [&](ByteView one) { Take(*configuration, one); });
  Link(*configuration);
  *result = configuration.release();
  return LIBUSB_SUCCESS;
}

int LIBUSB_CALL libusb_get_active_config_descriptor(libusb_device* device,
                                                    libusb_config_descriptor** result) {
  return libusb_get_config_descriptor(device, 0, result);
}

void LIBUSB_CALL libusb_free_config_descriptor(libusb_config_descriptor* configuration) {
  delete static_cast<OwnedConfiguration*>(configuration);
}

int LIBUSB_CALL libusb_get_max_packet_size(libusb_device* device, unsigned char endpoint) {
  const auto place = FindEndpoint(*device, endpoint);
  if (!place) return LIBUSB_ERROR_NOT_FOUND;
  return place->packetSize;
}

int LIBUSB_CALL libusb_get_string_descriptor_ascii(libusb_device_handle* handle, std::uint8_t index,
                                                   unsigned char* text, int capacity) {
  if (index == 0 || capacity <= 0) return LIBUSB_ERROR_INVALID_PARAM;
  std::array<unsigned char, 255> raw{};
  int size = libusb_get_string_descriptor(handle, 0, 0, raw.data(), raw.size());
  if (size < 0) return size;
  if (size < 4) return LIBUSB_ERROR_IO;
  size = libusb_get_string_descriptor(handle, index, Word(raw, 2), raw.data(), raw.size());
  if (size < 0) return size;
  if (size < 2 || raw[0] > size || raw[1] != LIBUSB_DT_STRING) return LIBUSB_ERROR_IO;
  int length = 0;
  for (std::size_t at = 2; at + 1 < raw[0] && length + 1 < capacity; at += 2) {
    const std::uint16_t unit = Word(raw, at);
    text[length++] = unit < 0x80 ? static_cast<unsigned char>(unit) : '?';
  }
  text[length] = 0;
  return length;
}
