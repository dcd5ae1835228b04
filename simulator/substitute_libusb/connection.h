// The host's side of USB/IP: one TCP connection to one simulator. Requests before the import are
// short dialogues with a time limit; after it the connection carries URB messages both ways and
// nothing here waits for an answer.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "simulator/usbip/protocol.h"
#include "simulator/usbip/socket.h"

namespace tavosim::substitute {

using usbip::Bytes;
using usbip::ByteView;
using Clock = std::chrono::steady_clock;

struct Address {
  std::uint32_t ip = 0;  // network byte order
  std::uint16_t port = 0;

  bool operator==(const Address&) const = default;
};

// The simulators named in TAVO_SIMULATORS, "127.0.0.1:3240,127.0.0.1:3241"; without a port it is
// 3240. An entry that is not an IPv4 address is reported on standard error and left out.
std::vector<Address> AddressesFromEnvironment();

// Facts that a host's kernel knows about a device that is not open.
struct HostView {
  usbip::DeviceRecord record{};
  // From a server that does not know the host view: no driver holds an interface, and the descriptors
  // have to be requested from the open device.
  bool isOrdinary = false;
  std::uint32_t driverMask = 0;  // interfaces that a kernel driver holds
  Bytes deviceDescriptor{};
  Bytes configuration{};
};

// Asks, after detaching and attaching kernel drivers by two interface masks. None when no
// simulator listens there or its device is unplugged. Takes two seconds at most, or four where a
// server of ordinary USB/IP has to be asked once more.
std::optional<HostView> FetchHostView(const Address& address, std::uint32_t detach = 0,
                                      std::uint32_t attach = 0);
// From an ordinary server: the first device in its list.
std::optional<HostView> FetchFromDeviceList(const Address& address);

class Connection {
 public:
  enum class ImportOutcome { Imported, Busy, Gone };

  // Gone also when another device has taken the place of the one with `expected`'s number.
  ImportOutcome Import(const Address& address, const usbip::DeviceRecord& expected);

  // Lets go of the device and waits, two seconds at most, until the simulator knows.
  void Close();

  usbip::SocketFd Fd() const { return m_socket.Fd(); }

  // False when the connection is lost, or takes nothing for two seconds.
  bool Send(ByteView bytes);
  // Takes over what has arrived, without waiting; false when the connection is lost. Bytes
  // from before the loss are in Input() all the same.
  bool Receive();
  ByteView Input() const { return m_input; }
  void Consume(std::size_t size);

 private:
  friend std::optional<HostView> FetchHostView(const Address&, std::uint32_t, std::uint32_t);
  friend std::optional<HostView> FetchFromDeviceList(const Address&);

  // Connects and sends the request; the header of the reply, or none.
  std::optional<usbip::OpHeader> Ask(const Address& address, ByteView request,
                                     Clock::time_point deadline);
  bool Connect(const Address& address, Clock::time_point deadline);
  std::optional<Bytes> Await(std::size_t size, Clock::time_point deadline);
  bool WaitFor(usbip::Readiness what, Clock::time_point deadline);

  usbip::Socket m_socket;
  Bytes m_input;
};

}  // namespace tavosim::substitute
