#include "tests/usbfs/mock_machine.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace tavo::test {
namespace {

using tavosim::SimTime;

constexpr const char* kController = "/devices/pci0000:00/0000:00:14.0";
constexpr const char* kRootHub = "usb1";

// A hub with four ports, as far as libusb looks: it reads descriptors, and of the device's own only
// ids and class.
// clang-format off
const std::vector<std::uint8_t> kHubDescriptors{
  18, 1, 0x00, 0x02, 9, 0, 1, 64, 0x6B, 0x1D, 0x02, 0x00, 0x00, 0x01, 0, 0, 0, 1,
  9, 2, 25, 0, 1, 1, 0, 0xE0, 0,
  9, 4, 0, 0, 1, 9, 0, 0, 0,
  7, 5, 0x81, 3, 4, 0, 12};
// clang-format on

std::string Formatted(const char* format, unsigned value) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), format, value);
  return text.data();
}

std::string NodeName(unsigned number) { return Formatted("bus/usb/001/%03u", number); }

// The hub that leads to the device: "1-4.2" is behind "1-4", and that behind the root hub.
std::string ParentOf(const std::string& name) {
  const std::size_t dot = name.rfind('.');
  return dot == std::string::npos ? kRootHub : name.substr(0, dot);
}

std::string DevicePath(const std::string& name) {
  if (name == kRootHub) return std::string(kController) + "/" + name;
  return DevicePath(ParentOf(name)) + "/" + name;
}

std::string Hex(const std::vector<std::uint8_t>& bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) text += Formatted("%02X", byte);
  return text;
}

}  // namespace

MockMachine::MockMachine() : m_testbed(umockdev_testbed_new()) {
  if (umockdev_in_mock_environment() == 0) {
    throw std::runtime_error("to be started by umockdev-wrapper");
  }
  AddToSysfs({kRootHub, NextNumber(), kHubDescriptors});
  m_thread = std::thread([this] { Run(); });
}

MockMachine::~MockMachine() {
  With([this](SimTime) { m_ending = true; });
  m_thread.join();
}

SimTime MockMachine::Now() const {
  return std::chrono::duration_cast<SimTime>(std::chrono::steady_clock::now() - m_start);
}

void MockMachine::With(const std::function<void(SimTime now)>& action) {
  const std::lock_guard guard(m_lock);
  action(Now());
  m_work = true;
  m_changed.notify_all();
}

void MockMachine::PlugIn(const std::string& name, tavosim::UsbDevice& front,
                         const std::string& driver) {
  AddHubs(ParentOf(name));
  With([&](SimTime) { m_ports.emplace_back(Port{name, front, driver}); });
  AwaitDevice(name);
}

void MockMachine::AwaitDevice(const std::string& name) {
  std::unique_lock guard(m_lock);
  const Port& port = At(name);
  m_changed.wait(guard, [&port] { return port.number != 0; });
}

std::string MockMachine::NodePath(const std::string& name) const {
  const std::lock_guard guard(m_lock);
  return "/dev/" + NodeName(At(name).number);
}

std::vector<unsigned> MockMachine::Detached(const std::string& name) const {
  const std::lock_guard guard(m_lock);
  return At(name).nodes.back().Detached();
}

std::vector<unsigned> MockMachine::HeldByDriver(const std::string& name) const {
  const std::lock_guard guard(m_lock);
  return At(name).nodes.back().HeldByDriver();
}

std::string MockMachine::Root() const {
  const std::unique_ptr<gchar, decltype(&g_free)> root(
      umockdev_testbed_get_root_dir(m_testbed.get()), &g_free);
  return root.get();
}

const MockMachine::Port& MockMachine::At(const std::string& name) const {
  const auto port = std::ranges::find(m_ports, name, &Port::name);
  if (port == m_ports.end()) throw std::out_of_range(name);
  return *port;
}

// --- sysfs ---

void MockMachine::AddHubs(const std::string& name) {
  if (name == kRootHub || !m_hubs.insert(name).second) return;
  AddHubs(ParentOf(name));
  AddToSysfs({name, NextNumber(), kHubDescriptors});
}

void MockMachine::AddToSysfs(const SysfsDevice& device) {
  const std::string number = std::to_string(device.number);
  const std::string node = NodeName(device.number);
  const std::string text =
      "P: " + DevicePath(device.name) + "\nN: " + node +
      "\nE: DEVTYPE=usb_device\nE: SUBSYSTEM=usb\nE: DEVNAME=/dev/" + node +
      "\nE: BUSNUM=001\nE: DEVNUM=" + Formatted("%03u", device.number) +
      "\nA: busnum=1\nA: devnum=" + number +
      "\nA: speed=12\nA: bConfigurationValue=1\nH: descriptors=" + Hex(device.descriptors) + "\n\n";
  GError* error = nullptr;
  if (umockdev_testbed_add_from_string(m_testbed.get(), text.c_str(), &error) == 0) {
    throw std::runtime_error(error->message);
  }
}

// --- the devices at work ---

void MockMachine::Run() {
  std::unique_lock guard(m_lock);
  while (!m_ending) {
    m_work = false;
    for (Port& port : m_ports) {
      const bool connected = port.front.Connected(Now());
      if (connected != (port.number != 0)) FollowCable(port, connected, guard);
    }
    const std::optional<SimTime> due = Turn();
    const auto isWanted = [this] { return m_work || m_ending; };
    if (due) {
      m_changed.wait_until(guard, m_start + *due, isWanted);
    } else {
      m_changed.wait(guard, isWanted);
    }
  }
}

std::optional<SimTime> MockMachine::Turn() {
  std::optional<SimTime> due;
  const auto consider = [&due](std::optional<SimTime> other) {
    if (other && (!due || *other < *due)) due = other;
  };
  for (Port& port : m_ports) {
    for (UsbfsNode& node : port.nodes) consider(node.Work(Now()));
    consider(port.front.NextDue(Now()));
  }
  return due;
}

// umockdev waits for threads that may be waiting for the lock.
void MockMachine::FollowCable(Port& port, bool connected, std::unique_lock<std::mutex>& guard) {
  const std::string path = "/sys" + DevicePath(port.name);
  if (!connected) {
    port.nodes.back().Disconnect();
    port.number = 0;
    guard.unlock();
    umockdev_testbed_uevent(m_testbed.get(), path.c_str(), "remove");
    umockdev_testbed_remove_device(m_testbed.get(), path.c_str());
    guard.lock();
    return;
  }
  const unsigned number = NextNumber();
  const UsbfsNode& node = port.nodes.emplace_back(port.front, port.driver,
                                                  NodeEnvironment{m_lock, [this] { return Now(); },
                                                                  [this] {
                                                                    m_work = true;
                                                                    m_changed.notify_all();
                                                                  }});
  std::vector<std::uint8_t> descriptors = port.front.DeviceDescriptor();
  const std::vector<std::uint8_t> configuration = port.front.ConfigurationDescriptor();
  descriptors.insert(descriptors.end(), configuration.begin(), configuration.end());
  guard.unlock();
  // In this order: who sees the device opens it at once, and is ended when nobody listens there yet.
  umockdev_testbed_attach_ioctl(m_testbed.get(), ("/dev/" + NodeName(number)).c_str(),
                                node.Handler(), nullptr);
  AddToSysfs({port.name, number, descriptors});
  guard.lock();
  port.number = number;
  m_changed.notify_all();
}

}  // namespace tavo::test
