// One line of Intel HEX text and the record in it. The converter decodes every line with it, and who
// explains why a text does not convert looks at the same lines through the same eyes. Reads nothing
// beyond the text that it is given.
//
//   HexRecord record;
//   std::array<std::uint8_t, kHexRoom> room;
//   const std::uint8_t* behind = DecodeHexRecord(line, end, record, room.data());
//   if (behind == nullptr) ...  // not a well-formed record
//   line = NextHexLine(behind, end);
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

namespace tavo {

// A record in its decoded form: byte count, address (2 bytes, high first), type, data, checksum.
// The checksum is the last byte that stands in the record, whatever the byte count says.
inline constexpr std::size_t kHexDataOffset = 4;
inline constexpr std::size_t kHexFrameBytes = kHexDataOffset + 1;
inline constexpr std::size_t kHexAddressBytes = 2;  // of data, in the address records
// A little more than the 520 of the longest regular record.
inline constexpr std::size_t kMaxHexDigits = 534;
inline constexpr std::size_t kMaxHexRecordBytes = kMaxHexDigits / 2;
// What can stand behind count, address and type.
inline constexpr std::size_t kHexRoom = kMaxHexRecordBytes - kHexDataOffset;
// With so much text at hand, colon and the character behind the digits included, a record shows
// whether it is well-formed.
inline constexpr std::size_t kMaxHexRecordText = 1 + kMaxHexDigits + 1;

enum HexRecordType : std::uint8_t {
  kHexData = 0,
  kHexEndOfFile = 1,
  kHexExtendedSegmentAddress = 2,
  kHexExtendedLinearAddress = 4,
};

// What a character means inside a record: the value of a digit, or one of the two below. Both stay
// recognisable when two characters are joined to a byte.
inline constexpr std::uint16_t kHexEndsRecord = 0x100;
inline constexpr std::uint16_t kHexNoDigit = 0x200;

constexpr std::array<std::uint16_t, 256> MakeHexDigitTable() {
  std::array<std::uint16_t, 256> table{};
  table.fill(kHexNoDigit);
  for (std::uint16_t i = 0; i < 10; ++i) table[std::size_t{'0'} + i] = i;
  for (std::uint16_t i = 0; i < 6; ++i) {
    table[std::size_t{'A'} + i] = table[std::size_t{'a'} + i] = static_cast<std::uint16_t>(10 + i);
  }
  table['\r'] = table['\n'] = table['\0'] = kHexEndsRecord;
  return table;
}

inline constexpr std::array<std::uint16_t, 256> kHexDigits = MakeHexDigitTable();

struct HexRecord {
  std::uint8_t count;
  std::uint16_t address;
  std::uint8_t type;
  const std::uint8_t* tail;  // the bytes behind these: data and checksum
  std::size_t size;          // of the whole record
  std::uint8_t sum;          // of all its bytes

  std::uint8_t Checksum() const { return tail[size - kHexFrameBytes]; }

  // The value of an address record.
  std::uint16_t AddressValue() const { return static_cast<std::uint16_t>(tail[0] << 8 | tail[1]); }

  bool Holds(std::size_t dataBytes) const { return size >= kHexFrameBytes + dataBytes; }

  // The checksum that makes the frame and the first `dataBytes` data bytes add up to nothing.
  std::uint8_t ChecksumOf(std::size_t dataBytes) const {
    unsigned counted = count + (address >> 8U) + (address & 0xFFU) + type;
    for (std::size_t i = 0; i < dataBytes; ++i) counted += tail[i];
    return static_cast<std::uint8_t>(0 - counted);
  }
  bool ChecksumFits(std::size_t dataBytes) const {
    if (size == kHexFrameBytes + dataBytes) return sum == 0;
    return ChecksumOf(dataBytes) == Checksum();
  }
};

// Where the 16-bit addresses of the records count from.
class HexAddressBase {
 public:
  std::uint32_t Absolute(std::uint16_t address) const { return m_base + address; }

  void Set(const HexRecord& record) {
    const std::uint32_t value = record.AddressValue();
    m_base = record.type == kHexExtendedSegmentAddress ? value << 4 : value << 16;
  }

 private:
  std::uint32_t m_base = 0;
};

// The start of the line behind the one that holds `position`; `end` when that is the last one.
inline const std::uint8_t* NextHexLine(const std::uint8_t* position, const std::uint8_t* end) {
  while (position != end) {
    if (*position++ == '\n') break;
  }
  return position;
}

// The byte of two digits; more than 0xFF when one of them is no digit.
inline unsigned DecodeHexPair(const std::uint8_t* text) {
  return unsigned{kHexDigits[text[0]]} << 4 | kHexDigits[text[1]];
}

// Decodes pairs of digits, at most `count` of them, up to the first character that is no digit.
// Returns their number and adds them to `sum`.
inline std::size_t DecodeHexPairs(const std::uint8_t* text, std::size_t count, std::uint8_t* bytes,
                                  unsigned& sum) {
  for (std::size_t i = 0; i < count; ++i) {
    const unsigned value = DecodeHexPair(text + 2 * i);
    if (value > 0xFF) return i;
    bytes[i] = static_cast<std::uint8_t>(value);
    sum += value;
  }
  return count;
}

// Decodes the record that begins at `line`, which is before `end`. What is behind its type goes to
// `room`, which has room for kHexRoom bytes and is what the record's tail points to. Returns where
// the text of the record ends, or null when it is not well-formed. What stands behind it in its line
// is a comment that nobody looks at.
inline const std::uint8_t* DecodeHexRecord(const std::uint8_t* line, const std::uint8_t* end,
                                           HexRecord& record, std::uint8_t* room) {
  const std::uint8_t* position = line + 1;
  const std::size_t pairs =
      std::min(static_cast<std::size_t>(end - position) / 2, kMaxHexRecordBytes);
  if (*line != ':' || pairs < kHexFrameBytes) return nullptr;
  const unsigned count = DecodeHexPair(position);
  const unsigned high = DecodeHexPair(position + 2);
  const unsigned low = DecodeHexPair(position + 4);
  const unsigned type = DecodeHexPair(position + 6);
  if ((count | high | low | type) > 0xFF) return nullptr;
  position += 2 * kHexDataOffset;

  unsigned sum = count + high + low + type;
  const std::size_t most = pairs - kHexDataOffset;
  std::size_t size = DecodeHexPairs(position, std::min<std::size_t>(count + 1, most), room, sum);
  if (size < most && kHexDigits[position[2 * size]] <= 0xF) {
    // More than the byte count promises.
    size += DecodeHexPairs(position + 2 * size, most - size, room + size, sum);
  }
  position += 2 * size;
  // A digit here is one without a partner, or one too many.
  if (position != end && kHexDigits[*position] != kHexEndsRecord) return nullptr;

  record.count = static_cast<std::uint8_t>(count);
  record.address = static_cast<std::uint16_t>(high << 8 | low);
  record.type = static_cast<std::uint8_t>(type);
  record.tail = room;
  record.size = kHexDataOffset + size;
  record.sum = static_cast<std::uint8_t>(sum);
  return record.Holds(0) ? position : nullptr;
}

}  // namespace tavo
