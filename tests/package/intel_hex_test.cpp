#include "package/intel_hex_converter.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace tavo {
namespace {

using Bytes = std::vector<std::uint8_t>;

// A copy of exactly the size of the text, so that a sanitizer sees any read past its end.
Bytes TextBytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

const std::string kEnd = ":00000001FF\n";

struct GoodText {
  const char* what;
  std::string text;
  std::uint32_t startAddress;
  Bytes data;
};

TEST(IntelHex, ConvertsWellFormedText) {
  const std::uint32_t none = CIntelHexConverter::kNoAddress;
  const GoodText texts[] = {
      {"no text", "", none, {}},
      {"end record only", kEnd, none, {}},
      {"no end record, no line end", ":0100000042BD", 0, {0x42}},
      {"CR LF", ":0100000042BD\r\n:00000001FF\r\n", 0, {0x42}},
      {"both digit cases", ":02000000aBCd86\n", 0, {0xAB, 0xCD}},
      {"comment behind CR", ":0100000042BD\r no digits \n" + kEnd, 0, {0x42}},
      {"comment behind NUL", std::string(":0100000042BD\0zz\n", 17) + kEnd, 0, {0x42}},
      {"file order is kept", ":0101000001FD\n:0100000002FD\n", 0, {0x01, 0x02}},
      {"record without data lowers the start", ":0100100042AD\n:00000800F8\n", 8, {0x42}},
      {"segment base", ":020000021000EC\n:0100100042AD\n", 0x10010, {0x42}},
      {"segment sum beyond 1 MiB", ":02000002FFFFFE\n:01FFFF0042BF\n", 0x10FFEF, {0x42}},
      {"linear base", ":020000040001F9\n:0100100042AD\n", 0x10010, {0x42}},
      {"linear base at the top", ":02000004FFFFFC\n:01FFFF0042BF\n", 0xFFFFFFFF, {0x42}},
      {"last base counts", ":020000040001F9\n:020000021000EC\n:0100100042AD\n", 0x10010, {0x42}},
      {"start address, sum wrong", ":0400000300000000AA\n" + kEnd, none, {}},
      {"linear start address, sum wrong", ":04000005000000FF00\n" + kEnd, none, {}},
      {"unknown type, sum wrong", ":010000994200\n" + kEnd, none, {}},
      {"nothing counts behind the end", kEnd + "\n:zz\n:0100000042BE\n", none, {}},
      {"bytes before the checksum are not data", ":0100000042FFFFBD\n", 0, {0x42}},
      {"data of an end record is not summed", ":02000001AABBFD\n", none, {}},
      {"longest line", ":" + std::string(534, '0'), 0, {}},
      {"two bytes of a base are summed", ":040000040001AABBF7\n:0100100042AD\n", 0x10010, {0x42}},
  };
  for (const GoodText& good : texts) {
    SCOPED_TRACE(good.what);
    CIntelHexConverter converter;
    EXPECT_EQ(converter.Convert(TextBytes(good.text)), HexResult::Ok);
    EXPECT_EQ(converter.StartAddress(), good.startAddress);
    EXPECT_EQ(converter.Data(), good.data);
  }
}

struct BadText {
  const char* what;
  std::string text;
  HexResult result;
};

TEST(IntelHex, RejectsWholeTextForOneBadRecord) {
  const BadText texts[] = {
      {"data checksum", ":0100000042BC\n", HexResult::ChecksumError},
      {"end checksum", ":00000001FE\n", HexResult::ChecksumError},
      {"segment checksum", ":020000021000ED\n", HexResult::ChecksumError},
      {"linear checksum", ":020000040001F8\n", HexResult::ChecksumError},
      {"blank line", "\n" + kEnd, HexResult::FormatError},
      {"CR alone", "\r\n" + kEnd, HexResult::FormatError},
      {"leading blank", " " + kEnd, HexResult::FormatError},
      {"byte-order mark", "\xEF\xBB\xBF" + kEnd, HexResult::FormatError},
      {"no digit", ":01000000G2BD\n", HexResult::FormatError},
      {"trailing blank", ":0100000042BD \n", HexResult::FormatError},
      {"colon only", ":", HexResult::FormatError},
      {"eight digits", ":00000001\n", HexResult::FormatError},
      {"odd number of digits", ":0100000042BD0\n", HexResult::FormatError},
      {"odd number of digits at the end", ":0100000042B", HexResult::FormatError},
      {"count beyond the record", ":FF00000042BD\n", HexResult::FormatError},
      {"count takes in the checksum", ":0200000042BC\n", HexResult::FormatError},
      {"segment base of one byte", ":0100000210ED\n", HexResult::FormatError},
      {"linear base of no bytes", ":00000004FC\n", HexResult::FormatError},
      {"535 digits", ":" + std::string(535, '0') + "\n", HexResult::FormatError},
      {"536 digits", ":" + std::string(536, '0') + "\n", HexResult::FormatError},
  };
  for (const BadText& bad : texts) {
    SCOPED_TRACE(bad.what);
    CIntelHexConverter converter;
    EXPECT_EQ(converter.Convert(TextBytes(":0100000042BD\n" + bad.text)), bad.result);
    EXPECT_EQ(converter.StartAddress(), CIntelHexConverter::kNoAddress);
    EXPECT_TRUE(converter.Data().empty());
  }
}

}  // namespace
}  // namespace tavo
