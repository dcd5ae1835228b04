// Intel HEX once more, slowly: the rules one after the other, on lines of text. The fuzzer compares the
// converter with it; the two share no code.
#pragma once

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

namespace tavo::fuzz {

enum class LiteralResult {
  Ok,
  ChecksumError,
  FormatError,
  Malformed,  // a record that does not hold what it promises: a checksum or a format error
};

struct LiteralHex {
  LiteralResult result = LiteralResult::Ok;
  std::uint32_t startAddress = 0xFFFFFFFF;
  std::vector<std::uint8_t> data{};
};

// Whether `line` is a colon and digits; stores the digits.
inline bool SplitLine(const std::string& line, std::string& digits) {
  if (line.empty() || line[0] != ':') return false;
  const std::string rest = line.substr(1);
  digits = rest.substr(0, rest.find_first_of(std::string("\r\n\0", 3)));
  return digits.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos &&
         digits.size() < 535;
}

inline std::vector<unsigned> DigitPairs(const std::string& digits) {
  std::vector<unsigned> values;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    values.push_back(static_cast<unsigned>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return values;
}

// The sum of the four bytes before the data, of `count` data bytes and of the checksum.
inline unsigned RecordSum(const std::vector<unsigned>& record, std::size_t count) {
  unsigned sum = record.back();
  for (std::size_t i = 0; i < 4 + count; ++i) sum += record[i];
  return sum % 256;
}

inline LiteralHex ReadRecords(const std::string& text) {
  LiteralHex hex;
  bool linear = false;
  unsigned segmentBase = 0;
  unsigned linearUpper = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::string digits;
    if (!SplitLine(line, digits)) return {LiteralResult::FormatError};
    if (digits.size() < 10 || digits.size() % 2 != 0) return {LiteralResult::Malformed};
    const std::vector<unsigned> record = DigitPairs(digits);
    const std::size_t count = record[0];
    const unsigned address = record[1] * 256 + record[2];
    const unsigned type = record[3];
    const std::size_t room = record.size() - 5;
    if (type == 0) {
      if (count > room) return {LiteralResult::Malformed};
      const std::uint32_t absolute =
          linear ? linearUpper * 65536 + address : segmentBase * 16 + address;
      if (absolute < hex.startAddress) hex.startAddress = absolute;
      for (std::size_t i = 0; i < count; ++i) {
        hex.data.push_back(static_cast<std::uint8_t>(record[4 + i]));
      }
      if (RecordSum(record, count) != 0) return {LiteralResult::ChecksumError};
    } else if (type == 1) {
      if (RecordSum(record, 0) != 0) return {LiteralResult::ChecksumError};
      return hex;
    } else if (type == 2 || type == 4) {
      if (room < 2) return {LiteralResult::Malformed};
      linear = type == 4;
      (linear ? linearUpper : segmentBase) = record[4] * 256 + record[5];
      if (RecordSum(record, 2) != 0) return {LiteralResult::ChecksumError};
    }
  }
  return hex;
}

}  // namespace tavo::fuzz
