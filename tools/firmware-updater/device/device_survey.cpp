#include "device/device_survey.h"

#include <algorithm>
#include <array>
#include <optional>
#include <ostream>
#include <span>
#include <sstream>

#include "log/displayable.h"
#include "log/logger.h"
#include "system/system.h"
#include "text/by_system.h"
#include "text/log_platform.h"
#include "text/text_format.h"
#include "transport/comm_ftdi.h"
#include "transport/comm_win_usb.h"

namespace tavo::tool {
namespace {

constexpr int kDropReferences = 1;

// A kind of USB device that matters here. Without its data interface nobody can use it.
struct UsbKind {
  TransportKind kind;
  std::uint16_t vendor;
  std::uint16_t product;
  int dataInterface;  // the first one; an adapter has one for each channel
  int channels = 1;
};
constexpr std::array kUsbKinds{
    UsbKind{TransportKind::Usb, kUsbVendorId, kUsbProductId, kUsbDataInterface},
    // The ids that the adapter's maker gives its own products.
    UsbKind{TransportKind::Ftdi, 0x0403, 0x6001, 0},
    UsbKind{TransportKind::Ftdi, 0x0403, 0x6010, 0, 2},
    UsbKind{TransportKind::Ftdi, 0x0403, 0x6011, 0, 4},
    UsbKind{TransportKind::Ftdi, 0x0403, 0x6014, 0},
    UsbKind{TransportKind::Ftdi, 0x0403, 0x6015, 0},
};

// One device, or one channel of an adapter.
struct UsbFinding {
  const UsbKind* kind = nullptr;
  int channel = 0;
  libusb_device* device = nullptr;
  libusb_device_descriptor descriptor{};
  std::string port{};
  UsbIdentity identity{};
};

// The devices connected now, in a libusb context of its own.
class UsbList {
 public:
  explicit UsbList(LibUsb& usb) : m_usb(usb), m_result(usb.Init(&m_context)) {
    if (m_result < 0) return;
    m_inContext = true;
    m_result = m_usb.GetDeviceList(m_context, &m_list);
  }
  UsbList(const UsbList&) = delete;
  UsbList& operator=(const UsbList&) = delete;
  ~UsbList() {
    if (m_list != nullptr) m_usb.FreeDeviceList(m_list, kDropReferences);
    if (m_inContext) m_usb.Exit(m_context);
  }

  // Negative: a libusb error; the list is empty.
  std::ptrdiff_t Result() const { return m_result; }
  std::span<libusb_device* const> Devices() const {
    return {m_list, static_cast<std::size_t>(std::max<std::ptrdiff_t>(m_result, 0))};
  }

 private:
  LibUsb& m_usb;
  libusb_context* m_context = nullptr;
  libusb_device** m_list = nullptr;
  bool m_inContext = false;
  std::ptrdiff_t m_result;
};

const UsbKind* KindOf(std::uint16_t vendor, std::uint16_t product) {
  const auto kind = std::ranges::find_if(kUsbKinds, [&](const UsbKind& row) {
    return row.vendor == vendor && row.product == product;
  });
  return kind == kUsbKinds.end() ? nullptr : &*kind;
}

// The texts of an open device, in its first language. A request to the device itself needs no interface.
class UsbTexts {
 public:
  UsbTexts(LibUsb& usb, libusb_device_handle* handle) : m_usb(usb), m_handle(handle) {}

  // Empty when the device has none.
  std::string Read(std::uint8_t index) {
    if (index == 0) return {};
    if (!m_language) {
      const std::vector<std::uint16_t> languages = Units(0, 0);
      m_language = languages.empty() ? 0 : languages.front();
    }
    std::string text;
    if (*m_language == 0) return text;
    for (const std::uint16_t unit : Units(index, *m_language)) {
      text += unit < 0x80 ? static_cast<char>(unit) : '?';
    }
    return Displayable(text);
  }

