#include "package/intel_hex_converter.h"

#include <algorithm>
#include <new>

#include "package/hex_record.h"

namespace tavo {
namespace {

// A smaller buffer is cut down to what the image needs; the system provides memory for a larger one
// only page by page, as it is written.
constexpr std::size_t kLargeBuffer = std::size_t{1} << 20;

HexResult Check(const HexRecord& record) {
  if (!record.IsComplete()) return HexResult::FormatError;
  return record.ChecksumOver(record.DataBytes()) == record.Checksum() ? HexResult::Ok
                                                                      : HexResult::ChecksumError;
}

}  // namespace

HexResult CIntelHexConverter::Convert(std::span<const std::uint8_t> text) try {
  Clear();
  m_data.reserve(text.size() / 2);  // two digits make a byte: nothing has to move as bytes come in
  const HexResult result = ReadRecords(text);
  if (result != HexResult::Ok) Clear();
  if (m_data.capacity() < kLargeBuffer) m_data.shrink_to_fit();
  return result;
} catch (const std::bad_alloc&) {
  Clear();
  return HexResult::OutOfMemory;
}

HexResult CIntelHexConverter::ReadRecords(std::span<const std::uint8_t> text) {
  HexRecord record;
  std::uint32_t base = 0;
  while (!text.empty()) {
    const std::size_t length = DecodeHexRecord(text, record);
    if (length == 0) return HexResult::FormatError;
    text = text.subspan(HexLineLength(text, length));
    if (!record.IsUsed()) continue;
    if (const HexResult result = Check(record); result != HexResult::Ok) return result;
    if (record.Type() == kHexEndOfFile) break;
    if (record.Type() == kHexData) {
      m_startAddress = std::min(m_startAddress, base + record.Address());
      m_data.insert(m_data.end(), record.Data().begin(), record.Data().end());
    } else {
      base = record.BaseAddress();
    }
  }
  return HexResult::Ok;
}

void CIntelHexConverter::Clear() {
  m_startAddress = kNoAddress;
  m_data = {};
}

}  // namespace tavo
