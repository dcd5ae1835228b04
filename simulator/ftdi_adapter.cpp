#include "simulator/ftdi_adapter.h"

#include <algorithm>
#include <array>
#include <utility>

namespace tavosim {
namespace {

enum FtdiRequest : std::uint8_t {
  kReset = 0x00,
  kModemControl = 0x01,
  kFlowControl = 0x02,
  kSetBaud = 0x03,
  kSetFormat = 0x04,
  kPollModemStatus = 0x05,
  kSetEventCharacter = 0x06,
  kSetErrorCharacter = 0x07,
  kSetLatency = 0x09,
  kGetLatency = 0x0A,
  kSetBitMode = 0x0B,
  kReadEeprom = 0x90,
};

// A reset empties one direction and keeps the other.
constexpr std::uint16_t kPurgeTowardsDevice = 1;
constexpr std::uint16_t kPurgeTowardsHost = 2;

// Data set ready and carrier; transmitter empty. The first byte could open a frame, which exposes a
// host that leaves it in the data.
constexpr std::array<std::uint8_t, 2> kStatus{0xA1, 0x60};
constexpr std::uint16_t kFormat8N1 = 0x0008;
constexpr std::uint32_t kPowerOnBaud = 9600;
constexpr SimTime kPowerOnLatency = std::chrono::milliseconds(16);

// The ids and release; what a program may look at without reading it all.
constexpr std::array<std::uint16_t, 64> kEeprom{0x4000, 0x0403, 0x6001, 0x0600};

// The chips, by their number of channels.
struct Chip {
  unsigned channels;
  std::uint8_t product;  // low byte; the high one is 0x60
  std::uint8_t release;  // high byte
};
constexpr std::array kChips{Chip{1, 0x01, 0x06}, Chip{2, 0x10, 0x05}, Chip{4, 0x11, 0x08}};

// clang-format off
std::vector<std::uint8_t> DeviceOf(const Chip& chip) {
  return {
    18, 1, 0x00, 0x02,                 // USB 2.0
    0, 0, 0, 8,                        // class named by the interface, 8 bytes at endpoint 0
    0x03, 0x04, chip.product, 0x60,    // vendor 0403
    0x00, chip.release, 1, 2, 3, 1};   // three strings, one configuration
}

std::vector<std::uint8_t> ConfigurationOf(const Chip& chip) {
  constexpr unsigned kHead = 9;
  constexpr unsigned kInterface = 23;
  const auto length = static_cast<std::uint8_t>(kHead + chip.channels * kInterface);
  const auto channels = static_cast<std::uint8_t>(chip.channels);
  std::vector<std::uint8_t> all{9, 2, length, 0, channels, 1, 0, 0xA0, 45};  // bus-powered, 90 mA
  for (std::uint8_t channel = 0; channel < channels; ++channel) {
    const auto in = static_cast<std::uint8_t>(kBulkIn + 2 * channel);
    const auto out = static_cast<std::uint8_t>(kBulkOut + 2 * channel);
    all.insert(all.end(), {9, 4, channel, 0, 2, 0xFF, 0xFF, 0xFF, 2,
                           7, 5, in, 2, kPacketSize, 0, 0,
                           7, 5, out, 2, kPacketSize, 0, 0});
  }
  return all;
}
// clang-format on

const Chip& ChipWith(unsigned channels) {
  return *std::ranges::find(kChips, channels, &Chip::channels);
}

// The divisor of 3 MHz, or of 12 MHz where a fast chip says so: 14 bits, and three bits that select
// its eighths. A chip with channels has the upper bits one byte higher, above the channel's number.
std::uint32_t DecodeBaud(std::uint16_t value, std::uint16_t index, bool hasChannels) {
  static constexpr std::array<std::uint32_t, 8> kEighths{0, 4, 2, 1, 3, 5, 6, 7};
  const std::uint32_t upper = hasChannels ? index >> 8U : index;
  const std::uint32_t clock = hasChannels && (upper & 2U) != 0 ? 12000000 : 3000000;
  const std::uint32_t whole = value & 0x3FFFU;
  const std::uint32_t fraction = kEighths[(value >> 14U) | (upper & 1U) << 2U];
  // Two divisors have meanings of their own.
  if (whole == 0) return clock;
  if (whole == 1 && fraction == 0) return clock * 2 / 3;
  return clock * 8 / (whole * 8 + fraction);
}

// A receiver samples ten bits with one start edge; beyond 3 % it loses the last.
bool SameRate(std::uint32_t one, std::uint32_t other) {
  const auto difference = one > other ? one - other : other - one;
  return std::uint64_t{difference} * 100 < std::uint64_t{other} * 3;
}

UsbResult Word(std::uint16_t word) {
  return {UsbStatus::Done,
          {static_cast<std::uint8_t>(word & 0xFFU), static_cast<std::uint8_t>(word >> 8U)}};
}

}  // namespace

FtdiAdapter::FtdiAdapter(Device& device, const LineOptions& line, FtdiOptions options)
    : UsbFront(device, line, options.strings), m_options(std::move(options)) {
  FtdiAdapter::ResetFunction();
}

std::vector<std::uint8_t> FtdiAdapter::DeviceDescriptor() const {
  return DeviceOf(ChipWith(m_options.channels));
}

std::vector<std::uint8_t> FtdiAdapter::ConfigurationDescriptor() const {
  return ConfigurationOf(ChipWith(m_options.channels));
}

// Requests name their channel, from 1.
bool FtdiAdapter::IsForDevice(const SetupPacket& setup) const {
  return m_options.channels == 1 || (setup.index & 0xFFU) == m_options.channels;
}

UsbResult FtdiAdapter::FunctionRequest(const SetupPacket& setup, std::span<const std::uint8_t>) {
  const bool sets = setup.request <= kSetFormat || setup.request == kSetLatency;
  if (sets && !IsForDevice(setup)) return {};
  switch (setup.request) {
    case kReset: Reset(setup.value); return {};
    case kSetBaud:
      m_baud = DecodeBaud(setup.value, setup.index, m_options.channels > 1);
      AgreeOnLine();
      return {};
    case kSetFormat:
      m_format = setup.value;
      AgreeOnLine();
      return {};
    // The device ignores control lines, flow control and special characters.
    case kModemControl:
    case kFlowControl:
    case kSetEventCharacter:
    case kSetErrorCharacter:
    case kSetBitMode: return {};
    case kPollModemStatus: return {UsbStatus::Done, {kStatus.begin(), kStatus.end()}};
    case kSetLatency: return SetLatency(setup.value);
    case kGetLatency:
      return {UsbStatus::Done, {static_cast<std::uint8_t>(m_latency.count() / 1000)}};
    case kReadEeprom: return Word(kEeprom[setup.index % kEeprom.size()]);
    default: return {UsbStatus::Stall};
  }
}

void FtdiAdapter::Reset(std::uint16_t what) {
  if (what != kPurgeTowardsHost) SerialLine().DropTowardsDevice();
  if (what != kPurgeTowardsDevice) SerialLine().DropTowardsHost();
}

UsbResult FtdiAdapter::SetLatency(std::uint16_t milliseconds) {
  if (milliseconds == 0 || milliseconds > 255) return {UsbStatus::Stall};
  m_latency = std::chrono::milliseconds(milliseconds);
  return {};
}

void FtdiAdapter::AgreeOnLine() {
  const bool sameRate = m_options.deviceBaud == 0 || SameRate(m_baud, m_options.deviceBaud);
  SerialLine().SetEndsAgree(sameRate && m_format == kFormat8N1);
}

// Nothing is connected to the other channels: bytes vanish.
UsbResult FtdiAdapter::Out(std::uint8_t endpoint, std::span<const std::uint8_t> data, SimTime now) {
  if (m_options.channels == 1) return UsbFront::Out(endpoint, data, now);
  if (endpoint == kBulkOut + 2 * (m_options.channels - 1)) {
    return UsbFront::Out(kBulkOut, data, now);
  }
  return {Connected(now) ? UsbStatus::Done : UsbStatus::Gone};
}

UsbResult FtdiAdapter::Read(std::uint8_t endpoint, std::size_t capacity, SimTime now) {
  if (capacity < kStatus.size()) return {UsbStatus::Stall};
  if (endpoint != kBulkIn + 2 * (m_options.channels - 1)) return {UsbStatus::NotReady};
  // A transfer ends when it is full or with a packet that is not; before the latency timer has run
  // out all packets are full.
  const auto packets = std::max<std::size_t>(capacity / kPacketSize, 1);
  const auto wanted = packets * (kPacketSize - kStatus.size());
  if (SerialLine().Arrived(now) < wanted && now < *OwnDue()) return {UsbStatus::NotReady};
  m_lastPacket = now;
  return {UsbStatus::Done, Packets(capacity, now)};
}

std::vector<std::uint8_t> FtdiAdapter::Packets(std::size_t capacity, SimTime now) {
  std::vector<std::uint8_t> transfer;
  bool full = true;
  while (full && capacity - transfer.size() >= kStatus.size()) {
    const auto room = std::min(capacity - transfer.size(), kPacketSize) - kStatus.size();
    const auto data = SerialLine().Receive(room, now);
    transfer.insert(transfer.end(), kStatus.begin(), kStatus.end());
    transfer.insert(transfer.end(), data.begin(), data.end());
    full = data.size() == kPacketSize - kStatus.size();
  }
  return transfer;
}

void FtdiAdapter::ResetFunction() {
  m_baud = kPowerOnBaud;
  m_format = kFormat8N1;
  m_latency = kPowerOnLatency;
  AgreeOnLine();
}

}  // namespace tavosim
