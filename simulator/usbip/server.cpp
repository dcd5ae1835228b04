#include "simulator/usbip/server.h"

#include <algorithm>
#include <array>
#include <optional>
#include <stdexcept>

namespace tavosim::usbip {
namespace {

// A kernel driver keeps some ten URBs in flight, and listing takes a millisecond. A peer that exceeds
// these is faulty.
constexpr std::size_t kMaxPending = 256;
constexpr std::size_t kMaxPeers = 16;
constexpr std::size_t kMaxUnsent = 4 * kMaxTransferSize;
constexpr int kMaxChunksPerTurn = 8;  // one busy peer does not keep the others waiting
constexpr auto kLongestWait = std::chrono::milliseconds(50);  // before a stop is noticed

constexpr std::size_t kDeviceDescriptorSize = 18;  // USB 2.0, 9.6.1
constexpr std::uint8_t kInterfaceDescriptorType = 4;
constexpr std::size_t kInterfaceDescriptorSize = 9;
constexpr std::uint8_t kSetConfiguration = 9;

struct InterfaceClass {
  std::uint8_t number, interfaceClass, subClass, protocol;
};

// First alternate setting of every interface.
std::vector<InterfaceClass> Interfaces(ByteView configuration) {
  std::vector<InterfaceClass> found;
  while (configuration.size() >= 2 && configuration[0] >= 2 &&
         configuration[0] <= configuration.size()) {
    const ByteView one = configuration.first(configuration[0]);
    if (one[1] == kInterfaceDescriptorType && one.size() >= kInterfaceDescriptorSize && one[3] == 0)
      found.push_back({one[2], one[5], one[6], one[7]});
    configuration = configuration.subspan(one.size());
  }
  return found;
}

SetupPacket DecodeSetup(const std::array<std::uint8_t, 8>& raw) {
  const auto word = [&raw](std::size_t at) {
    return static_cast<std::uint16_t>(raw[at] | raw[at + 1] << 8);  // USB is little-endian
  };
  return {raw[0], raw[1], word(2), word(4), word(6)};
}

std::int32_t StatusOf(UsbStatus status) {
  return status == UsbStatus::Stall ? kUrbStalled : kUrbDone;
}

}  // namespace

Server::Server(UsbDevice& device, ServerOptions options)
    : m_device(device), m_options(std::move(options)), m_listener(ListenOn(m_options.port)) {
  if (ParseBusId(m_options.busId).empty())
    throw std::invalid_argument("\"" + m_options.busId + "\" is no bus id such as 1-4.2");
  m_port = PortOf(m_listener);
}

void Server::Run(const std::stop_token& stop) {
  while (true) {
    const bool last = stop.stop_requested();
    const SimTime now = Now();
    WatchPlug(now);
    for (Peer& peer : m_peers) CompletePending(peer, now);
    std::erase_if(m_peers, [](const Peer& peer) { return peer.gone; });
    m_options.afterStep(now);
    if (last) break;
    Wait(now);
    ServePeers();
  }
  for (Peer& peer : m_peers) End(peer);
  m_peers.clear();
}

SimTime Server::Now() const {
  return std::chrono::duration_cast<SimTime>(std::chrono::steady_clock::now() - m_start);
}

void Server::Wait(SimTime now) {
  m_watches = {{m_listener.Fd(), Readiness::Input}};
  for (const Peer& peer : m_peers) {
    m_watches.push_back(
        {peer.socket.Fd(), peer.output.empty() ? Readiness::Input : Readiness::InputOrRoom});
  }
  std::chrono::nanoseconds limit = kLongestWait;
  if (const std::optional<SimTime> due = m_device.NextDue(now))
    limit = std::min<std::chrono::nanoseconds>(limit, *due - Now());
  WaitUntilReady(m_watches, limit);
}

void Server::WatchPlug(SimTime now) {
  const bool plugged = m_device.Connected(now);
  if (plugged == m_plugged) return;
  m_plugged = plugged;
  if (!plugged) {
    for (Peer& peer : m_peers)
      if (peer.imported) Drop(peer, "the device was unplugged");
    return;
  }
  constexpr std::uint32_t kHighestDeviceNumber = 127;  // the address has seven bits
  m_deviceNumber = m_deviceNumber % kHighestDeviceNumber + 1;
  m_driverMask = m_options.kernelDriver ? AllInterfaces() : 0;
  // The exporting host's kernel configures a device as soon as it appears; peers rely on it.
  m_device.Control({0x00, kSetConfiguration, Record().configurationValue, 0, 0}, {}, now);
}

void Server::ServePeers() {
  // In the order of age: a host that closes and imports again at once has its old connection ended
  // before its new one asks.
  auto watch = m_watches.begin();
  const bool arrival = watch->input;
  for (Peer& peer : m_peers) {
    ++watch;
    if (watch->room && !peer.gone) Flush(peer);
    if (watch->input && !peer.gone) Receive(peer);
  }
  if (arrival) Accept();
}

void Server::Accept() {
  Socket socket = AcceptFrom(m_listener);
  if (!socket) return;
  if (m_peers.size() >= kMaxPeers) {
    const auto idle = std::ranges::find(m_peers, false, &Peer::imported);
    if (idle != m_peers.end()) Drop(*idle, "too many connections");
  }
  m_peers.emplace_back().socket = std::move(socket);
}

void Server::End(Peer& peer) {
  if (peer.gone) return;
  peer.gone = true;
  peer.pending.clear();
  peer.socket = Socket();
  if (peer.imported) m_device.Released(Now());
}

void Server::Drop(Peer& peer, const std::string& why) {
  if (!peer.gone) m_options.message("connection ended: " + why);
  End(peer);
}

void Server::Receive(Peer& peer) {
  std::array<std::uint8_t, 16 * 1024> chunk;
  for (int turn = 0; turn < kMaxChunksPerTurn && !peer.gone; ++turn) {
    const auto got = ReceiveSome(peer.socket, chunk);
    if (!got) return End(peer);
    if (*got == 0) return;
    const ByteView arrived = ByteView(chunk).first(*got);
    peer.input.insert(peer.input.end(), arrived.begin(), arrived.end());
    std::size_t used = 0;
    while (const std::size_t size = HandleMessage(peer, ByteView(peer.input).subspan(used)))
      used += size;
    peer.input.erase(peer.input.begin(), peer.input.begin() + static_cast<std::ptrdiff_t>(used));
  }
}

void Server::Send(Peer& peer, const Bytes& bytes) {
  if (peer.gone) return;
  peer.output.insert(peer.output.end(), bytes.begin(), bytes.end());
  if (peer.output.size() > kMaxUnsent) return Drop(peer, "the peer does not read its answers");
  Flush(peer);
}

void Server::Flush(Peer& peer) {
  if (!peer.output.empty()) {
    const auto sent = SendSome(peer.socket, peer.output);
    if (!sent) return End(peer);
    peer.output.erase(peer.output.begin(),
                      peer.output.begin() + static_cast<std::ptrdiff_t>(*sent));
  }
  if (peer.output.empty() && peer.ending) End(peer);
}

std::size_t Server::HandleMessage(Peer& peer, ByteView input) {
  if (peer.gone || peer.ending) return 0;
  return peer.imported ? HandleUrb(peer, input) : HandleOperation(peer, input);
}

std::size_t Server::HandleOperation(Peer& peer, ByteView input) {
  if (input.size() < kOpHeaderSize) return 0;
  Reader in(input);
  const OpHeader header = DecodeOpHeader(in);
  if (header.version != kVersion) return Drop(peer, "the peer speaks another USB/IP version"), 0;
  switch (header.code) {
    case kReqDeviceList: ReplyDeviceList(peer); return kOpHeaderSize;
    case kReqImport:
      if (input.size() < kImportRequestSize) return 0;
      ReplyImport(peer, in.Text(kBusIdSize));
      return kImportRequestSize;
    case kReqHostView: {
      if (input.size() < kHostViewRequestSize) return 0;
      const std::uint32_t detach = in.U32();
      ReplyHostView(peer, detach, in.U32());
      return kHostViewRequestSize;
    }
    default: return Drop(peer, "unknown operation " + std::to_string(header.code)), 0;
  }
}

void Server::ReplyDeviceList(Peer& peer) {
  Writer out;
  Encode(out, OpHeader{.code = kRepDeviceList});
  out.U32(m_plugged ? 1 : 0);
  if (m_plugged) {
    Encode(out, Record());
    for (const InterfaceClass& one : Interfaces(m_device.ConfigurationDescriptor()))
      out.U8(one.interfaceClass).U8(one.subClass).U8(one.protocol).U8(0);
  }
  peer.ending = true;
  Send(peer, out.Take());
}

void Server::ReplyImport(Peer& peer, const std::string& busId) {
  OpHeader header{.code = kRepImport};
  if (!m_plugged || busId != m_options.busId) header.status = kNoDevice;
  const auto inUse = [](const Peer& one) { return one.imported && !one.gone; };
  if (std::ranges::any_of(m_peers, inUse)) header.status = kDeviceBusy;
  Writer out;
  Encode(out, header);
  if (header.status == kOk) Encode(out, Record());
  peer.imported = header.status == kOk;
  peer.ending = !peer.imported;
  Send(peer, out.Take());
}

void Server::ReplyHostView(Peer& peer, std::uint32_t detach, std::uint32_t attach) {
  m_driverMask = (m_driverMask & ~detach) | (attach & AllInterfaces());
  Writer out;
  Encode(out, OpHeader{.code = kRepHostView, .status = m_plugged ? kOk : kNoDevice});
  if (m_plugged) {
    const Bytes device = m_device.DeviceDescriptor();
    const Bytes configuration = m_device.ConfigurationDescriptor();
    Encode(out, Record());
    out.U32(m_driverMask).U16(static_cast<std::uint16_t>(device.size()));
    out.U16(static_cast<std::uint16_t>(configuration.size())).Raw(device).Raw(configuration);
  }
  peer.ending = true;
  Send(peer, out.Take());
}

std::size_t Server::HandleUrb(Peer& peer, ByteView input) {
  if (input.size() < kUrbHeaderSize) return 0;
  const UrbHeader header = DecodeUrbHeader(input);
  if (header.command == kCmdUnlink) return Unlink(peer, header), kUrbHeaderSize;
  if (header.command != kCmdSubmit || !IsSound(header))
    return Drop(peer, "malformed URB message"), 0;
  const std::size_t payload = header.direction == kDirectionOut ? header.length : 0;
  if (input.size() < kUrbHeaderSize + payload) return 0;
  Submit(peer, header, input.subspan(kUrbHeaderSize, payload));
  return kUrbHeaderSize + payload;
}

bool Server::IsSound(const UrbHeader& header) const {
  constexpr std::uint32_t kNotIsochronous = 0xFFFFFFFF;  // some peers send this, some 0
  const std::uint32_t busNumber = ParseBusId(m_options.busId).front();
  return header.deviceId == DeviceId(busNumber, m_deviceNumber) &&
         header.direction <= kDirectionIn && header.endpoint < 16 &&
         header.length <= kMaxTransferSize &&
         (header.packetCount == 0 || header.packetCount == kNotIsochronous);
}

void Server::Submit(Peer& peer, const UrbHeader& header, ByteView payload) {
  if (peer.pending.size() >= kMaxPending) return Drop(peer, "too many URBs in flight");
  const bool in = header.direction == kDirectionIn;
  const std::uint32_t address = header.endpoint | (in && header.endpoint != 0 ? 0x80U : 0U);
  peer.pending.push_back({header.sequence, static_cast<std::uint8_t>(address),
                          DecodeSetup(header.setup), in, Bytes(payload.begin(), payload.end()),
                          in ? header.length : 0});
  CompletePending(peer, Now());
}

void Server::Unlink(Peer& peer, const UrbHeader& header) {
  const auto removed = std::erase_if(
      peer.pending, [&header](const Urb& urb) { return urb.sequence == header.detail; });
  // 0 means that the URB has already been answered: its reply stands, with its data.
  const std::int32_t status = removed != 0 ? kUrbUnlinked : kUrbDone;
  Writer out;
  Encode(out, UrbHeader{.command = kRetUnlink,
                        .sequence = header.sequence,
                        .detail = static_cast<std::uint32_t>(status)});
  Send(peer, out.Take());
}

void Server::CompletePending(Peer& peer, SimTime now) {
  std::array<bool, 256> blocked{};  // an endpoint serves its URBs in their order
  for (auto urb = peer.pending.begin(); urb != peer.pending.end();) {
    if (blocked[urb->endpoint]) {
      ++urb;
      continue;
    }
    UsbResult result = Transfer(*urb, now);
    if (result.status == UsbStatus::Gone) return Drop(peer, "the device was unplugged");
    if (result.status == UsbStatus::NotReady) {
      blocked[urb->endpoint] = true;
      ++urb;
      continue;
    }
    const Urb done = std::move(*urb);
    urb = peer.pending.erase(urb);
    ReplySubmit(peer, done, std::move(result));
    if (peer.gone) return;
  }
}

UsbResult Server::Transfer(const Urb& urb, SimTime now) {
  if (urb.endpoint == 0) return m_device.Control(urb.setup, urb.out, now);
  if (urb.in) return m_device.In(urb.endpoint, urb.capacity, now);
  return m_device.Out(urb.endpoint, urb.out, now);
}

void Server::ReplySubmit(Peer& peer, const Urb& urb, UsbResult result) {
  std::int32_t status = StatusOf(result.status);
  if (result.data.size() > urb.capacity && urb.in) {
    result.data.resize(urb.capacity);
    if (urb.endpoint != 0) status = kUrbOverflow;
  }
  const bool done = result.status == UsbStatus::Done;
  const std::size_t actual = urb.in ? result.data.size() : done ? urb.out.size() : 0;
  Writer out;
  Encode(out, UrbHeader{.command = kRetSubmit,
                        .sequence = urb.sequence,
                        .detail = static_cast<std::uint32_t>(status),
                        .length = static_cast<std::uint32_t>(actual)});
  if (urb.in) out.Raw(result.data);
  Send(peer, out.Take());
}

DeviceRecord Server::Record() const {
  Bytes device = m_device.DeviceDescriptor();
  device.resize(kDeviceDescriptorSize);
  Bytes configuration = m_device.ConfigurationDescriptor();
  const std::size_t interfaces = Interfaces(configuration).size();
  configuration.resize(std::max<std::size_t>(configuration.size(), 9));
  const auto word = [&device](std::size_t at) {
    return static_cast<std::uint16_t>(device[at] | device[at + 1] << 8);
  };
  DeviceRecord record{.path = "/sys/devices/simulated/" + m_options.busId,
                      .busId = m_options.busId,
                      .busNumber = ParseBusId(m_options.busId).front(),
                      .deviceNumber = m_deviceNumber};
  record.vendor = word(8);
  record.product = word(10);
  record.release = word(12);
  record.deviceClass = device[4];
  record.deviceSubClass = device[5];
  record.deviceProtocol = device[6];
  record.configurationValue = configuration[5];
  record.configurationCount = device[17];
  record.interfaceCount = static_cast<std::uint8_t>(interfaces);
  return record;
}

std::uint32_t Server::AllInterfaces() const {
  std::uint32_t mask = 0;
  for (const InterfaceClass& one : Interfaces(m_device.ConfigurationDescriptor()))
    if (one.number < 32) mask |= 1U << one.number;
  return mask;
}

}  // namespace tavosim::usbip
