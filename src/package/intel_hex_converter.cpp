#include "package/intel_hex_converter.h"

#include <algorithm>
#include <new>

#include "package/hex_record.h"

namespace tavo {

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
  HexAddressBase base;
  HexRecord record;
  const std::uint8_t* const end = text.data() + text.size();
  for (const std::uint8_t* line = text.data(); line != end;) {
    line = DecodeHexLine(line, end, record);
    if (line == nullptr) return HexResult::FormatError;
    switch (record.Type()) {
      case kHexData:
        if (!record.Holds(record.Count())) return HexResult::FormatError;
        if (!record.ChecksumFits(record.Count())) return HexResult::ChecksumError;
        m_startAddress = std::min(m_startAddress, base.Absolute(record.Address()));
        m_data.insert(m_data.end(), record.Data(), record.Data() + record.Count());
        break;
      case kHexExtendedSegmentAddress:
      case kHexExtendedLinearAddress:
        if (!record.Holds(2)) return HexResult::FormatError;
        if (!record.ChecksumFits(2)) return HexResult::ChecksumError;
        base.Set(record);
        break;
      case kHexEndOfFile: return record.ChecksumFits(0) ? HexResult::Ok : HexResult::ChecksumError;
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
