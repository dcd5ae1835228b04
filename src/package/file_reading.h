// Reads the files that an update is made of into memory, within a bound.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tavo {

// The most text that one update file may hold, unpacked: as much as the largest application could
// need. A device reports its application size as a 16-bit count of KiB, and an application takes the
// most characters when it is written as records of one byte each.
inline constexpr std::size_t kMaxApplicationBytes = std::size_t{0xFFFF} * 1024;
inline constexpr std::size_t kMaxTextPerByte = 15 + 1;  // its record with CR LF; address records
inline constexpr std::size_t kMaxUpdateTextBytes = kMaxApplicationBytes * kMaxTextPerByte;

// The complete contents of a file. Empty when it cannot be opened or read, or is longer than
// kMaxUpdateTextBytes; the bytes up to its new end when it shrinks meanwhile. Throws std::bad_alloc.
std::vector<std::uint8_t> ReadWholeFile(const std::string& path);

}  // namespace tavo
