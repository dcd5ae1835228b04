#include "simulator/substitute_libusb/connection.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace tavosim::substitute {
namespace {

using namespace usbip;

constexpr auto kPatience = std::chrono::seconds(2);  // a busy machine takes its time

std::optional<Address> ParseAddress(const std::string& text) {
  const std::size_t colon = std::min(text.find(':'), text.size());
  const std::optional<std::uint32_t> ip = ParseIp(text.substr(0, colon));
  if (!ip) return std::nullopt;
  Address address{.ip = *ip, .port = kDefaultPort};
  if (colon == text.size()) return address;
  const char* const end = text.data() + text.size();
  const auto [next, error] = std::from_chars(text.data() + colon + 1, end, address.port);
  if (error != std::errc{} || next != end || address.port == 0) return std::nullopt;
  return address;
}

std::uint8_t Low(std::uint16_t value) { return static_cast<std::uint8_t>(value & 0xFF); }
std::uint8_t High(std::uint16_t value) { return static_cast<std::uint8_t>(value >> 8); }

// A device descriptor as far as a device list reveals it: without the numbers of the texts.
Bytes DescriptorOf(const DeviceRecord& record) {
  constexpr std::uint8_t kPacketSize = 64;  // at endpoint 0
  return {18,
          1,
          0x00,
          0x02,  // USB 2.0
          record.deviceClass,
          record.deviceSubClass,
          record.deviceProtocol,
          kPacketSize,
          Low(record.vendor),
          High(record.vendor),
          Low(record.product),
          High(record.product),
          Low(record.release),
          High(record.release),
          0,
          0,
          0,
          record.configurationCount};
}

}  // namespace

std::vector<Address> AddressesFromEnvironment() {
  const char* const value = std::getenv("TAVO_SIMULATORS");
  std::istringstream list(value == nullptr ? "" : value);
  std::vector<Address> addresses;
  for (std::string entry; std::getline(list, entry, ',');) {
    if (const std::optional<Address> address = ParseAddress(entry))
      addresses.push_back(*address);
    else
      std::fprintf(stderr, "TAVO_SIMULATORS: \"%s\" is ignored, write for example 127.0.0.1:3240\n",
                   entry.c_str());
  }
  return addresses;
}

std::optional<HostView> FetchHostView(const Address& address, std::uint32_t detach,
                                      std::uint32_t attach) {
  const auto deadline = Clock::now() + kPatience;
  Connection connection;
  Writer request;
  Encode(request, OpHeader{.code = kReqHostView});
  const auto header = connection.Ask(address, request.U32(detach).U32(attach).Take(), deadline);
  const bool isKnown = header && header->code == kRepHostView &&
                       (header->status == kOk || header->status == kNoDevice);
  // An ordinary server refuses the operation, or ends the connection; one that hangs does neither.
  if (!isKnown) return Clock::now() < deadline ? FetchFromDeviceList(address) : std::nullopt;
  if (header->status != kOk) return std::nullopt;

  const auto fixed = connection.Await(kHostViewFixedSize, deadline);
  if (!fixed) return std::nullopt;
  Reader in(*fixed);
  HostView view{.record = DecodeDeviceRecord(in)};
  view.driverMask = in.U32();
  const std::size_t deviceSize = in.U16();
  const std::size_t configurationSize = in.U16();
  const auto descriptors = connection.Await(deviceSize + configurationSize, deadline);
  if (!descriptors) return std::nullopt;
  const ByteView both(*descriptors);
  view.deviceDescriptor.assign(both.begin(),
                               both.begin() + static_cast<std::ptrdiff_t>(deviceSize));
  view.configuration.assign(both.begin() + static_cast<std::ptrdiff_t>(deviceSize), both.end());
  return view;
}

