#include "simulator/device.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace tavosim {
namespace {

constexpr std::size_t kBytesPerKiB = 1024;
// Bounds for a host that never reads, and for one that never stops.
constexpr std::size_t kMaxOutgoing = 64;
constexpr std::size_t kMaxJournal = 65536;

constexpr std::uint16_t kDirect = 0x100;      // requests to an application or a master module
constexpr std::uint16_t kFamilySpecific = 0;  // stands for the family's own application request id
constexpr std::uint16_t kStart = 0x12F;

std::vector<std::uint8_t> LittleEndian(std::uint32_t value, std::size_t size) {
  std::vector<std::uint8_t> bytes(size);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
  return bytes;
}

std::vector<std::uint8_t> InitialFlash(const DeviceOptions& options) {
  auto bytes = OldFirmware(options.family.applicationKiB * kBytesPerKiB, options.seed);
  if (options.applicationIntact) return bytes;
  // As an interrupted update leaves it.
  std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(bytes.size() / 2), bytes.end(),
            std::uint8_t{0xFF});
  return bytes;
}

const Fault* FindKind(std::span<const Fault* const> hits, FaultKind kind) {
  const auto hit = std::find_if(hits.begin(), hits.end(),
                                [&](const Fault* fault) { return fault->kind == kind; });
  return hit == hits.end() ? nullptr : *hit;
}

}  // namespace

const Family* FindFamily(std::string_view name) {
  const auto* const family = std::find_if(kFamilies.begin(), kFamilies.end(),
                                          [&](const Family& row) { return row.name == name; });
  return family == kFamilies.end() ? nullptr : family;
}

DeviceOptions OptionsFor(const Family& family) {
  DeviceOptions options;
  options.family = family;
  return options;
}

std::string Describe(const Exchange& exchange) {
  const bool escape = exchange.number == 0;
  char text[8];
  std::snprintf(text, sizeof text, "0x%.3X", exchange.id);
  std::string line = escape ? "" : text;
  for (const unsigned byte : exchange.payload) {
    std::snprintf(text, sizeof text, line.empty() ? "%.2X" : " %.2X", byte);
    line += text;
  }
  return line;
}

// clang-format off
const std::array<Device::Command, 21> Device::kCommands{{
  // unit              request id       payload begins     handler
  {Unit::Master,      kDirect,         2, {0xEB, 0x00}, &Device::TunnelStatus},
  {Unit::Master,      kDirect,         2, {0xED, 0x00}, &Device::OpenTunnelTo},
  {Unit::Master,      kDirect,         2, {0xEC, 0x00}, &Device::CloseTunnel},
  {Unit::Identity,    kDirect,         2, {0xBB, 0x0A}, &Device::DeviceId},
  {Unit::Identity,    0x802,           0, {},           &Device::AdminDeviceId},
  {Unit::Application, kDirect,         1, {0x00},       &Device::SignOfLife},
  {Unit::Application, kFamilySpecific, 2, {0xBB, 0x02}, &Device::SoftwareId},
  {Unit::Application, kFamilySpecific, 2, {0xFD, 0x00}, &Device::EnterBootloader},
  {Unit::Application, kDirect,         1, {0xA0},       &Device::StoreLabel},
  {Unit::Application, 0x814,           0, {},           &Device::ResetModule},
  {Unit::Application, kStart,          1, {0x01},       &Device::LeaveInApplication},
  {Unit::Bootloader,  0x120,           0, {},           &Device::BootloaderVersion},
  {Unit::Bootloader,  0x121,           0, {},           &Device::ProcessorId},
  {Unit::Bootloader,  0x122,           0, {},           &Device::HardwareId},
  {Unit::Bootloader,  0x130,           1, {0x01},       &Device::EraseFlash},
  {Unit::Bootloader,  0x130,           1, {0x03},       &Device::EraseFlash},
  {Unit::Bootloader,  0x132,           0, {},           &Device::ApplicationSize},
  {Unit::Bootloader,  0x133,           0, {},           &Device::PositionFlash},
  {Unit::Bootloader,  0x134,           0, {},           &Device::WriteFlash},
  {Unit::Bootloader,  0x136,           0, {},           &Device::Checksums},
  {Unit::Bootloader,  kStart,          0, {},           &Device::StartApplication},
}};
// clang-format on

