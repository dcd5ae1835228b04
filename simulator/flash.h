// The application section of a simulated device's flash. It holds what is really written, so that
// a test can compare it with the image, and it knows whether that is a firmware that may be
// started. It has no notion of time or of messages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "simulator/checksum.h"

namespace tavosim {

// A firmware of `size` bytes (at least 4) that no update file contains and that Flash::Intact
// accepts; the same for the same seed.
std::vector<std::uint8_t> OldFirmware(std::size_t size, std::uint32_t seed);

class Flash {
 public:
  // Erased. `start` is the device address of the first byte; `size` at least 4 bytes.
  Flash(std::uint32_t start, std::size_t size);

  void Erase();
  // Sets the write address; just past the end is allowed, since a host positions there last.
  // False: out of range, the address stays.
  bool Position(std::uint32_t address);
  // Programs `block` at the write address. As in any NOR flash a bit can only go from 1 to 0; only
  // Erase brings it back. False: nothing positioned, or the block does not fit; nothing is changed.
  bool Write(std::span<const std::uint8_t> block, bool addressAdvances);
  void ForgetPosition() { m_positioned = false; }

  // Replaces the whole content; `bytes` must have the section's size, otherwise false.
  bool Load(std::span<const std::uint8_t> bytes);

  const std::vector<std::uint8_t>& Bytes() const { return m_bytes; }
  std::uint32_t CalculatedChecksum() const;  // over all but the last four bytes
  std::uint32_t ReferenceChecksum() const;   // the last four bytes, least significant first
  bool Intact() const { return CalculatedChecksum() == ReferenceChecksum(); }

  unsigned Erases() const { return m_erases; }
  unsigned Refusals() const { return m_refusals; }  // Position and Write calls that returned false

 private:
  bool Refuse();

  std::uint32_t m_start;
  std::vector<std::uint8_t> m_bytes;
  std::size_t m_offset = 0;
  bool m_positioned = false;
  unsigned m_erases = 0;
  unsigned m_refusals = 0;
};

}  // namespace tavosim
