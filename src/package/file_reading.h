// Reads the text that an update is made of. Only the update file reader and the ZIP reader use it;
// both need the text bounded by the same limit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tavo {

// The most text that one update file is taken to hold, unpacked: as much as the largest application
// could need. A device reports its application size as a 16-bit count of KiB, and written as records
// of one byte each an application takes the most characters.
inline constexpr std::size_t kMaxApplicationBytes = std::size_t{0xFFFF} * 1024;
inline constexpr std::size_t kMaxTextPerByte = 15 + 1;  // its record with CR LF; address records
inline constexpr std::size_t kMaxUpdateTextBytes = kMaxApplicationBytes * kMaxTextPerByte;

// The complete contents of a file; empty when it cannot be opened or read, is longer than
// kMaxUpdateTextBytes, or does not fit into memory. Throws nothing.
std::vector<std::uint8_t> ReadWholeFile(const std::string& path);

}  // namespace tavo
