// How a TavoMessage travels on the serial line. One frame:
//
//   offset  size  field
//   0       1     header: bits 7..4 = 0xA, bits 3..0 = size code
//   1       2     protected identifier, low byte first
//   3       N     payload, zero-padded to the size class
//   3 + N   1     CRC-8 over everything before it
//
// There are no start or stop markers and no escaping, so a receiver finds the next frame after
// damage by looking for a header byte (see FrameAssembler). The codec works on fixed buffers, takes
// and gives bytes, and touches no device.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "transport/refused_bytes.h"
#include "transport/tavo_message.h"

namespace tavo {

inline constexpr std::size_t kHeaderSize = 1;
inline constexpr std::size_t kIdentifierSize = 2;
inline constexpr std::size_t kCrcSize = 1;
inline constexpr std::size_t kFrameOverhead = kHeaderSize + kIdentifierSize + kCrcSize;
inline constexpr std::size_t kMaxFrame = kFrameOverhead + kMaxPayload;

using FrameBuffer = std::array<std::uint8_t, kMaxFrame>;

// The six operations of one frame format.
struct FrameCodec {
  bool (*IsHeaderByte)(std::uint8_t byte);
  std::uint8_t (*SizeCode)(std::uint8_t header);

  // False when `byte` is no header byte (`frameEndIndex` is then 0). Otherwise `frameEndIndex` is
  // the index of the frame's last byte and `acceptable` whether the frame fits a FrameBuffer.
  bool (*ParseHeader)(std::uint8_t byte, std::uint8_t* frameEndIndex, bool* acceptable);

  // False when the payload is longer than 128 bytes; nothing is written then. The frame's length
  // follows from its header.
  bool (*Encode)(const TavoMessage& message, FrameBuffer& frame);

  // Whether a complete frame (its length taken from its header) is undamaged.
  bool (*CheckFrame)(const FrameBuffer& frame);

  // Only for a frame that passes CheckFrame. A payload of 9 bytes or more comes back padded: the
  // size class does not give its length.
  void (*Decode)(const FrameBuffer& frame, TavoMessage* message);
};

// Indexed by frame format; only format 0 exists.
extern const std::array<FrameCodec, 1> kFrameCodecs;

// Why a complete frame fails CheckFrame; none when it passes.
std::optional<RefusalReason> FaultOf(const FrameBuffer& frame);

// Parity over the even and over the odd identifier bits, in the two low bits of the word.
std::uint16_t ProtectId(std::uint16_t id);
std::optional<std::uint16_t> UnprotectId(std::uint16_t word);

// CRC-8, polynomial 0x97 (x^8 + x^7 + x^4 + x^2 + x + 1, the top bit is implied), initial value 0,
// most significant bit first, no final XOR. Over a whole undamaged frame it gives 0; over the ASCII
// digits "123456789" it gives 0x94.
std::uint8_t Crc8(std::span<const std::uint8_t> bytes);

}  // namespace tavo