Device::Device(DeviceOptions options, std::vector<Fault> faults)
    : m_options(std::move(options)),
      m_faults(std::move(faults), m_options.seed),
      m_flash(m_options.family.flashStart, m_options.family.applicationKiB * kBytesPerKiB),
      m_tunnel(m_options.openTunnel) {
  m_flash.Load(InitialFlash(m_options));
  const bool bootloader = m_options.start == DeviceState::Bootloader || !m_flash.Intact();
  m_mode = bootloader ? DeviceState::Bootloader : DeviceState::Application;
}

void Device::Receive(std::span<const std::uint8_t> bytes, SimTime now) {
  if (!Connected(now)) return;
  for (const auto& item : m_reader.Put(bytes, now)) {
    if (!Connected(now)) return;  // the request before this one pulled the cable
    if (item) {
      Handle(*item, now);
    } else {
      Record({0, 0, {0x1B, 0x1B, 0x1B}, now, false});
    }
  }
}

std::vector<std::uint8_t> Device::Take(std::size_t max, SimTime now) {
  std::vector<std::uint8_t> taken;
  while (!m_outgoing.empty() && m_outgoing.front().due <= now && taken.size() < max) {
    auto& bytes = m_outgoing.front().bytes;
    const auto count = static_cast<std::ptrdiff_t>(std::min(bytes.size(), max - taken.size()));
    taken.insert(taken.end(), bytes.begin(), bytes.begin() + count);
    bytes.erase(bytes.begin(), bytes.begin() + count);
    if (bytes.empty()) m_outgoing.pop_front();
  }
  return taken;
}

std::optional<SimTime> Device::NextDue() const {
  return m_outgoing.empty() ? std::nullopt : std::optional(m_outgoing.front().due);
}

void Device::SetFaults(std::vector<Fault> faults) {
  m_faults = FaultPlan(std::move(faults), m_options.seed);
  m_requests = 0;
  m_requestsById.clear();
}

void Device::PowerCut(SimTime now, bool intoBootloader) {
  ForgetAnswers();
  m_reader.Reset();
  m_busyUntil = now;
  m_tunnel = 0;
  const bool application = m_flash.Intact() && !intoBootloader;
  StartUp(application ? DeviceState::Application : DeviceState::Bootloader, now);
}

void Device::Unplug(SimTime now, std::optional<SimTime> replugAfter) {
  ForgetAnswers();
  m_reader.Reset();
  m_connectedFrom = replugAfter ? now + *replugAfter : SimTime::max();
  ++m_unplugs;
}

std::optional<SimTime> Device::ReplugAt(SimTime now) const {
  const bool returns = !Connected(now) && m_connectedFrom != SimTime::max();
  return returns ? std::optional(m_connectedFrom) : std::nullopt;
}

Snapshot Device::Save() const { return {m_flash.Bytes(), m_label, m_tunnel, m_mode}; }

bool Device::Restore(const Snapshot& snapshot) {
  if (!m_flash.Load(snapshot.flash)) return false;
  m_label = snapshot.label;
  m_tunnel = snapshot.tunnel;
  const bool bootloader = snapshot.state == DeviceState::Bootloader || !m_flash.Intact();
  m_mode = bootloader ? DeviceState::Bootloader : DeviceState::Application;
  return true;
}

void Device::Handle(const Frame& request, SimTime now) {
  const auto hits = m_faults.Hitting(++m_requests, request.id, ++m_requestsById[request.id]);
  Exchange exchange{m_requests, request.id, request.payload, now, false};
  ReleaseWithheld(now);
  if (const auto* const cut = FindKind(hits, FaultKind::PowerCut)) {
    PowerCut(now, cut->intoBootloader);
  } else if (auto reply = Dispatch(request, now)) {
    if (m_options.numbersAnswers) Number(reply->payload);
    const auto due = Schedule(*reply, now);
    auto spoilt = m_faults.Spoil({request.id, reply->payload}, due, hits);
    exchange.answered = !spoilt.sent.empty();
    for (auto& transmission : spoilt.sent) {
      if (spoilt.withheld) {
        m_withheld.push_back(std::move(transmission));
      } else {
        Transmit(std::move(transmission));
      }
    }
  }
  if (const auto* const fault = FindKind(hits, FaultKind::Unplug)) {
    exchange.answered = false;
    Unplug(now, fault->time);
  }
  Record(std::move(exchange));
}

