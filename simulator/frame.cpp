#include "simulator/frame.h"

#include <algorithm>
#include <array>
#include <bit>

namespace tavosim {
namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::uint8_t kHeader = 0xA0;
constexpr std::uint8_t kEscape = 0x1B;
constexpr std::size_t kEscapeLength = 3;
constexpr std::size_t kOverhead = 4;  // header, two identifier bytes, CRC
// After a pause this long within a frame, the host has given it up.
constexpr SimTime kSilenceEndsFrame = std::chrono::seconds(1);

// Payload bytes on the wire by size code; the codes 0 to 2 are no frames at all.
constexpr std::size_t kNoFrame = ~std::size_t{0};
constexpr std::array<std::size_t, 16> kPayloadSize{
    kNoFrame, kNoFrame, kNoFrame, 0, 1, 2, 3, 4, 5, 6, 7, 8, 16, 32, 64, 128};

constexpr std::array<std::uint8_t, 256> CrcTable() {
  std::array<std::uint8_t, 256> table{};
  for (unsigned value = 0; value < table.size(); ++value) {
    unsigned crc = value;
    for (int bit = 0; bit < 8; ++bit) crc = (crc << 1U) ^ ((crc & 0x80U) != 0 ? 0x97U : 0U);
    table[value] = static_cast<std::uint8_t>(crc);
  }
  return table;
}

std::uint8_t Crc8(Bytes bytes) {
  static constexpr auto kTable = CrcTable();
  std::uint8_t crc = 0;
  for (const auto byte : bytes) crc = kTable[crc ^ byte];
  return crc;
}

unsigned Parity(unsigned bits) { return static_cast<unsigned>(std::popcount(bits)) & 1U; }

unsigned ProtectedWord(unsigned id) {
  return (id & 0x3FFFU) << 2U | Parity(id & 0x2AAAU) << 1U | Parity(id & 0x1555U);
}

bool IsHeader(std::uint8_t byte) { return (byte & 0xF0U) == kHeader; }
std::size_t PayloadSize(std::uint8_t header) { return kPayloadSize[header & 0x0FU]; }

}  // namespace

std::vector<std::uint8_t> EncodeFrame(const Frame& frame) {
  const auto length = frame.payload.size();
  if (length > kMaxPayload) return {};
  std::size_t code = 3;
  while (kPayloadSize[code] < length) ++code;
  const auto word = ProtectedWord(frame.id);
  std::vector<std::uint8_t> bytes{static_cast<std::uint8_t>(kHeader | code),
                                  static_cast<std::uint8_t>(word & 0xFFU),
                                  static_cast<std::uint8_t>(word >> 8U)};
  bytes.insert(bytes.end(), frame.payload.begin(), frame.payload.end());
  bytes.resize(kPayloadSize[code] + kOverhead - 1, 0);
  bytes.push_back(Crc8(bytes));
  return bytes;
}

std::optional<Frame> DecodeFrame(std::span<const std::uint8_t> bytes) {
  if (bytes.size() < kOverhead || !IsHeader(bytes[0])) return std::nullopt;
  const auto size = PayloadSize(bytes[0]);
  if (size == kNoFrame || bytes.size() != size + kOverhead || Crc8(bytes) != 0) return std::nullopt;
  const auto word = bytes[1] | static_cast<unsigned>(bytes[2]) << 8U;
  if (ProtectedWord(word >> 2U) != word) return std::nullopt;
  const auto payload = bytes.subspan(3, size);
  return Frame{static_cast<std::uint16_t>(word >> 2U), {payload.begin(), payload.end()}};
}

std::vector<FrameReader::Item> FrameReader::Put(std::span<const std::uint8_t> bytes, SimTime now) {
  if (now - m_lastByte > kSilenceEndsFrame) m_pending.clear();
  m_lastByte = now;
  m_pending.insert(m_pending.end(), bytes.begin(), bytes.end());
  std::vector<Item> items;
  while (TakeNext(items)) {
  }
  return items;
}

// Each call that returns true has removed at least one byte.
bool FrameReader::TakeNext(std::vector<Item>& items) {
  if (m_pending.empty()) return false;
  if (!IsHeader(m_pending[0])) return SkipGarbage(items);
  const auto size = PayloadSize(m_pending[0]);
  const auto length = size == kNoFrame ? 1 : size + kOverhead;
  if (m_pending.size() < length) return false;
  auto frame = DecodeFrame(Bytes(m_pending).first(length));
  // A damaged frame gives up only its first byte: a good one may begin inside it.
  const auto used = static_cast<std::ptrdiff_t>(frame ? length : 1);
  m_pending.erase(m_pending.begin(), m_pending.begin() + used);
  if (frame) items.emplace_back(std::move(frame));
  return true;
}

bool FrameReader::SkipGarbage(std::vector<Item>& items) {
  const auto run = std::find_if(m_pending.begin(), m_pending.end(),
                                [](std::uint8_t byte) { return byte != kEscape; });
  const auto escapes = static_cast<std::size_t>(run - m_pending.begin());
  if (escapes < kEscapeLength && run == m_pending.end()) return false;  // may still become three
  const bool complete = escapes >= kEscapeLength;
  const auto used = complete ? kEscapeLength : std::max<std::size_t>(escapes, 1);
  m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<std::ptrdiff_t>(used));
  if (complete) items.emplace_back(std::nullopt);
  return true;
}

}  // namespace tavosim