std::optional<HostView> FetchFromDeviceList(const Address& address) {
  const auto deadline = Clock::now() + kPatience;
  Connection connection;
  Writer request;
  Encode(request, OpHeader{.code = kReqDeviceList});
  const auto header = connection.Ask(address, request.Take(), deadline);
  if (!header || header->code != kRepDeviceList || header->status != kOk) return std::nullopt;
  const auto count = connection.Await(sizeof(std::uint32_t), deadline);
  if (!count || Reader(*count).U32() == 0) return std::nullopt;
  const auto first = connection.Await(kDeviceRecordSize, deadline);
  if (!first) return std::nullopt;
  Reader in(*first);
  const DeviceRecord record = DecodeDeviceRecord(in);
  return HostView{.record = record, .isOrdinary = true, .deviceDescriptor = DescriptorOf(record)};
}

Connection::ImportOutcome Connection::Import(const Address& address, const DeviceRecord& expected) {
  const auto deadline = Clock::now() + kPatience;
  Writer request;
  Encode(request, OpHeader{.code = kReqImport});
  const auto header = Ask(address, request.Text(expected.busId, kBusIdSize).Take(), deadline);
  if (!header || header->code != kRepImport) return ImportOutcome::Gone;
  if (header->status == kDeviceBusy) return ImportOutcome::Busy;
  if (header->status != kOk) return ImportOutcome::Gone;
  const auto record = Await(kDeviceRecordSize, deadline);
  if (!record) return ImportOutcome::Gone;
  Reader in(*record);
  const bool same = DecodeDeviceRecord(in).deviceNumber == expected.deviceNumber;
  return same ? ImportOutcome::Imported : ImportOutcome::Gone;
}

void Connection::Close() {
  if (!m_socket) return;
  FinishSending(m_socket);
  const auto deadline = Clock::now() + kPatience;
  while (Receive() && WaitFor(Readiness::Input, deadline)) m_input.clear();
  m_socket = Socket();
}

bool Connection::Send(ByteView bytes) {
  const auto deadline = Clock::now() + kPatience;
  while (!bytes.empty()) {
    const auto sent = SendSome(m_socket, bytes);
    if (!sent) return false;
    bytes = bytes.subspan(*sent);
    if (!bytes.empty() && !WaitFor(Readiness::Room, deadline)) return false;
  }
  return true;
}

bool Connection::Receive() {
  std::array<std::uint8_t, 16 * 1024> chunk;
  while (m_input.size() < 2 * kMaxTransferSize) {
    const auto got = ReceiveSome(m_socket, chunk);
    if (!got) return false;
    const ByteView arrived = ByteView(chunk).first(*got);
    m_input.insert(m_input.end(), arrived.begin(), arrived.end());
    if (*got < chunk.size()) return true;
  }
  return true;
}

void Connection::Consume(std::size_t size) {
  m_input.erase(m_input.begin(), m_input.begin() + static_cast<std::ptrdiff_t>(size));
}

bool Connection::Connect(const Address& address, Clock::time_point deadline) {
  m_socket = ConnectTo(address.ip, address.port, deadline - Clock::now());
  return static_cast<bool>(m_socket);
}

std::optional<OpHeader> Connection::Ask(const Address& address, ByteView request,
                                        Clock::time_point deadline) {
  if (!Connect(address, deadline) || !Send(request)) return std::nullopt;
  const auto head = Await(kOpHeaderSize, deadline);
  if (!head) return std::nullopt;
  Reader in(*head);
  return DecodeOpHeader(in);
}

// The next `size` bytes; none when they do not arrive before the deadline.
std::optional<Bytes> Connection::Await(std::size_t size, Clock::time_point deadline) {
  bool alive = true;
  while (m_input.size() < size) {
    if (!alive || !WaitFor(Readiness::Input, deadline)) return std::nullopt;
    alive = Receive();
  }
  const auto end = m_input.begin() + static_cast<std::ptrdiff_t>(size);
  Bytes bytes(m_input.begin(), end);
  Consume(size);
  return bytes;
}

bool Connection::WaitFor(Readiness what, Clock::time_point deadline) {
  const auto left = deadline - Clock::now();
  Watch watch{m_socket.Fd(), what};
  return left > Clock::duration::zero() && WaitUntilReady({&watch, 1}, left);
}

}  // namespace tavosim::substitute
