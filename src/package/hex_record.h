// One line of Intel HEX text and the record in it. The converter decodes every line with it, and who
// explains why a text does not convert looks at the same lines through the same eyes. Reads nothing
// beyond the text that it is given.
//
//   HexRecord record;
//   line = DecodeHexLine(line, end, record);
//   if (line == nullptr) ...  // not a well-formed record
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace tavo {

// A record in its decoded form: byte count, address (2 bytes, high first), type, data, checksum.
// The checksum is the last byte that stands in the record, whatever the byte count says.
inline constexpr std::size_t kHexDataOffset = 4;
inline constexpr std::size_t kHexFrameBytes = kHexDataOffset + 1;
// A little more than the 520 of the longest regular record.
inline constexpr std::size_t kMaxHexDigits = 534;
inline constexpr std::size_t kMaxHexRecordBytes = kMaxHexDigits / 2;

enum HexRecordType : std::uint8_t {
  kHexData = 0,
  kHexEndOfFile = 1,
  kHexExtendedSegmentAddress = 2,
  kHexExtendedLinearAddress = 4,
};

// What a character means inside a record: the value of a digit, or one of the two below.
inline constexpr std::uint8_t kHexEndsRecord = 0x10;
inline constexpr std::uint8_t kHexNoDigit = 0x20;

constexpr std::array<std::uint8_t, 256> MakeHexDigitTable() {
  std::array<std::uint8_t, 256> table{};
  table.fill(kHexNoDigit);
  for (std::uint8_t i = 0; i < 10; ++i) table[std::size_t{'0'} + i] = i;
  for (std::uint8_t i = 0; i < 6; ++i) {
    table[std::size_t{'A'} + i] = table[std::size_t{'a'} + i] = static_cast<std::uint8_t>(10 + i);
  }
  table['\r'] = table['\n'] = table['\0'] = kHexEndsRecord;
  return table;
}

inline constexpr std::array<std::uint8_t, 256> kHexDigits = MakeHexDigitTable();

struct HexRecord {
  std::array<std::uint8_t, kMaxHexRecordBytes> bytes;
  std::size_t size;

  std::uint8_t Count() const { return bytes[0]; }
  std::uint16_t Address() const { return Word(1); }
  std::uint8_t Type() const { return bytes[3]; }
  const std::uint8_t* Data() const { return bytes.data() + kHexDataOffset; }
  std::uint8_t Checksum() const { return bytes[size - 1]; }

  // The value of an address record.
  std::uint16_t AddressValue() const { return Word(kHexDataOffset); }

  bool Holds(std::size_t dataBytes) const { return size >= kHexFrameBytes + dataBytes; }

  // The checksum that makes the frame and the first `dataBytes` data bytes add up to nothing.
  std::uint8_t ChecksumOf(std::size_t dataBytes) const {
    unsigned sum = 0;
    for (std::size_t i = 0; i < kHexDataOffset + dataBytes; ++i) sum += bytes[i];
    return static_cast<std::uint8_t>(0 - sum);
  }
  bool ChecksumFits(std::size_t dataBytes) const { return ChecksumOf(dataBytes) == Checksum(); }

 private:
  std::uint16_t Word(std::size_t offset) const {
    return static_cast<std::uint16_t>(bytes[offset] << 8 | bytes[offset + 1]);
  }
};

// Where the 16-bit addresses of the records count from.
class HexAddressBase {
 public:
  std::uint32_t Absolute(std::uint16_t address) const { return m_base + address; }

  void Set(const HexRecord& record) {
    const std::uint32_t value = record.AddressValue();
    m_base = record.Type() == kHexExtendedSegmentAddress ? value << 4 : value << 16;
  }

 private:
  std::uint32_t m_base = 0;
};

// The start of the line behind the one that holds `position`; `end` when that is the last one.
inline const std::uint8_t* NextHexLine(const std::uint8_t* position, const std::uint8_t* end) {
  if (position == end) return end;
  const auto left = static_cast<std::size_t>(end - position);
  const auto* lineFeed = static_cast<const std::uint8_t*>(std::memchr(position, '\n', left));
  return lineFeed == nullptr ? end : lineFeed + 1;
}

// Decodes the record of the line that begins at `line`, which is before `end`. Returns where the
// next line begins, or null when the line is not a well-formed record. The rest of a line behind
// its record is a comment that nobody looks at.
inline const std::uint8_t* DecodeHexLine(const std::uint8_t* line, const std::uint8_t* end,
                                         HexRecord& record) {
  if (*line != ':') return nullptr;
  const std::uint8_t* position = line + 1;
  const std::size_t pairs =
      std::min(static_cast<std::size_t>(end - position) / 2, kMaxHexRecordBytes);
  std::size_t size = 0;
  for (; size < pairs; ++size, position += 2) {
    const unsigned high = kHexDigits[position[0]];
    const unsigned low = kHexDigits[position[1]];
    if ((high | low) > 0xF) break;
    record.bytes[size] = static_cast<std::uint8_t>(high << 4 | low);
  }
  // A digit here is one without a partner, or one too many.
  if (position != end && kHexDigits[*position] != kHexEndsRecord) return nullptr;
  record.size = size;
  return record.Holds(0) ? NextHexLine(position, end) : nullptr;
}

}  // namespace tavo
