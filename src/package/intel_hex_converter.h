// Turns the text of one Intel HEX file into a start address and a run of bytes. The update file
// reader makes one converter for each HEX file, hands it the text piece by piece as it reads it, and
// takes the bytes out when the result is Ok.
//
//   CIntelHexConverter converter;
//   converter.Begin(sizeOfText);
//   while (...) converter.Add(piece);
//   if (converter.Finish() == HexResult::Ok) Use(converter.StartAddress(), converter.Data());
//
// Bytes are appended in the order of their records and are never moved to their addresses: gaps are
// not filled and records out of order stay out of order. The converter opens no files, writes no
// log and lets no exception out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "package/hex_record.h"

namespace tavo {

enum class HexResult : std::int32_t {
  Ok = 1,
  ChecksumError = 3,  // a record of a type that is used fails its checksum
  FormatError = 4,    // a line is not a well-formed record
  OutOfMemory = 5,
};

class CIntelHexConverter {
 public:
  static constexpr std::uint32_t kNoAddress = 0xFFFFFFFF;

  CIntelHexConverter() = default;
  virtual ~CIntelHexConverter() = default;

  // Converts the complete text of a file; what an earlier call left behind is dropped first. Text
  // without data records converts to no bytes at kNoAddress, and so does every text whose result is
  // not Ok: a file converts whole or not at all.
  HexResult Convert(std::span<const std::uint8_t> text);

  // The same for a text that need not be in memory as a whole: Begin, any number of pieces, however
  // they are cut, and Finish. `textSize` is the length of the text as far as it is known; memory is
  // set aside by it.
  void Begin(std::size_t textSize);
  void Add(std::span<const std::uint8_t> piece);
  HexResult Finish();

  // The lowest address of any data record; 0 before the first conversion.
  std::uint32_t StartAddress() const { return m_startAddress; }

  const std::vector<std::uint8_t>& Data() const& { return m_data; }
  std::vector<std::uint8_t> Data() && { return std::move(m_data); }

 private:
  std::span<const std::uint8_t> AddToRest(std::span<const std::uint8_t> piece);
  std::size_t ConvertLines(std::span<const std::uint8_t> text, std::size_t needed);
  void EndWithoutMemory();
  void Clear();

  std::uint32_t m_startAddress = 0;
  std::vector<std::uint8_t> m_data;

  HexAddressBase m_base;
  HexResult m_result = HexResult::Ok;  // of what has been converted
  bool m_ended = false;                // what is left of the text does not matter
  bool m_behindRecord = false;         // what comes is the comment of a line, up to its end
  std::vector<std::uint8_t> m_rest;    // text too short to tell yet whether it is a record
};

}  // namespace tavo
