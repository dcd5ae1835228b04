// What this machine says about a connected USB device: its drivers, who may open it, who has it open. Read from
// the kernel's and udev's files, below `root`; nothing is opened but those. Elsewhere than on Linux there are
// none, and every list is empty.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace tavo::tool {

// An interface of a device and the kernel's driver that has it.
struct BoundInterface {
  std::string name;  // the kernel's: "1-4.2:1.0"
  std::string driver;
};

struct HostDevice {
  std::string name{};  // the kernel's: "1-4.2"
  std::uint16_t vendorId = 0;
  std::uint16_t productId = 0;
  unsigned bus = 0;
  std::string serialNumber{};
  std::vector<BoundInterface> bound{};
  std::vector<std::filesystem::path>
      files{};  // through which programs use it: /dev/bus/usb/001/004, /dev/ttyACM0
  bool ignoredByModemManager = false;
};

// A process that has a file of the device open.
struct Holder {
  std::string process;  // the number
  std::string program;
  std::string file;
};

class UsbHost {
 public:
  explicit UsbHost(std::filesystem::path root) : m_root(std::move(root)) {}

  // False: the kernel reports no USB at all.
  bool HasUsb() const;
  std::vector<HostDevice> Devices() const;
  // `hidden`: of processes of other users nothing is known.
  std::vector<Holder> HoldersOf(const HostDevice& device, bool* hidden) const;
  bool Runs(const std::string& program) const;
  // The file of udev's rules that names the device; empty: none does.
  std::string RuleFor(const HostDevice& device) const;

 private:
  HostDevice Read(const std::filesystem::path& folder) const;

  std::filesystem::path m_root;
};

}  // namespace tavo::tool