void Device::Record(Exchange exchange) {
  if (m_journal.size() >= kMaxJournal) {
    m_journal.erase(m_journal.begin(), m_journal.begin() + kMaxJournal / 2);
  }
  m_journal.push_back(std::move(exchange));
}

Device::MaybeReply Device::Dispatch(const Frame& request, SimTime now) {
  const auto* const command = std::find_if(
      kCommands.begin(), kCommands.end(),
      [&](const Command& row) { return Matches(row, request) && Reachable(row.unit, now); });
  if (command == kCommands.end()) return std::nullopt;
  return (this->*command->handle)(request.payload);
}

bool Device::Matches(const Command& command, const Frame& request) const {
  const auto id =
      command.id == kFamilySpecific ? m_options.family.applicationRequestId : command.id;
  const auto& payload = request.payload;
  return id == request.id && payload.size() >= command.prefixLength &&
         std::equal(payload.begin(), payload.begin() + command.prefixLength,
                    command.prefix.begin());
}

bool Device::Reachable(Unit unit, SimTime now) const {
  const auto state = State(now);
  switch (unit) {
    case Unit::Master: return m_options.family.route != 0 || state == DeviceState::Application;
    case Unit::Identity: return BehindClosedTunnel() || state == DeviceState::Application;
    case Unit::Application: return !BehindClosedTunnel() && state == DeviceState::Application;
    case Unit::Bootloader: return !BehindClosedTunnel() && state == DeviceState::Bootloader;
  }
  return false;
}

bool Device::BehindClosedTunnel() const {
  const auto route = m_options.family.route;
  return route != 0 && m_tunnel != route;
}

// A device does one thing at a time, however fast requests arrive.
void Device::Number(std::vector<std::uint8_t>& payload) const {
  payload.resize(std::max(payload.size(), kAnswerNumberOffset + 2));
  payload[kAnswerNumberOffset] = static_cast<std::uint8_t>(m_requests);
  payload[kAnswerNumberOffset + 1] = static_cast<std::uint8_t>(m_requests >> 8U);
}

SimTime Device::Schedule(const Reply& reply, SimTime now) {
  m_busyUntil = std::max(m_busyUntil, now) + m_options.answerDelay + reply.work;
  if (reply.startsThen) StartUp(*reply.startsThen, m_busyUntil);
  return m_busyUntil;
}

void Device::Transmit(Transmission transmission) {
  if (transmission.bytes.empty() || m_outgoing.size() >= kMaxOutgoing) return;
  const auto later = std::find_if(m_outgoing.begin(), m_outgoing.end(),
                                  [&](const auto& other) { return other.due > transmission.due; });
  m_outgoing.insert(later, std::move(transmission));
}

void Device::ReleaseWithheld(SimTime now) {
  for (auto& transmission : std::exchange(m_withheld, {})) {
    transmission.due = std::max(transmission.due, now);
    Transmit(std::move(transmission));
  }
}

void Device::StartUp(DeviceState mode, SimTime from) {
  const bool application = mode == DeviceState::Application;
  m_mode = mode;
  m_readyAt = from + (application ? m_options.applicationBootTime : m_options.bootloaderStartTime);
  m_flash.ForgetPosition();
}

void Device::ForgetAnswers() {
  m_outgoing.clear();
  m_withheld.clear();
}

Device::MaybeReply Device::TunnelStatus(Payload) { return Reply{LittleEndian(m_tunnel, 2)}; }

Device::MaybeReply Device::OpenTunnelTo(Payload payload) {
  if (payload.size() < 4) return std::nullopt;
  m_tunnel = static_cast<std::uint16_t>(payload[2] | payload[3] << 8);
  return Reply{{payload.begin(), payload.end()}};
}

