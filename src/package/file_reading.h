// Reads the text that an update is made of. The update file reader and the ZIP reader use it; both
// need the text bounded by the same limit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tavo {

// The most text that one update file is taken to hold, unpacked: as much as the largest application
// could need. A device reports its application size as a 16-bit count of KiB, and written as records
// of one byte each an application takes the most characters.
inline constexpr std::size_t kMaxApplicationBytes = std::size_t{0xFFFF} * 1024;
inline constexpr std::size_t kMaxTextPerByte = 15 + 1;  // its record with CR LF; address records
inline constexpr std::size_t kMaxUpdateTextBytes = kMaxApplicationBytes * kMaxTextPerByte;

// Takes a text piece by piece, so that it never has to be in memory as a whole: fresh memory for all
// of it would cost more time than converting it does.
class TextSink {
 public:
  virtual ~TextSink() = default;

  // A text of about `size` bytes begins.
  virtual void OnBegin(std::size_t size) = 0;

  // Its next bytes; they are gone when the call returns.
  virtual void OnBytes(std::span<const std::uint8_t> piece) = 0;
};

// Hands over the contents of a file: nothing when it cannot be opened or read or is longer than
// kMaxUpdateTextBytes, and what was read of one that shrinks meanwhile. OnBegin comes in any case.
// Throws std::bad_alloc, and what the sink throws.
void ReadFile(const std::string& path, TextSink& sink);

// The complete contents of a file; empty where ReadFile hands over nothing, and when they do not fit
// into memory. Throws nothing.
std::vector<std::uint8_t> ReadWholeFile(const std::string& path);

}  // namespace tavo
