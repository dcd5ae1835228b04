#include "file/hex_survey.h"

#include <algorithm>
#include <utility>

#include "package/hex_record.h"
#include "text/text_format.h"

namespace tavo::tool {
namespace {

bool IsBlank(std::uint8_t c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string Shown(std::uint8_t c) {
  return c > ' ' && c < 0x7F ? Format("'%c'", c) : Format("the byte 0x%02X", c);
}

struct Finding {
  std::size_t column;
  std::string text;
};

// Why DecodeHexRecord refuses the line that the text begins with.
Finding Explain(HexSpan text) {
  if (text[0] == '\n' || text[0] == '\r') return {1, "the line is empty"};
  if (text[0] != ':') return {1, "a record begins with ':', not with " + Shown(text[0])};
  const HexSpan rest = text.subspan(1);
  const auto stop = std::ranges::find_if(rest, [](auto c) { return kHexDigits[c] > 0xF; });
  const auto digits = static_cast<std::size_t>(stop - rest.begin());
  if (digits > kMaxHexDigits) return {kMaxHexDigits + 2, "the record is too long"};
  if (stop != rest.end() && kHexDigits[*stop] == kHexNoDigit) {
    return {digits + 2, Shown(*stop) + " is not a hexadecimal digit"};
  }
  if (digits % 2 != 0) return {digits + 1, "the last digit has no partner"};
  return {digits + 2,
          Format("the record is too short: it has %zu digits, the shortest has 10", digits)};
}

// Records that do not follow the one before them: where they would go and where they belong.
struct Jump {
  std::size_t line;
  std::uint32_t address;
  std::uint64_t expected;  // one past the record before
  std::uint64_t offset;    // in the converted bytes
};

class Surveyor {
 public:
  explicit Surveyor(HexSpan text) : m_text(text) {}

  HexSurvey Run() {
    bool ended = false;
    while (!ended && !m_survey.fault && !m_text.empty()) ended = VisitLine();
    if (!m_survey.fault) Conclude(ended);
    return std::move(m_survey);
  }

 private:
  // Whether that was the end record.
  bool VisitLine() {
    ++m_number;
    const std::size_t length = DecodeHexRecord(m_text, m_record);
    if (length == 0) {
      Finding finding = Explain(m_text);
      Fault(HexResult::FormatError, finding.column, std::move(finding.text));
      return false;
    }
    const HexSpan line = m_text.first(HexLineLength(m_text, length));
    m_text = m_text.subspan(line.size());
    if (m_record.IsUsed()) {
      VisitUsedRecord();
    } else {
      VisitUnusedRecord();
    }
    if (!m_survey.fault) LookBehindRecord(line.subspan(length));
    return m_record.Type() == kHexEndOfFile;
  }

  void VisitUsedRecord() {
    const std::size_t covered = m_record.DataBytes();
    if (!m_record.IsComplete()) {
      Fault(HexResult::FormatError, 2,
            Format("the record is too short: it needs %zu data bytes and has %zu", covered,
                   m_record.size - kHexFrameBytes));
    } else if (m_record.ChecksumOver(covered) != m_record.Checksum()) {
      Fault(HexResult::ChecksumError, 2 * m_record.size, ChecksumText(covered));
    } else if (m_record.Type() == kHexData) {
      VisitData();
    } else if (m_record.Type() != kHexEndOfFile) {
      m_base = m_record.BaseAddress();
    }
  }

  std::string ChecksumText(std::size_t covered) const {
    return Format("wrong checksum: found 0x%02X, expected 0x%02X", m_record.Checksum(),
                  m_record.ChecksumOver(covered));
  }

  void Fault(HexResult result, std::size_t column, std::string text) {
    m_survey.fault = HexFault{result, m_number, column, std::move(text)};
  }

  void VisitData() {
    const std::uint32_t address = m_base + m_record.Address();
    if (m_hasData && address != m_expected) {
      if (m_jumps.size() < kMaxHexWarnings) {
        m_jumps.push_back({m_number, address, m_expected, m_offset});
      } else {
        ++m_unreported;
      }
    }
    m_hasData = true;
    m_start = std::min(m_start, address);
    m_expected = std::uint64_t{address} + m_record.Count();
    m_offset += m_record.Count();
    const std::size_t extra = m_record.size - kHexFrameBytes - m_record.Count();
    if (extra > 0) Warn(Format("%zu bytes between data and checksum are ignored", extra));
  }

  void VisitUnusedRecord() {
    const std::size_t covered = m_record.size - kHexFrameBytes;
    if (m_record.Type() != 3 && m_record.Type() != 5) {
      Warn(Format("the record is of the unknown type 0x%02X and is ignored", m_record.Type()));
    } else if (m_record.ChecksumOver(covered) != m_record.Checksum()) {
      Warn("start address record, which is ignored, with a " + ChecksumText(covered));
    }
  }

  // A file with the line ends of an old system is one single line to the converter.
  void LookBehindRecord(HexSpan comment) {
    if (!std::ranges::all_of(comment, [](auto c) { return IsBlank(c) || c == 0; })) {
      Warn("text after the record is ignored");
    }
  }

  void Conclude(bool ended) {
    for (const Jump& jump : m_jumps) WarnOfJump(jump);
    m_survey.isCutOff = !ended;
    if (!ended) {
      Warn("no end record, so the text may be cut off");
    } else if (!std::ranges::all_of(m_text, IsBlank)) {
      ++m_number;
      Warn("text after the end record is ignored");
    }
    if (m_unreported > 0) m_survey.warnings.push_back(Format("%zu more warnings", m_unreported));
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
      ++m_unreported;
      return;
    }
    m_survey.warnings.push_back("line " + std::to_string(line) + ": " + text);
  }

  HexSpan m_text;            // from the next line on
  std::size_t m_number = 0;  // of the line in hand
  HexRecord m_record{};
  std::uint32_t m_base = 0;  // record addresses count from it
  bool m_hasData = false;
  std::uint32_t m_start = CIntelHexConverter::kNoAddress;
  std::uint64_t m_expected = 0;
  std::uint64_t m_offset = 0;
  std::vector<Jump> m_jumps{};  // reported at the end, when the start address is known
  std::size_t m_unreported = 0;
  HexSurvey m_survey{};
};

}  // namespace

HexSurvey SurveyHex(std::span<const std::uint8_t> text) { return Surveyor(text).Run(); }

}  // namespace tavo::tool
