// The kernel's side of one device node in /dev/bus/usb, from plug-in to unplug: answers the ioctls
// by which libusb uses a device as Linux answers them, with a simulated device behind. Owned and
// driven by MockMachine; the ioctls come in on a thread of umockdev. It never changes sysfs.
//
// Who may use an interface is kept as the kernel keeps it: a driver or one open file holds it. The
// driver of a device holds all its interfaces, and to take one from it frees all, which is how
// drivers of serial functions behave.
#pragma once

#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <umockdev.h>

#include <array>
#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "simulator/usb_device.h"

namespace tavo::test {

struct Unreference {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename Object>
using GPointer = std::unique_ptr<Object, Unreference>;

// What the nodes of one machine share.
struct NodeEnvironment {
  std::mutex& lock;  // around every use of a simulated device
  std::function<tavosim::SimTime()> now;
  std::function<void()> wake;  // Work is to be called
};

class UsbfsNode {
 public:
  // `driver` holds the interfaces from the start; empty = none does. `front` must outlive the node.
  UsbfsNode(tavosim::UsbDevice& front, std::string driver, const NodeEnvironment& environment);
  UsbfsNode(const UsbfsNode&) = delete;
  UsbfsNode& operator=(const UsbfsNode&) = delete;
  ~UsbfsNode();

  UMockdevIoctlBase* Handler() const { return m_handler.get(); }

  // The three are for MockMachine, which holds the lock. Work moves transfers on and gives the
  // moment at which it has something to do again.
  std::optional<tavosim::SimTime> Work(tavosim::SimTime now);
  void Disconnect();

  // The interfaces that the driver holds.
  std::vector<unsigned> HeldByDriver() const;
  // The interfaces that were taken from the driver by request, in order.
  const std::vector<unsigned>& Detached() const { return m_detached; }

 private:
  using Client = UMockdevIoctlClient*;  // an open file, one of m_clients
  using Data = GPointer<UMockdevIoctlData>;
  struct Interface {
    std::string driver{};  // "usbfs" while a file holds it
    Client owner = nullptr;
  };
  struct Urb {
    Client owner;
    Data data;    // the client's usbdevfs_urb
    Data buffer;  // what its pointer points to; null when empty
    usbdevfs_urb& Head() const { return *reinterpret_cast<usbdevfs_urb*>(data->data); }
    std::span<std::uint8_t> Bytes() const;
  };
  struct Reaper {
    Client client;
    Data place;  // where the pointer to the URB goes
    std::optional<tavosim::SimTime> until;
  };
  struct Claimer {
    Client client;
    unsigned number;
    tavosim::SimTime until;
  };
  struct Call {
    Client client;
    Data data;  // null when the request has no structure
    template <typename Structure>
    Structure& As() const {
      return *reinterpret_cast<Structure*>(data->data);
    }
  };
  struct Request {
    unsigned long number;
    bool whenGone;  // works on a device that is not there any more
    int (UsbfsNode::*answer)(Call&);
  };
  static const std::array<Request, 14> kRequests;

  static gboolean OnIoctl(UMockdevIoctlBase*, Client client, gpointer self);
  void Remember(Client client);
  void ForgetClosed();
  void Forget(Client client);
  int Answer(Client client);

  int GetCapabilities(Call& call);
  int GetDriver(Call& call);
  int DriverIoctl(Call& call);
  int DisconnectClaim(Call& call);
  int ClaimInterface(Call& call);
  int ReleaseInterface(Call& call);
  int SetConfiguration(Call& call);
  int SetInterface(Call& call);
  int ClearHalt(Call& call);
  int Reset(Call& call);
  int SubmitUrb(Call& call);
  int DiscardUrb(Call& call);
  int ReapUrb(Call& call);
  int ReapUrbNow(Call& call);

  int Detach(unsigned number);
  int Attach(unsigned number);
  int Claim(Client client, unsigned number);
  int ClaimFor(const Urb& urb);
  int ReapUntil(Call& call, std::optional<tavosim::SimTime> until);
  std::optional<unsigned> InterfaceOf(unsigned endpoint) const;
  int Standard(std::uint8_t recipient, std::uint8_t request, unsigned value, unsigned index);

  void MoveTransfers(tavosim::SimTime now);
  tavosim::UsbResult Transfer(const Urb& urb, tavosim::SimTime now);
  void Finish(std::list<Urb>::iterator urb, int status);
  bool Reap(Reaper& reaper, tavosim::SimTime now);
  bool ClaimNow(const Claimer& claimer, tavosim::SimTime now);

  tavosim::UsbDevice& m_front;
  NodeEnvironment m_environment;
  GPointer<UMockdevIoctlBase> m_handler;
  std::list<GPointer<UMockdevIoctlClient>> m_clients;
  const std::string m_driver;
  bool m_connected = true;
  std::vector<Interface> m_interfaces;
  std::vector<unsigned> m_detached;
  std::list<Urb> m_inFlight;  // in the order of submission
  std::list<Urb> m_done;      // in the order of completion
  std::list<Reaper> m_reapers;
  std::list<Claimer> m_claimers;
};

}  // namespace tavo::test