Device::MaybeReply Device::CloseTunnel(Payload payload) {
  m_tunnel = 0;
  if (!m_options.answersCloseTunnel) return std::nullopt;
  return Reply{{payload.begin(), payload.end()}};
}

Device::MaybeReply Device::DeviceId(Payload) {
  if (m_options.deviceIdAnswers != DeviceIdAnswers::Both) return std::nullopt;
  return Reply{LittleEndian(m_options.family.deviceId, 2)};
}

Device::MaybeReply Device::AdminDeviceId(Payload) {
  if (m_options.deviceIdAnswers == DeviceIdAnswers::Neither) return std::nullopt;
  return Reply{LittleEndian(m_options.family.deviceId, 2)};
}

Device::MaybeReply Device::SignOfLife(Payload) { return Reply{{0x00}}; }

Device::MaybeReply Device::SoftwareId(Payload) {
  return Reply{LittleEndian(m_options.family.softwareId, 2)};
}

Device::MaybeReply Device::EnterBootloader(Payload payload) {
  return Reply{{payload.begin(), payload.end()}, SimTime{0}, DeviceState::Bootloader};
}

Device::MaybeReply Device::StoreLabel(Payload payload) {
  if (payload.size() < 2) return std::nullopt;
  m_label = payload[1];
  return Reply{{payload.begin(), payload.end()}};
}

Device::MaybeReply Device::ResetModule(Payload payload) {
  const auto& modules = m_options.resetModules;
  if (payload.empty()) return std::nullopt;
  const auto code = payload[0] < modules.size() ? modules[payload[0]] : std::uint16_t{0};
  return Reply{LittleEndian(code, 2)};
}

Device::MaybeReply Device::LeaveInApplication(Payload) {
  if (!m_options.answersLeaveInApplication) return std::nullopt;
  return Reply{};
}

Device::MaybeReply Device::BootloaderVersion(Payload) {
  return Reply{{m_options.family.bootloaderVersion, m_options.family.blockSize}};
}

Device::MaybeReply Device::ProcessorId(Payload) {
  auto bytes = LittleEndian(m_options.family.processorId, 3);
  std::reverse(bytes.begin(), bytes.end());
  return Reply{bytes};
}

Device::MaybeReply Device::HardwareId(Payload) {
  return Reply{LittleEndian(m_options.family.hardwareId, 2)};
}

Device::MaybeReply Device::ApplicationSize(Payload) {
  return Reply{LittleEndian(m_options.family.applicationKiB, 2)};
}

Device::MaybeReply Device::EraseFlash(Payload) {
  m_flash.Erase();
  return Reply{{}, m_options.eraseTime};
}

Device::MaybeReply Device::PositionFlash(Payload payload) {
  if (payload.size() != 4) return std::nullopt;
  std::uint32_t address = 0;
  for (auto byte = payload.rbegin(); byte != payload.rend(); ++byte)
    address = address << 8U | *byte;
  if (!m_flash.Position(address)) return std::nullopt;
  return Reply{};
}

Device::MaybeReply Device::WriteFlash(Payload payload) {
  if (payload.size() != m_options.family.blockSize) return std::nullopt;
  if (!m_flash.Write(payload, m_options.writeAddressAdvances)) return std::nullopt;
  return Reply{{}, m_options.blockWriteTime};
}

Device::MaybeReply Device::Checksums(Payload) {
  auto bytes = LittleEndian(m_flash.CalculatedChecksum(), 4);
  const auto reference = LittleEndian(m_flash.ReferenceChecksum(), 4);
  bytes.insert(bytes.end(), reference.begin(), reference.end());
  return Reply{bytes};
}

// The bootloader confirms in any case, but should start nothing that is not whole.
Device::MaybeReply Device::StartApplication(Payload) {
  if (m_flash.Intact()) return Reply{{}, SimTime{0}, DeviceState::Application};
  return m_options.checksBeforeStart ? Reply{} : Reply{{}, SimTime{0}, DeviceState::None};
}

}  // namespace tavosim
