#include "transport/frame_codec.h"

#include <algorithm>
#include <bit>
#include <cassert>

namespace tavo {
namespace {

constexpr std::uint8_t kHeaderMask = 0xF0;
constexpr std::uint8_t kHeaderMark = 0xA0;
constexpr std::uint8_t kSizeCodeMask = 0x0F;

// Payloads up to this length travel as they are, with the code `length + kExactCodeBase`; longer
// ones are padded to a class.
constexpr std::uint8_t kMaxExactPayload = 8;
constexpr std::uint8_t kExactCodeBase = 3;

constexpr std::uint16_t kEvenBits = 0x5555;
constexpr std::uint16_t kOddBits = 0xAAAA;
constexpr std::uint16_t kIdMask = 0x3FFF;

struct SizeClass {
  std::uint8_t code;
  std::uint8_t payload;  // bytes on the wire
};

// The codes below kExactCodeBase name frames too short to hold an identifier; they have no class
// and a frame that begins with one never passes.
constexpr std::array<SizeClass, 13> kSizeClassTable{{
    {3, 0},
    {4, 1},
    {5, 2},
    {6, 3},
    {7, 4},
    {8, 5},
    {9, 6},
    {10, 7},
    {11, 8},
    {12, 16},
    {13, 32},
    {14, 64},
    {15, 128},
}};

constexpr bool SizeClassesAreComplete() {
  for (std::size_t i = 0; i < kSizeClassTable.size(); ++i) {
    if (kSizeClassTable[i].code != kExactCodeBase + i) return false;
    if (i > 0 && kSizeClassTable[i].payload <= kSizeClassTable[i - 1].payload) return false;
  }
  return kSizeClassTable.back().code == kSizeCodeMask &&
         kSizeClassTable.back().payload == kMaxPayload &&
         kSizeClassTable[kMaxExactPayload].payload == kMaxExactPayload;
}
static_assert(SizeClassesAreComplete(),
              "codes in order, classes growing up to the largest payload");

// The smallest class that holds `length` bytes.
const SizeClass& ClassFor(std::uint8_t length) {
  assert(length <= kMaxPayload);
  return *std::find_if(kSizeClassTable.begin(), kSizeClassTable.end(),
                       [length](const SizeClass& row) { return row.payload >= length; });
}

std::uint8_t PayloadSize(std::uint8_t code) {
  assert(code >= kExactCodeBase && code <= kSizeCodeMask);
  return kSizeClassTable[static_cast<std::size_t>(code - kExactCodeBase)].payload;
}

std::size_t FrameLength(std::uint8_t code) {
  if (code < kExactCodeBase) return code + std::size_t{1};
  return kFrameOverhead + PayloadSize(code);
}

bool IsHeaderByte(std::uint8_t byte) { return (byte & kHeaderMask) == kHeaderMark; }

std::uint8_t SizeCode(std::uint8_t header) { return header & kSizeCodeMask; }

bool ParseHeader(std::uint8_t byte, std::uint8_t* frameEndIndex, bool* acceptable) {
  *frameEndIndex = 0;
  if (!IsHeaderByte(byte)) return false;
  const std::size_t length = FrameLength(SizeCode(byte));
  *frameEndIndex = static_cast<std::uint8_t>(length - 1);
  *acceptable = length <= kMaxFrame;
  return true;
}

std::uint16_t IdentifierWord(const FrameBuffer& frame) {
  return static_cast<std::uint16_t>(frame[kHeaderSize] | (frame[kHeaderSize + 1] << 8));
}

bool Encode(const TavoMessage& message, FrameBuffer& frame) {
  if (message.length > kMaxPayload) return false;
  const SizeClass& sizeClass = ClassFor(message.length);
  const std::uint16_t word = ProtectId(message.id);
  frame[0] = static_cast<std::uint8_t>(kHeaderMark | sizeClass.code);
  frame[kHeaderSize] = static_cast<std::uint8_t>(word & 0xFF);
  frame[kHeaderSize + 1] = static_cast<std::uint8_t>(word >> 8);
  const auto payload = frame.begin() + kHeaderSize + kIdentifierSize;
  const auto padding = std::copy_n(message.payload.begin(), message.length, payload);
  const auto crc = payload + sizeClass.payload;
  std::fill(padding, crc, std::uint8_t{0});
  *crc = Crc8({frame.begin(), crc});
  return true;
}

bool CheckFrame(const FrameBuffer& frame) { return !FaultOf(frame).has_value(); }

void Decode(const FrameBuffer& frame, TavoMessage* message) {
  assert(CheckFrame(frame));
  *message = TavoMessage{};
  message->id = static_cast<std::uint16_t>(IdentifierWord(frame) >> 2);
  message->length = PayloadSize(SizeCode(frame[0]));
  std::copy_n(frame.begin() + kHeaderSize + kIdentifierSize, message->length,
              message->payload.begin());
}

bool OddParity(std::uint16_t bits) { return std::popcount(bits) % 2 != 0; }

}  // namespace

const std::array<FrameCodec, 1> kFrameCodecs{
    {{IsHeaderByte, SizeCode, ParseHeader, Encode, CheckFrame, Decode}}};

std::optional<RefusalReason> FaultOf(const FrameBuffer& frame) {
  const std::uint8_t code = SizeCode(frame[0]);
  if (code < kExactCodeBase) return RefusalReason::TooShort;
  if (Crc8({frame.data(), FrameLength(code)}) != 0) return RefusalReason::Checksum;
  if (!UnprotectId(IdentifierWord(frame))) return RefusalReason::Parity;
  return std::nullopt;
}

std::uint16_t ProtectId(std::uint16_t id) {
  id &= kIdMask;
  const int evenParity = OddParity(id & kEvenBits) ? 1 : 0;
  const int oddParity = OddParity(id & kOddBits) ? 1 : 0;
  return static_cast<std::uint16_t>((id << 2) | (oddParity << 1) | evenParity);
}

std::optional<std::uint16_t> UnprotectId(std::uint16_t word) {
  if (OddParity(word & kEvenBits) || OddParity(word & kOddBits)) return std::nullopt;
  return static_cast<std::uint16_t>(word >> 2);
}

std::uint8_t Crc8(std::span<const std::uint8_t> bytes) {
  constexpr std::uint8_t kPolynomial = 0x97;
  std::uint8_t crc = 0;
  for (const std::uint8_t byte : bytes) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) {
      const bool carry = (crc & 0x80) != 0;
      crc = static_cast<std::uint8_t>(crc << 1);
      if (carry) crc ^= kPolynomial;
    }
  }
  return crc;
}

}  // namespace tavo
