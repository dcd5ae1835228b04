// A machine with one USB bus whose sysfs, /dev/bus/usb and udev events are umockdev's and whose
// devices are simulated, in real time. The libusb of this process, the distribution's own, finds
// them and uses them like any other: the process has to be started by umockdev-wrapper.
//
//   MockMachine machine;
//   machine.PlugIn("1-4.2", function, "cdc_acm");  // the hub 1-4 comes into being
//   ... use libusb ...
//   machine.With([&](tavosim::SimTime) { device.ClearFaults(); });
//
// When a simulated device loses its cable its node fails, it goes from sysfs, and udev tells; back
// again it has a new device number, and its driver holds it anew.
#pragma once

#include <umockdev.h>

#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/usbfs/usbfs_node.h"

namespace tavo::test {

class MockMachine {
 public:
  MockMachine();
  MockMachine(const MockMachine&) = delete;
  MockMachine& operator=(const MockMachine&) = delete;
  ~MockMachine();

  // `name` as sysfs has it: bus 1, then the ports. Returns when the device is there. `front` must
  // outlive the machine; `driver` is the kernel's for it, empty = none.
  void PlugIn(const std::string& name, tavosim::UsbDevice& front, const std::string& driver = {});

  // Returns when the device at `name`, plugged in before, is there again.
  void AwaitDevice(const std::string& name);

  // Runs `action` while no simulated device is at work; these are touched in no other way. `now` is
  // their time.
  void With(const std::function<void(tavosim::SimTime now)>& action);

  // Of the device at `name`: its node in /dev, and which interfaces were taken from its driver since
  // it was last plugged in.
  std::string NodePath(const std::string& name) const;
  std::vector<unsigned> Detached(const std::string& name) const;
  // Which of its interfaces its driver holds at this moment.
  std::vector<unsigned> HeldByDriver(const std::string& name) const;

  // Where the files that stand for /dev and /sys lie.
  std::string Root() const;

 private:
  struct Port {
    std::string name;
    tavosim::UsbDevice& front;
    std::string driver;
    unsigned number = 0;           // device number; 0 = not plugged in
    std::list<UsbfsNode> nodes{};  // one for each time it was plugged in, the last at the end
  };
  struct SysfsDevice {
    std::string name;
    unsigned number;
    std::vector<std::uint8_t> descriptors;
  };

  tavosim::SimTime Now() const;
  void Run();
  std::optional<tavosim::SimTime> Turn();
  void FollowCable(Port& port, bool connected, std::unique_lock<std::mutex>& guard);
  void AddHubs(const std::string& name);
  void AddToSysfs(const SysfsDevice& device);
  const Port& At(const std::string& name) const;
  unsigned NextNumber() { return ++m_lastNumber; }

  const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
  mutable std::mutex m_lock;
  std::condition_variable m_changed;
  bool m_work = false;  // a node has asked for it
  bool m_ending = false;
  unsigned m_lastNumber = 0;
  std::set<std::string> m_hubs;
  std::list<Port> m_ports;
  GPointer<UMockdevTestbed> m_testbed;  // goes before the nodes, which its thread calls
  std::thread m_thread;
};

}  // namespace tavo::test
