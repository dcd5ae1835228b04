// One record of Intel HEX text. The converter reads every line with it, and so does the survey that
// explains why a text does not convert.
//
//   HexRecord record;
//   while (!text.empty()) {
//     const std::size_t length = DecodeHexRecord(text, record);
//     if (length == 0) ...  // the line is not a well-formed record
//     text = text.subspan(HexLineLength(text, length));
//   }
#pragma once

#include <algorithm>
#include <array>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <span>

namespace tavo {

using HexSpan = std::span<const std::uint8_t>;

inline constexpr std::size_t kHexDataOffset = 4;                   // count, address, type
inline constexpr std::size_t kHexFrameBytes = kHexDataOffset + 1;  // these and the checksum
// A little more than the 520 of the longest regular record.
inline constexpr std::size_t kMaxHexDigits = 534;

enum HexRecordType : std::uint8_t {
  kHexData = 0,
  kHexEndOfFile = 1,
  kHexExtendedSegmentAddress = 2,
  kHexExtendedLinearAddress = 4,
};

struct HexRecord {
  // Byte count, address (high byte first), type, data, checksum. The checksum is the last byte of the
  // record, whatever the byte count says.
  std::array<std::uint8_t, kMaxHexDigits / 2> bytes;
  std::size_t size = 0;  // at least kHexFrameBytes
  unsigned sum = 0;      // of all bytes

  std::uint8_t Count() const { return bytes[0]; }
  std::uint16_t Address() const { return Word(1); }
  std::uint8_t Type() const { return bytes[3]; }
  std::uint8_t Checksum() const { return bytes[size - 1]; }

  // Start addresses (types 3 and 5) mean nothing to a device that always starts at its own, and files
  // are known to carry them with wrong checksums: such records and those of unknown types are skipped.
  bool IsUsed() const { return Type() <= kHexExtendedSegmentAddress || Type() == 4; }

  // The data bytes that a record of its type is read for and that its checksum covers.
  std::size_t DataBytes() const {
    if (Type() == kHexData) return Count();
    return Type() == kHexEndOfFile ? 0 : 2;
  }
  bool IsComplete() const { return kHexFrameBytes + DataBytes() <= size; }
  std::span<const std::uint8_t> Data() const {
    assert(IsComplete());
    return std::span(bytes).subspan(kHexDataOffset, DataBytes());
  }

  // The checksum that the record should have when it covers so many data bytes.
  std::uint8_t ChecksumOver(std::size_t dataBytes) const {
    assert(kHexFrameBytes + dataBytes <= size);
    unsigned covered = sum - Checksum();
    for (std::size_t i = kHexDataOffset + dataBytes; i < size - 1; ++i) covered -= bytes[i];
    return static_cast<std::uint8_t>(0 - covered);
  }

  // The address that an address record sets: later record addresses count from it.
  std::uint32_t BaseAddress() const {
    return std::uint32_t{Word(kHexDataOffset)} << (Type() == kHexExtendedSegmentAddress ? 4 : 16);
  }

 private:
  std::uint16_t Word(std::size_t at) const {
    return static_cast<std::uint16_t>(bytes[at] << 8 | bytes[at + 1]);
  }
};

// The value of a digit, or one of two that stay recognisable when two characters make a byte.
inline constexpr std::uint16_t kHexEndsRecord = 0x100;  // the rest of the line is a comment
inline constexpr std::uint16_t kHexNoDigit = 0x200;
inline constexpr auto kHexDigits = [] {
  std::array<std::uint16_t, 256> table{};
  table.fill(kHexNoDigit);
  for (std::uint16_t i = 0; i < 10; ++i) table[std::size_t{'0'} + i] = i;
  for (std::uint16_t i = 10; i < 16; ++i) {
    table[std::size_t{'A'} + i - 10] = table[std::size_t{'a'} + i - 10] = i;
  }
  table['\r'] = table['\n'] = table['\0'] = kHexEndsRecord;
  return table;
}();

// Decodes the record at the start of `text`, which is not empty. Returns the number of its characters,
// or 0 when the line is not a well-formed record.
inline std::size_t DecodeHexRecord(HexSpan text, HexRecord& record) {
  assert(!text.empty());
  if (text[0] != ':') return 0;
  const std::uint8_t* position = text.data() + 1;
  const std::size_t pairs = std::min((text.size() - 1) / 2, record.bytes.size());
  std::size_t size = 0;
  unsigned sum = 0;
  for (; size < pairs; ++size, position += 2) {
    const unsigned byte = unsigned{kHexDigits[position[0]]} << 4 | kHexDigits[position[1]];
    if (byte > 0xFF) break;
    record.bytes[size] = static_cast<std::uint8_t>(byte);
    sum += byte;
  }
  record.size = size;
  record.sum = sum;
  const auto length = static_cast<std::size_t>(position - text.data());
  // A digit here has no partner or is one too many.
  if (length < text.size() && kHexDigits[*position] != kHexEndsRecord) return 0;
  return record.size < kHexFrameBytes ? 0 : length;
}

// The length of the line that `text` begins with, line feed included; the first `known` characters
// hold none.
inline std::size_t HexLineLength(HexSpan text, std::size_t known) {
  const auto end = std::find(text.begin() + static_cast<std::ptrdiff_t>(known), text.end(), '\n');
  return static_cast<std::size_t>(end - text.begin()) + (end == text.end() ? 0 : 1);
}

}  // namespace tavo
