#include "package/intel_hex_converter.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <new>

namespace tavo {
namespace {

// A record in its decoded form: byte count, address (2 bytes, high first), type, data, checksum.
// The checksum is the last byte that stands in the record, whatever the byte count says.
constexpr std::size_t kDataOffset = 4;
constexpr std::size_t kFrameBytes = kDataOffset + 1;
constexpr std::size_t kMaxDigits = 534;  // a little more than the 520 of the longest regular record
constexpr std::size_t kMaxRecordBytes = kMaxDigits / 2;

enum RecordType : std::uint8_t {
  kData = 0,
  kEndOfFile = 1,
  kExtendedSegmentAddress = 2,
  kExtendedLinearAddress = 4,
};

// What a character means inside a record: the value of a digit, or one of the two below.
constexpr std::uint8_t kEndsRecord = 0x10;
constexpr std::uint8_t kNoDigit = 0x20;

constexpr std::array<std::uint8_t, 256> MakeDigitTable() {
  std::array<std::uint8_t, 256> table{};
  table.fill(kNoDigit);
  for (std::uint8_t i = 0; i < 10; ++i) table[std::size_t{'0'} + i] = i;
  for (std::uint8_t i = 0; i < 6; ++i) {
    table[std::size_t{'A'} + i] = table[std::size_t{'a'} + i] = static_cast<std::uint8_t>(10 + i);
  }
  table['\r'] = table['\n'] = table['\0'] = kEndsRecord;
  return table;
}

constexpr std::array<std::uint8_t, 256> kDigits = MakeDigitTable();

struct Record {
  std::array<std::uint8_t, kMaxRecordBytes> bytes;
  std::size_t size;

  std::uint8_t Count() const { return bytes[0]; }
  std::uint16_t Address() const { return Word(1); }
  std::uint8_t Type() const { return bytes[3]; }
  const std::uint8_t* Data() const { return bytes.data() + kDataOffset; }

  // The value of an address record.
  std::uint16_t AddressValue() const { return Word(kDataOffset); }

  bool Holds(std::size_t dataBytes) const { return size >= kFrameBytes + dataBytes; }

  // Whether the frame and the first `dataBytes` data bytes add up to nothing.
  bool ChecksumFits(std::size_t dataBytes) const {
    unsigned sum = bytes[size - 1];
    for (std::size_t i = 0; i < kDataOffset + dataBytes; ++i) sum += bytes[i];
    return (sum & 0xFF) == 0;
  }

 private:
  std::uint16_t Word(std::size_t offset) const {
    return static_cast<std::uint16_t>(bytes[offset] << 8 | bytes[offset + 1]);
  }
};

// The rest of a line behind its record is a comment that nobody looks at.
const std::uint8_t* NextLine(const std::uint8_t* position, const std::uint8_t* end) {
  if (position == end) return end;
  const auto left = static_cast<std::size_t>(end - position);
  const auto* lineFeed = static_cast<const std::uint8_t*>(std::memchr(position, '\n', left));
  return lineFeed == nullptr ? end : lineFeed + 1;
}

// Decodes the record of the line that begins at `line`, which is before `end`. Returns where the
// next line begins, or null when the line is not a well-formed record.
const std::uint8_t* DecodeLine(const std::uint8_t* line, const std::uint8_t* end, Record& record) {
  if (*line != ':') return nullptr;
  const std::uint8_t* position = line + 1;
  const std::size_t pairs = std::min(static_cast<std::size_t>(end - position) / 2, kMaxRecordBytes);
  std::size_t size = 0;
  for (; size < pairs; ++size, position += 2) {
    const unsigned high = kDigits[position[0]];
    const unsigned low = kDigits[position[1]];
    if ((high | low) > 0xF) break;
    record.bytes[size] = static_cast<std::uint8_t>(high << 4 | low);
  }
  // A digit here is one without a partner, or one too many.
  if (position != end && kDigits[*position] != kEndsRecord) return nullptr;
  record.size = size;
  return record.Holds(0) ? NextLine(position, end) : nullptr;
}

// Where the 16-bit addresses of the records count from.
class AddressBase {
 public:
  std::uint32_t Absolute(std::uint16_t address) const { return m_base + address; }

  void Set(const Record& record) {
    const std::uint32_t value = record.AddressValue();
    m_base = record.Type() == kExtendedSegmentAddress ? value << 4 : value << 16;
  }

 private:
  std::uint32_t m_base = 0;
};

}  // namespace

HexResult CIntelHexConverter::Convert(std::span<const std::uint8_t> text) {
  Clear();
  HexResult result = HexResult::OutOfMemory;
  try {
    result = ConvertRecords(text);
  } catch (const std::bad_alloc&) {
    // The result says so already.
  }
  if (result != HexResult::Ok) Clear();
  return result;
}

HexResult CIntelHexConverter::ConvertRecords(std::span<const std::uint8_t> text) {
  // Two characters make a byte at best, so that the bytes never have to move while they come in.
  m_data.reserve(text.size() / 2);
  AddressBase base;
  Record record;
  const std::uint8_t* const end = text.data() + text.size();
  for (const std::uint8_t* line = text.data(); line != end;) {
    line = DecodeLine(line, end, record);
    if (line == nullptr) return HexResult::FormatError;
    switch (record.Type()) {
      case kData:
        if (!record.Holds(record.Count())) return HexResult::FormatError;
        if (!record.ChecksumFits(record.Count())) return HexResult::ChecksumError;
        m_startAddress = std::min(m_startAddress, base.Absolute(record.Address()));
        m_data.insert(m_data.end(), record.Data(), record.Data() + record.Count());
        break;
      case kExtendedSegmentAddress:
      case kExtendedLinearAddress:
        if (!record.Holds(2)) return HexResult::FormatError;
        if (!record.ChecksumFits(2)) return HexResult::ChecksumError;
        base.Set(record);
        break;
      case kEndOfFile: return record.ChecksumFits(0) ? HexResult::Ok : HexResult::ChecksumError;
      default:
        // Start addresses mean nothing to a device that always starts at its own; files are known
        // to carry them with wrong checksums.
        break;
    }
  }
  return HexResult::Ok;
}

void CIntelHexConverter::Clear() {
  m_startAddress = kNoAddress;
  m_data = {};
}

}  // namespace tavo
