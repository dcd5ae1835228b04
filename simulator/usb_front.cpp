#include "simulator/usb_front.h"

#include <algorithm>
#include <utility>

namespace tavosim {
namespace {

constexpr std::uint8_t kToHost = 0x80;
constexpr std::uint8_t kTypeMask = 0x60;  // 0 = standard request
constexpr std::size_t kMaxStringLength = 126;

enum StandardRequestCode : std::uint8_t {
  kGetStatus = 0,
  kClearFeature = 1,
  kSetFeature = 3,
  kSetAddress = 5,
  kGetDescriptor = 6,
  kGetConfiguration = 8,
  kSetConfiguration = 9,
  kGetInterface = 10,
  kSetInterface = 11,
};

enum DescriptorType : std::uint8_t {
  kDeviceDescriptor = 1,
  kConfigurationDescriptor = 2,
  kStringDescriptor = 3,
};

UsbResult Done(std::vector<std::uint8_t> data = {}) { return {UsbStatus::Done, std::move(data)}; }
UsbResult Stall() { return {UsbStatus::Stall}; }

}  // namespace

UsbFront::UsbFront(Device& device, const LineOptions& line, UsbStrings strings)
    : m_line(device, line), m_strings(std::move(strings)), m_unplugsSeen(device.Unplugs()) {}

UsbResult UsbFront::Control(const SetupPacket& setup, std::span<const std::uint8_t> out,
                            SimTime now) {
  if (!Connected(now)) return {UsbStatus::Gone};
  const bool standard = (setup.requestType & kTypeMask) == 0;
  auto result = standard ? StandardRequest(setup) : FunctionRequest(setup, out);
  if (result.data.size() > setup.length) result.data.resize(setup.length);
  return result;
}

UsbResult UsbFront::Out(std::uint8_t endpoint, std::span<const std::uint8_t> data, SimTime now) {
  if (!Connected(now)) return {UsbStatus::Gone};
  if (endpoint != kBulkOut) return Stall();
  if (!m_line.HasRoom(data.size())) return {UsbStatus::NotReady};
  m_line.Send(data, now);
  return Done();
}

UsbResult UsbFront::In(std::uint8_t endpoint, std::size_t capacity, SimTime now) {
  if (!Connected(now)) return {UsbStatus::Gone};
  return (endpoint & kToHost) != 0 ? Read(endpoint, capacity, now) : Stall();
}

void UsbFront::Released(SimTime now) { m_line.Advance(now); }

bool UsbFront::Connected(SimTime now) {
  m_line.Advance(now);
  const auto unplugs = m_line.End().Unplugs();
  if (unplugs != m_unplugsSeen) {
    m_unplugsSeen = unplugs;
    m_configuration = 1;
    ResetFunction();
  }
  return m_line.End().Connected(now);
}

std::optional<SimTime> UsbFront::NextDue(SimTime now) {
  if (!Connected(now)) return m_line.End().ReplugAt(now);
  auto due = m_line.NextDue(now);
  const auto own = OwnDue();
  if (own && *own > now && (!due || *own < *due)) due = own;
  return due;
}

UsbResult UsbFront::StandardRequest(const SetupPacket& setup) {
  switch (setup.request) {
    case kGetDescriptor: return Descriptor(setup.value);
    case kGetConfiguration: return Done({m_configuration});
    case kGetStatus: return Done({0, 0});
    case kGetInterface: return Done({0});
    case kSetConfiguration:
      if (setup.value > 1) return Stall();
      m_configuration = static_cast<std::uint8_t>(setup.value);
      return Done();
    // No interface has a second setting.
    case kSetInterface: return setup.value == 0 ? Done() : Stall();
    // Halting an endpoint and waking a host change nothing here.
    case kClearFeature:
    case kSetFeature:
    case kSetAddress: return Done();
    default: return Stall();
  }
}

UsbResult UsbFront::Descriptor(std::uint16_t typeAndIndex) const {
  switch (typeAndIndex >> 8U) {
    case kDeviceDescriptor: return Done(DeviceDescriptor());
    case kConfigurationDescriptor: return Done(ConfigurationDescriptor());
    case kStringDescriptor: return StringDescriptor(typeAndIndex & 0xFFU);
    default: return Stall();
  }
}

UsbResult UsbFront::StringDescriptor(std::size_t index) const {
  constexpr char kEnglish[]{'\x09', '\x04'};
  const std::string* const texts[]{&m_strings.manufacturer, &m_strings.product,
                                   &m_strings.serialNumber};
  std::vector<std::uint8_t> data{0, kStringDescriptor};
  if (index == 0) {
    data.insert(data.end(), std::begin(kEnglish), std::end(kEnglish));
  } else if (index <= std::size(texts)) {
    for (const char letter : texts[index - 1]->substr(0, kMaxStringLength)) {
      data.insert(data.end(), {static_cast<std::uint8_t>(letter), 0});
    }
  } else {
    return Stall();
  }
  data[0] = static_cast<std::uint8_t>(data.size());
  return Done(std::move(data));
}

}  // namespace tavosim
