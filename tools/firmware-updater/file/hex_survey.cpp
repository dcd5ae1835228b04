#include "file/hex_survey.h"

#include <algorithm>
#include <array>

#include "package/hex_record.h"
#include "text/text_format.h"

namespace tavo::tool {
namespace {

using Position = const std::uint8_t*;

bool IsBlank(std::uint8_t c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string Shown(std::uint8_t c) {
  return c > ' ' && c < 0x7F ? Format("'%c'", c) : Format("the byte 0x%02X", c);
}

// Why DecodeHexRecord refuses the line; called for such lines only.
class LineFault {
 public:
  LineFault(Position line, Position end) : m_line(line), m_end(end) {
    while (Column(m_digits) != m_end && kHexDigits[*Column(m_digits)] <= 0xF) ++m_digits;
  }

  HexFault Explain(std::size_t number) const {
    const auto [column, text] = Judge();
    return {HexResult::FormatError, number, column, text};
  }

 private:
  struct Finding {
    std::size_t column;
    std::string text;
  };

  Position Column(std::size_t digit) const { return m_line + 1 + digit; }

  Finding Judge() const {
    if (*m_line == '\n' || *m_line == '\r') return {1, "the line is empty"};
    if (*m_line != ':') return {1, "a record begins with ':', not with " + Shown(*m_line)};
    const std::size_t behind = m_digits + 2;
    if (m_digits > kMaxHexDigits) return {kMaxHexDigits + 2, "the record is too long"};
    const Position stop = Column(m_digits);
    if (stop != m_end && kHexDigits[*stop] == kHexNoDigit) {
      return {behind, Shown(*stop) + " is no hexadecimal digit"};
    }
    if (m_digits % 2 != 0) return {behind - 1, "the last digit has no partner"};
    return {behind, "the record is too short: it has " + std::to_string(m_digits) +
                        " digits, the shortest has 10"};
  }

  Position m_line;
  Position m_end;
  std::size_t m_digits = 0;
};

// Records that do not follow the one before them: where they would go and where they belong.
struct Jump {
  std::size_t line;
  std::uint32_t address;
  std::uint64_t expected;  // one past the record before
  std::uint64_t offset;    // in the bytes that come of the text
};

class Surveyor {
 public:
  explicit Surveyor(std::span<const std::uint8_t> text)
      : m_position(text.data()), m_end(text.data() + text.size()) {}

  HexSurvey Run() {
    bool ended = false;
    while (!ended && !m_survey.fault && m_position != m_end) ended = VisitLine();
    if (!m_survey.fault) Conclude(ended);
    return std::move(m_survey);
  }

 private:
  // Whether that was the end record.
  bool VisitLine() {
    ++m_number;
    const Position line = m_position;
    const Position behind = DecodeHexRecord(line, m_end, m_record, m_room.data());
    if (behind == nullptr) {
      m_survey.fault = LineFault(line, m_end).Explain(m_number);
      return false;
    }
    m_position = NextHexLine(behind, m_end);
    VisitRecord();
    if (!m_survey.fault) LookBehindRecord(behind);
    return m_record.type == kHexEndOfFile;
  }

  void VisitRecord() {
    switch (m_record.type) {
      case kHexData:
        if (Check(m_record.count)) VisitData();
        break;
      case kHexExtendedSegmentAddress:
      case kHexExtendedLinearAddress:
        if (Check(kHexAddressBytes)) m_base.Set(m_record);
        break;
      case kHexEndOfFile: Check(0); break;
      default: VisitUnusedRecord(); break;
    }
  }

  bool Check(std::size_t dataBytes) {
    if (!m_record.Holds(dataBytes)) {
      Fault(HexResult::FormatError, 2,
            Format("the record is too short: of %zu data bytes there are %zu", dataBytes,
                   m_record.size - kHexFrameBytes));
    } else if (!m_record.ChecksumFits(dataBytes)) {
      Fault(HexResult::ChecksumError, 2 * m_record.size, ChecksumText(dataBytes));
    }
    return !m_survey.fault;
  }

  std::string ChecksumText(std::size_t dataBytes) const {
    return Format("wrong checksum: found 0x%02X, expected 0x%02X", m_record.Checksum(),
                  m_record.ChecksumOf(dataBytes));
  }

  void Fault(HexResult result, std::size_t column, std::string text) {
    m_survey.fault = HexFault{result, m_number, column, std::move(text)};
  }

  void VisitData() {
    const std::uint32_t address = m_base.Absolute(m_record.address);
    if (m_hasData && address != m_expected) {
      if (m_jumps.size() < kMaxHexWarnings) {
        m_jumps.push_back({m_number, address, m_expected, m_offset});
      } else {
        ++m_untold;
      }
    }
    m_hasData = true;
    m_start = std::min(m_start, address);
    m_expected = std::uint64_t{address} + m_record.count;
    m_offset += m_record.count;
    const std::size_t extra = m_record.size - kHexFrameBytes - m_record.count;
    if (extra > 0) Warn(Format("%zu bytes between data and checksum are ignored", extra));
  }

  void VisitUnusedRecord() {
    if (m_record.type != 3 && m_record.type != 5) {
      Warn(Format("the record is of the unknown type 0x%02X and is ignored", m_record.type));
    } else if (!m_record.ChecksumFits(m_record.size - kHexFrameBytes)) {
      Warn("start address record, which is ignored, with a " +
           ChecksumText(m_record.size - kHexFrameBytes));
    }
  }

  // A file with the line ends of an old system is one single line to the converter.
  void LookBehindRecord(Position behind) {
    if (!std::all_of(behind, m_position, [](std::uint8_t c) { return IsBlank(c) || c == 0; })) {
      Warn("the text behind the record is ignored");
    }
  }

  void Conclude(bool ended) {
    for (const Jump& jump : m_jumps) WarnOfJump(jump);
    if (!ended) {
      Warn("there is no end record, the text may be cut off");
    } else if (!std::all_of(m_position, m_end, IsBlank)) {
      ++m_number;
      Warn("what stands behind the end record is ignored");
    }
    if (m_untold > 0) m_survey.warnings.push_back(Format("%zu more warnings", m_untold));
  }

  void WarnOfJump(const Jump& jump) {
    const bool back = jump.address < jump.expected;
    WarnAt(jump.line,
           Format("%s: the record for 0x%08X follows 0x%08llX, and its bytes would be written at "
                  "0x%08llX",
                  back ? "out of order" : "gap", jump.address,
                  static_cast<unsigned long long>(jump.expected - 1),
                  static_cast<unsigned long long>(m_start + jump.offset)));
  }

  void Warn(const std::string& text) { WarnAt(m_number, text); }

  void WarnAt(std::size_t line, const std::string& text) {
    if (m_survey.warnings.size() >= kMaxHexWarnings) {
      ++m_untold;
      return;
    }
    m_survey.warnings.push_back("line " + std::to_string(line) + ": " + text);
  }

  Position m_position;  // the start of the next line
  Position m_end;
  std::size_t m_number = 0;  // of the line in hand
  std::array<std::uint8_t, kHexRoom> m_room{};
  HexRecord m_record{};
  HexAddressBase m_base;
  bool m_hasData = false;
  std::uint32_t m_start = CIntelHexConverter::kNoAddress;
  std::uint64_t m_expected = 0;
  std::uint64_t m_offset = 0;
  std::vector<Jump> m_jumps{};  // told at the end, when the start address is known
  std::size_t m_untold = 0;
  HexSurvey m_survey{};
};

}  // namespace

HexSurvey SurveyHex(std::span<const std::uint8_t> text) { return Surveyor(text).Run(); }

}  // namespace tavo::tool
