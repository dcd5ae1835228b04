// The simulator's own half of the bus frame: message to bytes and back. It shares no code
// with the update library, so that neither hides a mistake of the other. No I/O.
//
//   header 0xA0 | size code, identifier word (two parity bits, low byte first), payload padded to
//   its size class, CRC-8 over all of it
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "simulator/usb_device.h"

namespace tavosim {

inline constexpr std::size_t kMaxPayload = 128;

struct Frame {
  std::uint16_t id = 0;  // bits 0 to 13
  std::vector<std::uint8_t> payload{};
};

// Empty when the payload is longer than kMaxPayload.
std::vector<std::uint8_t> EncodeFrame(const Frame& frame);

// `bytes` must be exactly one frame; none when its length, CRC or identifier parity is wrong.
std::optional<Frame> DecodeFrame(std::span<const std::uint8_t> bytes);

// Cuts a byte stream into frames. Bytes that belong to no frame are skipped, but three 0x1B in a
// row, with which a host leaves a tunnel, are reported.
class FrameReader {
 public:
  // No frame = the escape bytes.
  using Item = std::optional<Frame>;

  std::vector<Item> Put(std::span<const std::uint8_t> bytes, SimTime now);
  void Reset() { m_pending.clear(); }

 private:
  bool TakeNext(std::vector<Item>& items);
  bool SkipGarbage(std::vector<Item>& items);

  std::vector<std::uint8_t> m_pending;  // at most one unfinished frame between two calls
  SimTime m_lastByte{0};
};

}  // namespace tavosim
