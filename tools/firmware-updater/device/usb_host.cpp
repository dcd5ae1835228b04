#include "device/usb_host.h"

#include <algorithm>
#include <fstream>
#include <functional>
#include <system_error>

#include "text/text_format.h"

namespace tavo::tool {
namespace {

namespace fs = std::filesystem;

// A folder that cannot be read has no entries.
void ForEach(const fs::path& folder, const std::function<void(const fs::path&)>& visit) {
  std::error_code error;
  for (fs::directory_iterator at(folder, error), end; !error && at != end; at.increment(error)) {
    visit(at->path());
  }
}

std::string FirstLine(const fs::path& file) {
  std::ifstream stream(file);
  std::string line;
  std::getline(stream, line);
  return line;
}

unsigned NumberIn(const fs::path& file, int base) {
  const std::string text = FirstLine(file);
  return static_cast<unsigned>(std::strtoul(text.c_str(), nullptr, base));
}

std::string LinkName(const fs::path& link) {
  std::error_code error;
  return fs::read_symlink(link, error).filename().string();
}

bool IsProcess(const fs::path& path) {
  const std::string name = path.filename().string();
  return !name.empty() && std::ranges::all_of(name, [](char c) { return c >= '0' && c <= '9'; });
}

bool HasLine(const fs::path& file, const std::function<bool(const std::string&)>& fits) {
  std::ifstream stream(file);
  for (std::string line; std::getline(stream, line);) {
    if (fits(line)) return true;
  }
  return false;
}

}  // namespace

bool UsbHost::HasUsb() const {
  bool any = false;
  ForEach(m_root / "sys/bus/usb/devices", [&](const fs::path&) { any = true; });
  return any;
}

HostDevice UsbHost::Read(const fs::path& folder) const {
  HostDevice device{.name = folder.filename().string(),
                    .vendorId = static_cast<std::uint16_t>(NumberIn(folder / "idVendor", 16)),
                    .productId = static_cast<std::uint16_t>(NumberIn(folder / "idProduct", 16)),
                    .bus = NumberIn(folder / "busnum", 10),
                    .serialNumber = FirstLine(folder / "serial")};
  device.files.push_back(
      Format("/dev/bus/usb/%03u/%03u", device.bus, NumberIn(folder / "devnum", 10)));
  const auto addTerminal = [&](const fs::path& path) {
    if (path.filename().string().starts_with("tty"))
      device.files.push_back("/dev" / path.filename());
  };
  ForEach(folder, [&](const fs::path& interface) {
    const std::string name = interface.filename().string();
    if (name.find(':') == std::string::npos) return;
    const std::string driver = LinkName(interface / "driver");
    if (!driver.empty()) device.bound.push_back({name, driver});
    ForEach(interface / "tty", addTerminal);
    ForEach(interface, [&](const fs::path& path) {
      if (path.filename() != "tty") addTerminal(path);
    });
  });
  // udev keeps its knowledge of a device under the numbers of its file.
  const fs::path known = m_root / "run/udev/data" / ("c" + FirstLine(folder / "dev"));
  device.ignoredByModemManager =
      HasLine(known, [](const std::string& line) { return line == "E:ID_MM_DEVICE_IGNORE=1"; });
  return device;
}

std::vector<HostDevice> UsbHost::Devices() const {
  std::vector<HostDevice> devices;
  ForEach(m_root / "sys/bus/usb/devices", [&](const fs::path& folder) {
    std::error_code error;
    if (fs::exists(folder / "idVendor", error)) devices.push_back(Read(folder));
  });
  std::ranges::sort(devices, {}, &HostDevice::name);
  return devices;
}

std::vector<Holder> UsbHost::HoldersOf(const HostDevice& device, bool* hidden) const {
  std::vector<Holder> holders;
  const std::string self = LinkName(m_root / "proc/self");
  ForEach(m_root / "proc", [&](const fs::path& process) {
    const std::string number = process.filename().string();
    if (!IsProcess(process) || number == self) return;
    std::error_code error;
    if (fs::directory_iterator(process / "fd", error); error) *hidden = true;
    ForEach(process / "fd", [&](const fs::path& descriptor) {
      const fs::path file = fs::read_symlink(descriptor, error);
      if (std::ranges::count(device.files, file) == 0) return;
      holders.push_back({number, FirstLine(process / "comm"), file.string()});
    });
  });
  return holders;
}

bool UsbHost::Runs(const std::string& program) const {
  bool runs = false;
  ForEach(m_root / "proc", [&](const fs::path& process) {
    runs = runs || (IsProcess(process) && FirstLine(process / "comm") == program);
  });
  return runs;
}

std::string UsbHost::RuleFor(const HostDevice& device) const {
  const std::string vendor = Format("\"%04x\"", unsigned{device.vendorId});
  const std::string product = Format("%04x", unsigned{device.productId});
  std::string found;
  for (const char* folder : {"etc/udev/rules.d", "run/udev/rules.d", "usr/local/lib/udev/rules.d",
                             "usr/lib/udev/rules.d", "lib/udev/rules.d"}) {
    ForEach(m_root / folder, [&](const fs::path& file) {
      if (!found.empty() || file.extension() != ".rules") return;
      const bool names = HasLine(file, [&](const std::string& line) {
        const bool gives = line.find("uaccess") != line.npos || line.find("GROUP") != line.npos ||
                           line.find("MODE") != line.npos;
        return gives && !line.starts_with('#') && line.find(vendor) != line.npos &&
               line.find(product) != line.npos;
      });
      if (names) found = "/" + (fs::path(folder) / file.filename()).string();
    });
  }
  return found;
}

}  // namespace tavo::tool
