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

// What a reset empties; the other side keeps its bytes.
constexpr std::uint16_t kPurgeTowardsDevice = 1;
constexpr std::uint16_t kPurgeTowardsHost = 2;

// Data set ready and carrier; transmitter empty. The first byte could open a frame: a host that left
// it in the data would not get far.
constexpr std::array<std::uint8_t, 2> kStatus{0xA1, 0x60};
constexpr std::uint16_t kFormat8N1 = 0x0008;
constexpr std::uint32_t kPowerOnBaud = 9600;
constexpr SimTime kPowerOnLatency = std::chrono::milliseconds(16);

// The ids and release; what a program may look at without reading it all.
constexpr std::array<std::uint16_t, 64> kEeprom{0x4000, 0x0403, 0x6001, 0x0600};

// clang-format off
constexpr std::uint8_t kDevice[]{
  18, 1, 0x00, 0x02,                 // USB 2.0
  0, 0, 0, 8,                        // class named by the interface, 8 bytes at endpoint 0
  0x03, 0x04, 0x01, 0x60,            // 0403:6001
  0x00, 0x06, 1, 2, 3, 1};           // release 6.00 = FT232R, three strings, one configuration

constexpr std::uint8_t kConfiguration[]{
  9, 2, 32, 0, 1, 1, 0, 0xA0, 45,    // one interface, bus-powered, 90 mA
  9, 4, 0, 0, 2, 0xFF, 0xFF, 0xFF, 2,
  7, 5, kBulkIn, 2, kPacketSize, 0, 0,
  7, 5, kBulkOut, 2, kPacketSize, 0, 0};
// clang-format on
static_assert(sizeof(kConfiguration) == 32, "the length that the descriptor itself names");

// The divisor of 3 MHz: 14 bits, and three bits that select its eighths.
std::uint32_t DecodeBaud(std::uint16_t value, std::uint16_t index) {
  static constexpr std::array<std::uint32_t, 8> kEighths{0, 4, 2, 1, 3, 5, 6, 7};
  const std::uint32_t whole = value & 0x3FFFU;
  const std::uint32_t fraction = kEighths[(value >> 14U) | (index & 1U) << 2U];
  // Two divisors have meanings of their own.
  if (whole == 0) return 3000000;
  if (whole == 1 && fraction == 0) return 2000000;
  return 24000000 / (whole * 8 + fraction);
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
  return {std::begin(kDevice), std::end(kDevice)};
}

std::vector<std::uint8_t> FtdiAdapter::ConfigurationDescriptor() const {
  return {std::begin(kConfiguration), std::end(kConfiguration)};
}

UsbResult FtdiAdapter::FunctionRequest(const SetupPacket& setup, std::span<const std::uint8_t>) {
  switch (setup.request) {
    case kReset: Reset(setup.value); return {};
    case kSetBaud:
      m_baud = DecodeBaud(setup.value, setup.index);
      AgreeOnLine();
      return {};
    case kSetFormat:
      m_format = setup.value;
      AgreeOnLine();
      return {};
    // The device has no use for control lines, flow control or special characters.
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

UsbResult FtdiAdapter::Read(std::uint8_t endpoint, std::size_t capacity, SimTime now) {
  if (endpoint != kBulkIn || capacity < kStatus.size()) return {UsbStatus::Stall};
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
