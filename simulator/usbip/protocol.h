// The USB/IP messages, as Documentation/usb/usbip_protocol.rst of the Linux kernel lays them out
// (version 1.1.1, all numbers big-endian). The server and the substitute libusb both encode and
// decode with these functions. Nothing here does I/O; the decoders read exactly
// the stated size, which the caller has checked.
//
// One operation is our own: the "host view". A host's kernel knows descriptors and bound drivers of
// a device that is not open; USB/IP has no message for that. A standard server refuses the code as
// it refuses any other unknown one.
#pragma once

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace tavosim::usbip {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

inline constexpr std::uint16_t kVersion = 0x0111;
inline constexpr std::uint16_t kDefaultPort = 3240;  // registered for USB/IP

enum Operation : std::uint16_t {
  kReqImport = 0x8003,
  kRepImport = 0x0003,
  kReqDeviceList = 0x8005,
  kRepDeviceList = 0x0005,
  kReqHostView = 0x80E1,  // our own
  kRepHostView = 0x00E1,
};

// Status of an operation's reply (tools/usb/usbip/libsrc/usbip_common.h).
enum OperationStatus : std::uint32_t { kOk = 0, kNotAvailable = 1, kDeviceBusy = 2, kNoDevice = 4 };

enum Command : std::uint32_t {
  kCmdSubmit = 1,
  kCmdUnlink = 2,
  kRetSubmit = 3,
  kRetUnlink = 4,
};

enum Direction : std::uint32_t { kDirectionOut = 0, kDirectionIn = 1 };

// Status of a URB: negative Linux errno values, on every system.
enum UrbStatus : std::int32_t {
  kUrbDone = 0,
  kUrbNoDevice = -19,     // ENODEV
  kUrbStalled = -32,      // EPIPE
  kUrbOverflow = -75,     // EOVERFLOW
  kUrbUnlinked = -104,    // ECONNRESET
  kUrbDeviceLost = -108,  // ESHUTDOWN
};

inline constexpr std::uint32_t kSpeedFull = 2;  // enum usb_device_speed

inline constexpr std::size_t kPathSize = 256;
inline constexpr std::size_t kBusIdSize = 32;
inline constexpr std::size_t kOpHeaderSize = 2 + 2 + 4;
inline constexpr std::size_t kDeviceRecordSize = kPathSize + kBusIdSize + 3 * 4 + 3 * 2 + 6;
inline constexpr std::size_t kImportRequestSize = kOpHeaderSize + kBusIdSize;
inline constexpr std::size_t kHostViewRequestSize = kOpHeaderSize + 2 * 4;
inline constexpr std::size_t kUrbHeaderSize = 10 * 4 + 8;

// Larger than any single request of a host (usbfs splits at 16 KiB); bounds the memory that a peer can
// make us hold.
inline constexpr std::size_t kMaxTransferSize = 256 * 1024;

class Writer {
 public:
  Writer& U8(std::uint8_t value) {
    m_bytes.push_back(value);
    return *this;
  }
  Writer& U16(std::uint16_t value) {
    return U8(static_cast<std::uint8_t>(value >> 8)).U8(static_cast<std::uint8_t>(value));
  }
  Writer& U32(std::uint32_t value) {
    return U16(static_cast<std::uint16_t>(value >> 16)).U16(static_cast<std::uint16_t>(value));
  }
  Writer& Raw(ByteView bytes) {
    m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
    return *this;
  }
  // A text field of fixed size: cut so that the closing zero fits, filled up with zeros.
  Writer& Text(const std::string& text, std::size_t size) {
    const std::size_t kept = std::min(text.size(), size - 1);
    m_bytes.insert(m_bytes.end(), text.begin(), text.begin() + static_cast<std::ptrdiff_t>(kept));
    m_bytes.resize(m_bytes.size() + size - kept);
    return *this;
  }
  Bytes Take() { return std::move(m_bytes); }

 private:
  Bytes m_bytes;
};

// Reads past the end give zeros, so that a wrong size can never read outside the buffer.
class Reader {
 public:
  explicit Reader(ByteView bytes) : m_bytes(bytes) {}
  std::uint8_t U8() {
    if (m_bytes.empty()) return 0;
    const std::uint8_t value = m_bytes.front();
    m_bytes = m_bytes.subspan(1);
    return value;
  }
  std::uint16_t U16() {
    const unsigned high = U8();
    return static_cast<std::uint16_t>(high << 8 | U8());
  }
  std::uint32_t U32() {
    const std::uint32_t high = U16();
    return high << 16 | U16();
  }
  ByteView Raw(std::size_t size) {
    const ByteView part = m_bytes.first(std::min(size, m_bytes.size()));
    m_bytes = m_bytes.subspan(part.size());
    return part;
  }
  std::string Text(std::size_t size) {
    const ByteView field = Raw(size);
    return std::string(field.begin(), std::find(field.begin(), field.end(), std::uint8_t{0}));
  }

 private:
  ByteView m_bytes;
};

struct OpHeader {
  std::uint16_t version = kVersion;
  std::uint16_t code = 0;
  std::uint32_t status = kOk;
};

inline void Encode(Writer& out, const OpHeader& header) {
  out.U16(header.version).U16(header.code).U32(header.status);
}

inline OpHeader DecodeOpHeader(Reader& in) {
  OpHeader header;
  header.version = in.U16();
  header.code = in.U16();
  header.status = in.U32();
  return header;
}

// A device in the device list and in the import reply.
struct DeviceRecord {
  std::string path{};
  std::string busId{};
  std::uint32_t busNumber = 0;
  std::uint32_t deviceNumber = 0;
  std::uint32_t speed = kSpeedFull;
  std::uint16_t vendor = 0;
  std::uint16_t product = 0;
  std::uint16_t release = 0;
  std::uint8_t deviceClass = 0;
  std::uint8_t deviceSubClass = 0;
  std::uint8_t deviceProtocol = 0;
  std::uint8_t configurationValue = 0;
  std::uint8_t configurationCount = 0;
  std::uint8_t interfaceCount = 0;
};

inline void Encode(Writer& out, const DeviceRecord& record) {
  out.Text(record.path, kPathSize).Text(record.busId, kBusIdSize);
  out.U32(record.busNumber).U32(record.deviceNumber).U32(record.speed);
  out.U16(record.vendor).U16(record.product).U16(record.release);
  out.U8(record.deviceClass).U8(record.deviceSubClass).U8(record.deviceProtocol);
  out.U8(record.configurationValue).U8(record.configurationCount).U8(record.interfaceCount);
}

inline DeviceRecord DecodeDeviceRecord(Reader& in) {
  DeviceRecord record;
  record.path = in.Text(kPathSize);
  record.busId = in.Text(kBusIdSize);
  record.busNumber = in.U32();
  record.deviceNumber = in.U32();
  record.speed = in.U32();
  record.vendor = in.U16();
  record.product = in.U16();
  record.release = in.U16();
  record.deviceClass = in.U8();
  record.deviceSubClass = in.U8();
  record.deviceProtocol = in.U8();
  record.configurationValue = in.U8();
  record.configurationCount = in.U8();
  record.interfaceCount = in.U8();
  return record;
}

// The numbers of a bus id such as "1-4.2": bus, then the ports from the root hub outward; none when
// `busId` has another form, a number outside 1..255, or more than the seven ports that USB allows.
inline std::vector<std::uint8_t> ParseBusId(const std::string& busId) {
  constexpr std::size_t kMaxNumbers = 1 + 7;
  std::vector<std::uint8_t> numbers;
  const char* at = busId.data();
  const char* const end = at + busId.size();
  while (numbers.size() < kMaxNumbers) {
    std::uint8_t number = 0;
    const auto [next, error] = std::from_chars(at, end, number);
    if (error != std::errc{} || number == 0) return {};
    numbers.push_back(number);
    if (next == end) return numbers.size() >= 2 ? numbers : std::vector<std::uint8_t>{};
    if (*next != (numbers.size() == 1 ? '-' : '.')) return {};
    at = next + 1;
  }
  return {};
}

// Device id of URB messages.
constexpr std::uint32_t DeviceId(std::uint32_t busNumber, std::uint32_t deviceNumber) {
  return busNumber << 16 | deviceNumber;
}

// Our own operation. Request: two interface masks, drivers to detach and drivers to attach (bit n =
// interface n; both 0 just asks). Reply, when its status is 0: device record, mask of the
// interfaces that a kernel driver holds, sizes of both descriptors (16 bits each), the descriptors.
inline constexpr std::size_t kHostViewFixedSize = kDeviceRecordSize + 4 + 2 + 2;

// One layout serves all four URB messages; which fields mean something depends on `command`.
struct UrbHeader {
  std::uint32_t command = 0;
  std::uint32_t sequence = 0;
  std::uint32_t deviceId = 0;   // requests only
  std::uint32_t direction = 0;  // requests only
  std::uint32_t endpoint = 0;   // requests only, number without direction bit
  std::uint32_t detail = 0;     // submit: flags; unlink: sequence to unlink; replies: UrbStatus
  std::uint32_t length = 0;     // submit: buffer length; its reply: actual length
  std::uint32_t startFrame = 0;
  std::uint32_t packetCount = 0;
  std::uint32_t interval = 0;
  std::array<std::uint8_t, 8> setup{};  // submit on endpoint 0

  std::int32_t Status() const { return static_cast<std::int32_t>(detail); }
};

inline void Encode(Writer& out, const UrbHeader& header) {
  out.U32(header.command).U32(header.sequence).U32(header.deviceId).U32(header.direction);
  out.U32(header.endpoint).U32(header.detail).U32(header.length).U32(header.startFrame);
  out.U32(header.packetCount).U32(header.interval).Raw(header.setup);
}

inline UrbHeader DecodeUrbHeader(ByteView bytes) {
  Reader in(bytes);
  UrbHeader header;
  for (std::uint32_t* field :
       {&header.command, &header.sequence, &header.deviceId, &header.direction, &header.endpoint,
        &header.detail, &header.length, &header.startFrame, &header.packetCount, &header.interval})
    *field = in.U32();
  std::ranges::copy(in.Raw(header.setup.size()), header.setup.begin());
  return header;
}

}  // namespace tavosim::usbip
