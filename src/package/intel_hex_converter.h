// Turns the text of one Intel HEX file into a start address and a run of bytes. The update file
// reader makes one converter for each text and takes the bytes out when the result is Ok.
//
//   CIntelHexConverter converter;
//   if (converter.Convert(text) == HexResult::Ok) Use(converter.StartAddress(), converter.Data());
//
// Bytes are appended in the order of their records and are never moved to their addresses: gaps are
// not filled and records out of order stay out of order. The converter opens no files, writes no
// log and lets no exception out.
#pragma once

#include <cstdint>
#include <span>
#include <utility>
#include <vector>

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

  // Converts the complete text of a file; the result of an earlier call is dropped first. Text
  // without data records converts to no bytes at kNoAddress, and so does every text whose result is
  // not Ok: a file converts whole or not at all.
  HexResult Convert(std::span<const std::uint8_t> text);

  // The lowest address of any data record; 0 before the first conversion.
  std::uint32_t StartAddress() const { return m_startAddress; }

  const std::vector<std::uint8_t>& Data() const& { return m_data; }
  std::vector<std::uint8_t> Data() && { return std::move(m_data); }

 private:
  HexResult ReadRecords(std::span<const std::uint8_t> text);
  void Clear();

  std::uint32_t m_startAddress = 0;
  std::vector<std::uint8_t> m_data;
};

}  // namespace tavo
