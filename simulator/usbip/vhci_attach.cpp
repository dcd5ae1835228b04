// tavo-vhci-attach: plugs the device of a running simulator into this machine's own kernel. It
// asks the server for the device and hands the connection to the vhci driver, which from then on is
// the peer; then it ends. `usbip attach` does the same where it is installed.
// Unplugging takes no program: write the number of the vhci port to the driver's file "detach".
//
// Needs root, and the module vhci-hcd.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <iostream>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

#include "simulator/usbip/protocol.h"
#include "simulator/usbip/socket.h"

namespace {

using namespace tavosim::usbip;
using Clock = std::chrono::steady_clock;

constexpr const char* kAttachFile = "/sys/devices/platform/vhci_hcd.0/attach";
constexpr const char* kUsage =
    "usage: tavo-vhci-attach TCP-PORT BUS-ID VHCI-PORT\n"
    "Example: tavo-vhci-attach 3240 1-4.2 0\n";
constexpr std::chrono::seconds kPatience{5};  // a server on the same machine answers at once

struct Arguments {
  std::uint16_t tcpPort = 0;
  std::string busId{};
  std::uint16_t vhciPort = 0;
};

std::optional<std::uint16_t> ParseNumber(std::string_view text) {
  std::uint16_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::optional<Arguments> ParseArguments(int argc, char** argv) {
  if (argc != 4) return std::nullopt;
  const auto tcpPort = ParseNumber(argv[1]);
  const auto vhciPort = ParseNumber(argv[3]);
  if (!tcpPort || !vhciPort || ParseBusId(argv[2]).empty()) return std::nullopt;
  return Arguments{*tcpPort, argv[2], *vhciPort};
}

void SendAll(const Socket& socket, ByteView bytes, Clock::time_point deadline) {
  Watch watch{socket.Fd(), Readiness::Room};
  while (!bytes.empty()) {
    if (!WaitUntilReady({&watch, 1}, deadline - Clock::now()))
      throw std::runtime_error("the simulator takes no request");
    const auto sent = SendSome(socket, bytes);
    if (!sent) throw std::runtime_error("the simulator has ended the connection");
    bytes = bytes.subspan(*sent);
  }
}

// Exactly `size` bytes: what follows is already the kernel's.
Bytes ReceiveAll(const Socket& socket, std::size_t size, Clock::time_point deadline) {
  Watch watch{socket.Fd(), Readiness::Input};
  Bytes bytes(size);
  for (std::size_t have = 0; have < size;) {
    if (!WaitUntilReady({&watch, 1}, deadline - Clock::now()))
      throw std::runtime_error("the simulator does not answer");
    const auto got = ReceiveSome(socket, std::span(bytes).subspan(have));
    if (!got) throw std::runtime_error("the simulator has ended the connection");
    have += *got;
  }
  return bytes;
}

DeviceRecord Import(const Socket& socket, const std::string& busId) {
  const auto deadline = Clock::now() + kPatience;
  Writer request;
  Encode(request, OpHeader{.code = kReqImport});
  SendAll(socket, request.Text(busId, kBusIdSize).Take(), deadline);
  const Bytes answer = ReceiveAll(socket, kOpHeaderSize, deadline);
  Reader in(answer);
  const OpHeader header = DecodeOpHeader(in);
  if (header.code != kRepImport || header.status != kOk)
    throw std::runtime_error("the simulator refuses device " + busId + ", status " +
                             std::to_string(header.status));
  const Bytes record = ReceiveAll(socket, kDeviceRecordSize, deadline);
  Reader fields(record);
  return DecodeDeviceRecord(fields);
}

// The driver takes a reference to the connection while it handles the write, and wants the whole
// line in one piece.
void HandOver(const Socket& socket, const DeviceRecord& device, std::uint16_t vhciPort) {
  const std::string line = std::to_string(vhciPort) + " " + std::to_string(socket.Fd()) + " " +
                           std::to_string(DeviceId(device.busNumber, device.deviceNumber)) + " " +
                           std::to_string(device.speed) + "\n";
  const Socket file(open(kAttachFile, O_WRONLY | O_CLOEXEC));
  if (!file || write(file.Fd(), line.data(), line.size()) < 0)
    throw std::system_error(errno, std::generic_category(), kAttachFile);
}

void Attach(const Arguments& arguments) {
  const Socket socket = ConnectTo(ParseIp("127.0.0.1").value_or(0), arguments.tcpPort, kPatience);
  if (!socket)
    throw std::runtime_error("no simulator listens on 127.0.0.1:" +
                             std::to_string(arguments.tcpPort));
  HandOver(socket, Import(socket, arguments.busId), arguments.vhciPort);
}

}  // namespace

int main(int argc, char** argv) {
  const auto arguments = ParseArguments(argc, argv);
  if (!arguments) {
    std::cerr << kUsage;
    return 2;
  }
  try {
    Attach(*arguments);
  } catch (const std::exception& error) {
    std::cerr << "tavo-vhci-attach: " << error.what() << std::endl;
    return 1;
  }
  return 0;
}
