// The checksum that a simulated bootloader verifies a firmware with, and that the firmware's maker
// has put at its end: CRC-32 (IEEE 802.3, as zlib computes it).
#pragma once

#include <cstdint>
#include <span>

namespace tavosim {

constexpr std::uint32_t Crc32(std::span<const std::uint8_t> bytes) {
  std::uint32_t crc = 0xFFFFFFFFU;
  for (const std::uint8_t byte : bytes) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1U) ^ ((crc & 1U) != 0 ? 0xEDB88320U : 0U);
  }
  return ~crc;
}

}  // namespace tavosim