 private:
  // Two bytes each, after a head of two bytes: the length and the type.
  std::vector<std::uint16_t> Units(std::uint8_t index, std::uint16_t language) {
    constexpr unsigned kTimeoutMs = 250;
    std::array<unsigned char, 255> data{};
    const int length =
        m_usb.ControlTransfer(m_handle, LIBUSB_ENDPOINT_IN, LIBUSB_REQUEST_GET_DESCRIPTOR,
                              static_cast<std::uint16_t>(LIBUSB_DT_STRING << 8 | index), language,
                              data.data(), data.size(), kTimeoutMs);
    std::vector<std::uint16_t> units;
    if (length < 2 || data[1] != LIBUSB_DT_STRING) return units;
    const auto end = static_cast<std::size_t>(std::min<int>(length, data[0]));
    for (std::size_t i = 2; i + 1 < end; i += 2) {
      units.push_back(static_cast<std::uint16_t>(data[i] | data[i + 1] << 8));
    }
    return units;
  }

  LibUsb& m_usb;
  libusb_device_handle* m_handle;
  std::optional<std::uint16_t> m_language;  // 0: the device has no texts
};

// Returns a libusb error, or 0 for a device that can be used. A kernel driver is no obstacle, because an
// update detaches it. Without one, an interface that cannot be claimed belongs to another program, which
// is left alone. Closing releases it.
int TryOut(LibUsb& usb, UsbFinding& finding) {
  libusb_device_handle* handle = nullptr;
  if (const int result = usb.Open(finding.device, &handle); result < 0) return result;
  const int dataInterface = finding.kind->dataInterface + finding.channel;
  const bool driverBound = usb.KernelDriverActive(handle, dataInterface) > 0;
  const int result = driverBound ? LIBUSB_SUCCESS : usb.ClaimInterface(handle, dataInterface);
  if (result >= 0) {
    UsbTexts texts(usb, handle);
    finding.identity.product = texts.Read(finding.descriptor.iProduct);
    finding.identity.serialNumber = texts.Read(finding.descriptor.iSerialNumber);
  }
  usb.Close(handle);
  return std::min<int>(result, LIBUSB_SUCCESS);
}

std::vector<UsbFinding> LookAtUsb(LibUsb& usb, const UsbList& list) {
  std::vector<UsbFinding> findings;
  for (libusb_device* const device : list.Devices()) {
    libusb_device_descriptor descriptor{};
    if (usb.GetDeviceDescriptor(device, &descriptor) < 0) continue;
    const UsbKind* const kind = KindOf(descriptor.idVendor, descriptor.idProduct);
    if (kind == nullptr) continue;
    for (int channel = 0; channel < kind->channels; ++channel) {
      findings.push_back({kind,
                          channel,
                          device,
                          descriptor,
                          UsbPortPath(usb, device),
                          {usb.GetBusNumber(device), kind->vendor, kind->product}});
    }
  }
  return findings;
}

// --- obstacles ---

Obstacle InUse() {
  return {"in-use", "another program holds it", "end the program that uses it, then try again"};
}

Obstacle NoPermission(const UsbKind& kind) {
  return {"no-permission", "you have no permission to open it",
          RuleCure(kind.vendor, kind.product)};
}

Obstacle NoDriver(const UsbKind& kind) {
  const std::string drivers = UsbDrivers(kind.vendor, kind.product);
  return {"no-driver",
          drivers.empty() ? "it has no driver through which it can be used"
                          : "its driver is " + drivers + "; the tool needs WinUSB",
          kDriverHint.Here()};
}

Obstacle CannotOpen(LibUsb& usb, int result) {
  return {"cannot-open", std::string("it cannot be opened: ") + usb.ErrorName(result),
          "plug it in again"};
}

std::optional<Obstacle> ObstacleOf(LibUsb& usb, const UsbKind& kind, int result) {
  constexpr bool kWindows = kSystem == System::Windows;
  switch (result) {
    case LIBUSB_SUCCESS: return std::nullopt;
    // Every user may open a device there, but only one program at a time.
    case LIBUSB_ERROR_ACCESS: return kWindows ? InUse() : NoPermission(kind);
    case LIBUSB_ERROR_BUSY: return InUse();
    case LIBUSB_ERROR_NOT_SUPPORTED: return NoDriver(kind);
    // There, none of the device's interfaces has the driver.
    case LIBUSB_ERROR_NOT_FOUND: return kWindows ? NoDriver(kind) : CannotOpen(usb, result);
    default: return CannotOpen(usb, result);
  }
}

Obstacle NoPortPath() {
  return {"no-port-path", "the system does not report its USB port",
          "plug it into another port or hub"};
}

Obstacle AmbiguousPort(unsigned otherBus) {
  return {"ambiguous-port",
          "bus " + std::to_string(otherBus) + " has a device at the same port path",
          "unplug one of them, or plug it into a port with another number"};
}

Obstacle NoSerialNumber() {
  return {"no-serial-number", "it reports no serial number, so it cannot be selected",
          "use another adapter, or write a serial number into its memory"};
}

Obstacle AmbiguousSerialNumber() {
  return {"ambiguous-serial-number", "another adapter has the same serial number",
          "unplug one of them"};
}

// --- devices ---

// "Control Module, serial number 4711, 03eb:2404, bus 1". `name` holds whatever USB says.
std::string Described(const std::string& name, const UsbIdentity& usb) {
  std::string text = usb.product.empty() ? name : usb.product;
  if (!usb.serialNumber.empty()) text += ", serial number " + usb.serialNumber;
  return text +
         Format(", %04x:%04x, bus %u", unsigned{usb.vendorId}, unsigned{usb.productId}, usb.bus);
}

class Survey {
 public:
  Survey(const Machine& machine, const Opens& opens, std::string* trouble)
      : m_machine(machine),
        m_opens(opens),
        m_list(machine.usb),
        m_findings(LookAtUsb(machine.usb, m_list)) {
    if (trouble == nullptr) return;
    const int result = static_cast<int>(m_list.Result());
    *trouble = result < 0 ? std::string("USB cannot be searched: ") + machine.usb.ErrorName(result)
                          : std::string();
  }

