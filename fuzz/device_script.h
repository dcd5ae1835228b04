// How an input of the device fuzzer is laid out. The corpus maker writes the dialogue of a real
// update in this form, so that the fuzzer starts from one that goes all the way.
//
//   offset  size  field
//   0       1     number of the device family whose firmware is loaded, modulo their number
//   1       1     update flags, one bit each
//   2 ...         what the device says: delay code, length, bytes; and again
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "engine/firmware_updater.h"
#include "simulator/families.h"

namespace tavo::fuzz {

inline constexpr std::size_t kScriptHeader = 2;

// Special lengths. A checksum is hard to guess: the bytes of a framed saying are the id of a message,
// low byte first, and its payload, and are said as a good frame.
inline constexpr std::uint8_t kReadFails = 0xFF;
inline constexpr std::uint8_t kFramed = 0x80;
inline constexpr std::size_t kMaxSaid = kFramed - 1;
inline constexpr std::size_t kMessageIdSize = 2;

// Delays are waited for in reads: up to kFineDelays to the millisecond, above in steps.
inline constexpr int kFineDelays = 0x80;
inline constexpr int kDelayStepMs = 64;

constexpr std::chrono::milliseconds DelayOf(std::uint8_t code) {
  const int steps = code - kFineDelays + 1;
  return std::chrono::milliseconds(steps <= 0 ? code : kFineDelays + steps * kDelayStepMs);
}

// The smallest delay that is at least as long, or the longest.
constexpr std::uint8_t DelayCode(std::chrono::milliseconds delay) {
  std::uint8_t code = 0;
  while (code < 0xFF && DelayOf(code) < delay) ++code;
  return code;
}

constexpr UpdateFlags FlagsOf(std::uint8_t bits) {
  return {(bits & 1) == 0, (bits & 2) != 0, (bits & 4) != 0};
}

// A few blocks say as much as many.
inline tavosim::Family SmallFamily(std::size_t number) {
  tavosim::Family family = tavosim::kFamilies[number % tavosim::kFamilies.size()];
  family.applicationKiB = 1;
  return family;
}

}  // namespace tavo::fuzz
