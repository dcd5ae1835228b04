// A USB/IP server on 127.0.0.1 in front of one simulated device. A Linux kernel's vhci driver
// (`usbip attach`) and the substitute libusb are its peers. Several peers may look at the device,
// one at a time may import it. An unplugged device is out of the list and ends the import; back
// again it has a new device number, as on a real bus.
//
//   Server server(device, {.busId = "1-4.2"});
//   std::cout << server.Port();
//   server.Run(stop.get_token());
//
// One thread, one loop; the device is called from Run alone, with the time since construction.
// Peers are not trusted: one that breaks the protocol is disconnected, with a message to
// `options.message`.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <stop_token>
#include <string>
#include <vector>

#include "simulator/usb_device.h"
#include "simulator/usbip/protocol.h"
#include "simulator/usbip/socket.h"

namespace tavosim::usbip {

struct ServerOptions {
  std::uint16_t port = 0;     // 0 = any free one
  std::string busId = "1-1";  // bus and ports, see ParseBusId
  bool kernelDriver = false;  // a driver takes all interfaces whenever the device is plugged in
  std::function<void(SimTime)> afterStep = [](SimTime) {};  // after each turn of the loop
  std::function<void(const std::string&)> message = [](const std::string&) {};
};

class Server {
 public:
  // Listens from here on. Throws std::invalid_argument for a bad bus id and std::runtime_error when
  // the port is not free. `device` must outlive the server.
  Server(UsbDevice& device, ServerOptions options);

  std::uint16_t Port() const { return m_port; }

  // Serves until a stop is requested; then closes all connections.
  void Run(const std::stop_token& stop);

 private:
  struct Urb {
    std::uint32_t sequence;
    std::uint8_t endpoint;  // with direction bit; 0 for control transfers of both directions
    SetupPacket setup;
    bool in;
    Bytes out;
    std::size_t capacity;  // device to host
  };
  struct Peer {
    Socket socket{};
    Bytes input{};
    Bytes output{};
    std::deque<Urb> pending{};  // in the order of submission
    bool imported = false;
    bool ending = false;  // goes as soon as `output` has left, with nothing more read
    bool gone = false;    // removed at the end of the turn
  };

  SimTime Now() const;
  void Wait(SimTime now);
  void WatchPlug(SimTime now);
  void ServePeers();
  void Accept();
  void End(Peer& peer);
  void Drop(Peer& peer, const std::string& why);

  void Receive(Peer& peer);
  void Send(Peer& peer, const Bytes& bytes);
  void Flush(Peer& peer);

  // Handle the message at the front of `input`; give its size, 0 while it is incomplete.
  std::size_t HandleMessage(Peer& peer, ByteView input);
  std::size_t HandleOperation(Peer& peer, ByteView input);
  std::size_t HandleUrb(Peer& peer, ByteView input);

  void ReplyDeviceList(Peer& peer);
  void ReplyImport(Peer& peer, const std::string& busId);
  void ReplyHostView(Peer& peer, std::uint32_t detach, std::uint32_t attach);
  bool IsSound(const UrbHeader& header) const;
  void Submit(Peer& peer, const UrbHeader& header, ByteView payload);
  void Unlink(Peer& peer, const UrbHeader& header);
  void CompletePending(Peer& peer, SimTime now);
  UsbResult Transfer(const Urb& urb, SimTime now);
  void ReplySubmit(Peer& peer, const Urb& urb, UsbResult result);

  DeviceRecord Record() const;
  std::uint32_t AllInterfaces() const;

  UsbDevice& m_device;
  ServerOptions m_options;
  std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
  Socket m_listener;
  std::uint16_t m_port = 0;
  std::list<Peer> m_peers;       // oldest first
  std::vector<Watch> m_watches;  // listener, then the peers in order
  bool m_plugged = false;
  std::uint32_t m_deviceNumber = 0;  // one more at each plug-in
  std::uint32_t m_driverMask = 0;    // interfaces that the kernel driver holds
};

}  // namespace tavosim::usbip