  void AddUsbDevices(std::vector<FoundDevice>& devices) {
    for (UsbFinding& finding : m_findings) {
      if (finding.kind->kind == TransportKind::Usb) AddUsbDevice(finding, devices);
    }
  }

  void AddAdapters(std::vector<FoundDevice>& devices) {
    TavoLink link;
    LogPlatform quiet(m_machine.platform, {}, nullptr);
    Logger log(quiet);
    CCommFTDI transport(link, m_machine.platform, log, m_machine.adapters);
    const std::vector<CCommDevDesc>& adapters = *transport.EnumerateDevices();
    for (std::size_t index = 0; index < adapters.size(); ++index) {
      const std::string& serial = adapters[index].port;
      const bool shared =
          !serial.empty() && std::ranges::count(adapters, serial, &CCommDevDesc::port) > 1;
      AddAdapter(adapters[index], shared, FindingOf(index, adapters.size()), devices);
    }
    if (kSystem == System::Windows && adapters.empty()) AddDriverless(devices);
  }

 private:
  void AddUsbDevice(UsbFinding& finding, std::vector<FoundDevice>& devices) {
    FoundDevice device{TransportKind::Usb, finding.port};
    device.usb = finding.identity;
    const int result = m_opens(device) ? TryOut(m_machine.usb, finding) : int{LIBUSB_SUCCESS};
    if (result == LIBUSB_ERROR_NO_DEVICE) return;  // it has just gone
    device.usb = finding.identity;
    device.description = Described("USB device", finding.identity);
    if (finding.port.empty()) device.obstacles.push_back(NoPortPath());
    for (const UsbFinding& other : m_findings) {
      const bool samePath = other.kind == finding.kind && other.port == finding.port;
      if (samePath && &other != &finding && !finding.port.empty()) {
        device.obstacles.push_back(AmbiguousPort(other.identity.bus));
      }
    }
    const auto obstacle = ObstacleOf(m_machine.usb, *finding.kind, result);
    if (obstacle) device.obstacles.push_back(*obstacle);
    devices.push_back(std::move(device));
  }

  // Without its maker's driver, only USB knows an adapter.
  void AddDriverless(std::vector<FoundDevice>& devices) {
    for (const UsbFinding& finding : m_findings) {
      if (finding.kind->kind != TransportKind::Ftdi || finding.channel != 0) continue;
      FoundDevice device{TransportKind::Ftdi, "", Described("FTDI adapter", finding.identity)};
      device.usb = finding.identity;
      device.obstacles.push_back({"no-driver", "FTD2XX.dll does not list it", kAdapterDriverHint});
      devices.push_back(std::move(device));
    }
  }

  // The USB finding of adapter number `index`. The adapters' library lists them in the order of USB; if
  // one was plugged or unplugged in between, nothing is certain.
  UsbFinding* FindingOf(std::size_t index, std::size_t adapters) {
    std::vector<UsbFinding*> findings;
    for (UsbFinding& finding : m_findings) {
      if (finding.kind->kind == TransportKind::Ftdi) findings.push_back(&finding);
    }
    return findings.size() != adapters ? nullptr : findings[index];
  }

