// Any text: the converter agrees with a literal reading of the format. And once more with checksums
// that fit, which the fuzzer could hardly guess.
#include <algorithm>

#include "fuzz/expect.h"
#include "fuzz/literal_hex.h"
#include "package/intel_hex_converter.h"

namespace tavo::fuzz {
namespace {

bool Agree(HexResult result, LiteralResult literal) {
  switch (literal) {
    case LiteralResult::Ok: return result == HexResult::Ok;
    case LiteralResult::ChecksumError: return result == HexResult::ChecksumError;
    case LiteralResult::FormatError: return result == HexResult::FormatError;
    case LiteralResult::Malformed:
      return result == HexResult::ChecksumError || result == HexResult::FormatError;
  }
  return false;
}

std::string WithFittingChecksum(const std::string& line) {
  std::string digits;
  if (!SplitLine(line, digits) || digits.size() < 10 || digits.size() % 2 != 0) return line;
  std::vector<unsigned> record = DigitPairs(digits);
  record.back() = 0;
  const std::size_t counted = record[3] == 0 ? record[0] : record[3] == 1 ? 0 : 2;
  const unsigned checksum = 256 - RecordSum(record, std::min(counted, record.size() - 5));
  std::string fitting = line;
  constexpr const char* kDigits = "0123456789ABCDEF";
  fitting[digits.size() - 1] = kDigits[checksum / 16 % 16];
  fitting[digits.size()] = kDigits[checksum % 16];
  return fitting;
}

std::string WithFittingChecksums(const std::string& text) {
  std::string fitting;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) fitting += WithFittingChecksum(line) + '\n';
  return fitting;
}

void Compare(const std::string& text) {
  const std::vector<std::uint8_t> bytes(text.begin(), text.end());
  CIntelHexConverter converter;
  const HexResult result = converter.Convert(bytes);
  const LiteralHex literal = ReadRecords(text);
  Expect(Agree(result, literal.result), "the results agree");
  Expect(converter.StartAddress() == literal.startAddress, "the start addresses agree");
  Expect(converter.Data() == literal.data, "the data agree");
}

}  // namespace
}  // namespace tavo::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
  const std::string text(input, input + size);
  tavo::fuzz::Compare(text);
  tavo::fuzz::Compare(tavo::fuzz::WithFittingChecksums(text));
  return 0;
}
