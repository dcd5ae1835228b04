#include "package/intel_hex_converter.h"

#include <algorithm>
#include <array>
#include <new>
#include <utility>

namespace tavo {
namespace {

// A smaller buffer is cut down to what the image needs: of a larger one the system gives memory only
// to those pages that have been written.
constexpr std::size_t kLargeBuffer = std::size_t{1} << 20;

// Bytes are collected before they are appended to the image: done for each record it would take as
// long as reading the text.
constexpr std::size_t kBatchBytes = 4096;

// Whether a record of which `dataBytes` bytes of data count is in order.
HexResult Check(const HexRecord& record, std::size_t dataBytes) {
  if (!record.Holds(dataBytes)) return HexResult::FormatError;
  return record.ChecksumFits(dataBytes) ? HexResult::Ok : HexResult::ChecksumError;
}

// What a record does to the addresses.
HexResult Apply(const HexRecord& record, HexAddressBase& base, std::uint32_t& startAddress) {
  switch (record.type) {
    case kHexData:
      startAddress = std::min(startAddress, base.Absolute(record.address));
      return Check(record, record.count);
    case kHexExtendedSegmentAddress:
    case kHexExtendedLinearAddress: {
      const HexResult result = Check(record, kHexAddressBytes);
      if (result == HexResult::Ok) base.Set(record);
      return result;
    }
    case kHexEndOfFile: return Check(record, 0);
    default:
      // Start addresses mean nothing to a device that always starts at its own; files are known
      // to carry them with wrong checksums.
      return HexResult::Ok;
  }
}

}  // namespace

HexResult CIntelHexConverter::Convert(std::span<const std::uint8_t> text) {
  Begin(text.size());
  Add(text);
  return Finish();
}

void CIntelHexConverter::Begin(std::size_t textSize) try {
  Clear();
  m_base = {};
  m_ended = false;
  m_result = HexResult::Ok;
  m_behindRecord = false;
  m_rest.clear();
  m_rest.reserve(2 * kMaxHexRecordText);
  // Two characters make a byte at best, so that the bytes never have to move while they come in.
  m_data.reserve(textSize / 2);
} catch (const std::bad_alloc&) {
  EndWithoutMemory();
}

void CIntelHexConverter::Add(std::span<const std::uint8_t> piece) try {
  if (!m_rest.empty()) piece = AddToRest(piece);
  const std::size_t used = ConvertLines(piece, kMaxHexRecordText);
  m_rest.insert(m_rest.end(), piece.begin() + static_cast<std::ptrdiff_t>(used), piece.end());
} catch (const std::bad_alloc&) {
  EndWithoutMemory();
}

HexResult CIntelHexConverter::Finish() try {
  ConvertLines(m_rest, 1);
  if (m_data.capacity() < kLargeBuffer) m_data.shrink_to_fit();
  if (m_result != HexResult::Ok) Clear();
  return m_result;
} catch (const std::bad_alloc&) {
  Clear();
  return HexResult::OutOfMemory;
}

// Completes the lines that began before the piece. Returns what of the piece is behind them.
std::span<const std::uint8_t> CIntelHexConverter::AddToRest(std::span<const std::uint8_t> piece) {
  const std::size_t before = m_rest.size();
  const auto taken = piece.first(std::min(piece.size(), kMaxHexRecordText));
  m_rest.insert(m_rest.end(), taken.begin(), taken.end());
  const std::size_t used = ConvertLines(m_rest, kMaxHexRecordText);
  if (used < before) {
    // A short piece, all of which is waiting now.
    m_rest.erase(m_rest.begin(), m_rest.begin() + static_cast<std::ptrdiff_t>(used));
    return {};
  }
  m_rest.clear();
  return piece.subspan(used - before);
}

// Converts the lines at the front of the text while at least `needed` characters are left. Returns
// how many characters are done with.
std::size_t CIntelHexConverter::ConvertLines(std::span<const std::uint8_t> text,
                                             std::size_t needed) {
  std::array<std::uint8_t, kBatchBytes + kHexRoom> batch;
  std::uint8_t* out = batch.data();
  const auto append = [&] {
    m_data.insert(m_data.end(), batch.data(), std::exchange(out, batch.data()));
  };
  HexRecord record;
  const std::uint8_t* position = text.data();
  const std::uint8_t* const end = position + text.size();
  while (!m_ended && static_cast<std::size_t>(end - position) >= needed) {
    if (!m_behindRecord) {
      position = DecodeHexRecord(position, end, record, out);
      m_result =
          position == nullptr ? HexResult::FormatError : Apply(record, m_base, m_startAddress);
      m_ended = m_result != HexResult::Ok || record.type == kHexEndOfFile;
      if (m_ended) break;
      if (record.type == kHexData) out += record.count;
      if (out - batch.data() >= std::ptrdiff_t{kBatchBytes}) append();
    }
    position = NextHexLine(position, end);
    m_behindRecord = position[-1] != '\n';
  }
  append();
  return m_ended ? text.size() : static_cast<std::size_t>(position - text.data());
}

void CIntelHexConverter::EndWithoutMemory() {
  m_ended = true;
  m_result = HexResult::OutOfMemory;
}

void CIntelHexConverter::Clear() {
  m_startAddress = kNoAddress;
  m_data = {};
}

}  // namespace tavo