  void AddAdapter(const CCommDevDesc& adapter, bool shared, UsbFinding* finding,
                  std::vector<FoundDevice>& devices) {
    FoundDevice device{
        TransportKind::Ftdi, adapter.port,
        adapter.description.empty() ? "FTDI adapter" : Displayable(adapter.description)};
    const bool opens = finding != nullptr && m_opens(device);
    const int result = opens ? TryOut(m_machine.usb, *finding) : int{LIBUSB_SUCCESS};
    if (finding != nullptr) device.usb = finding->identity;
    if (result == LIBUSB_ERROR_ACCESS || result == LIBUSB_ERROR_BUSY) {
      device.obstacles.push_back(*ObstacleOf(m_machine.usb, *finding->kind, result));
    } else if (adapter.port.empty()) {
      device.obstacles.push_back(NoSerialNumber());
    }
    if (shared) device.obstacles.push_back(AmbiguousSerialNumber());
    devices.push_back(std::move(device));
  }

  const Machine& m_machine;
  const Opens& m_opens;
  const UsbList m_list;
  std::vector<UsbFinding> m_findings;
};

std::string AddressColumn(const FoundDevice& device) {
  return device.address.empty() ? "-" : TargetOptions({device.kind, device.address});
}

}  // namespace

std::optional<TransportKind> KindOfUsb(std::uint16_t vendor, std::uint16_t product) {
  const UsbKind* const kind = KindOf(vendor, product);
  return kind == nullptr ? std::nullopt : std::optional(kind->kind);
}

std::string RuleCure(std::uint16_t vendor, std::uint16_t product, const char* assignments) {
  return Format(
      "run `echo 'SUBSYSTEM==\"usb\", ATTR{idVendor}==\"%04x\", ATTR{idProduct}==\"%04x\", %s' | "
      "sudo tee -a "
      "/etc/udev/rules.d/71-firmware-updater-local.rules`, then plug it in again",
      unsigned{vendor}, unsigned{product}, assignments);
}

Json UsbIdentity::AsJson() const {
  const auto orNull = [](const std::string& text) { return text.empty() ? Json() : Json(text); };
  return {{"bus", bus},
          {"vendorId", vendorId},
          {"productId", productId},
          {"serialNumber", orNull(serialNumber)},
          {"product", orNull(product)}};
}

std::vector<FoundDevice> SurveyDevices(const Machine& machine, std::string* trouble,
                                       const Opens& opens) {
  Survey survey(machine, opens, trouble);
  std::vector<FoundDevice> devices;
  survey.AddUsbDevices(devices);
  survey.AddAdapters(devices);
  return devices;
}

std::vector<FoundDevice> ConnectedDevices(const Machine& machine, TransportKind kind) {
  const Opens none = [](const FoundDevice&) { return false; };
  Survey survey(machine, none, nullptr);
  std::vector<FoundDevice> devices;
  if (kind == TransportKind::Usb) {
    survey.AddUsbDevices(devices);
  } else {
    survey.AddAdapters(devices);
  }
  return devices;
}

void PrintDevices(const Machine& machine, const std::vector<FoundDevice>& devices) {
  constexpr std::size_t kLeastRoom = 30;
  std::ostream& to = machine.out;
  std::size_t width = 0;
  for (const FoundDevice& device : devices) width = std::max(width, AddressColumn(device).size());
  const std::string indent(width + 2, ' ');
  const auto columns = static_cast<std::size_t>(std::max(machine.width(), 1));
  const std::size_t room = std::max(columns, indent.size() + kLeastRoom) - indent.size();
  const auto put = [&](const std::string& text) {
    if (!machine.terminal) return void(to << indent << text << '\n');
    std::istringstream lines(Wrapped(text, room));
    for (std::string line; std::getline(lines, line);) to << indent << line << '\n';
  };
  for (const FoundDevice& device : devices) {
    const std::string address = AddressColumn(device);
    to << address << indent.substr(address.size()) << device.description << '\n';
    for (const Obstacle& obstacle : device.obstacles) {
      put("cannot be used: " + obstacle.text + " (" + obstacle.name + ")");
      put("hint: " + obstacle.hint);
    }
  }
}

}  // namespace tavo::tool
