// Intel HEX converted as the format is told: each line copied to a string, its digits checked and
// counted, a buffer of half as many bytes filled, the data bytes pushed one after the other. The
// straightforward program that the converter is measured against; it is careful to waste nothing
// beyond that, so strings and buffers keep their memory from line to line.
#pragma once

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tavo::bench {

class LiteralConversion {
 public:
  // Whether all of the text is good.
  bool Convert(std::span<const std::uint8_t> text) {
    m_data.clear();
    m_startAddress = 0xFFFFFFFF;
    m_base = 0;
    m_ended = false;
    const std::string all(text.begin(), text.end());
    std::string line;
    for (std::size_t begin = 0; begin < all.size() && !m_ended;) {
      const std::size_t lineFeed = std::min(all.find('\n', begin), all.size());
      line.assign(all, begin, lineFeed - begin);
      if (!ConvertLine(line)) return false;
      begin = lineFeed + 1;
    }
    return true;
  }

  const std::vector<std::uint8_t>& Data() const { return m_data; }

 private:
  // Letters, large or small, have bit 6 and begin with 1. Without a branch: which digit comes next
  // cannot be foreseen.
  static int Value(char digit) { return (digit & 0xF) + (digit >> 6) * 9; }

  static bool EndsRecord(char c) { return c == '\r' || c == '\n' || c == '\0'; }

  bool ConvertLine(const std::string& line) {
    if (line.empty() || line[0] != ':') return false;
    std::size_t digits = 0;
    for (std::size_t i = 1; i < line.size() && !EndsRecord(line[i]); ++i, ++digits) {
      if (std::isxdigit(static_cast<unsigned char>(line[i])) == 0) return false;
    }
    if (digits < 10 || digits >= 535 || digits % 2 != 0) return false;
    m_record.resize(digits / 2);
    for (std::size_t i = 0; i < m_record.size(); ++i) {
      m_record[i] = static_cast<std::uint8_t>(Value(line[2 * i + 1]) << 4 | Value(line[2 * i + 2]));
    }
    return ConvertRecord();
  }

  bool ConvertRecord() {
    const std::uint8_t count = m_record[0];
    const std::size_t room = m_record.size() - 5;
    unsigned sum = 0U + m_record.back() + m_record[3] + m_record[1] + m_record[2] + count;
    switch (m_record[3]) {
      case 0:
        if (count > room) return false;
        m_startAddress = std::min(m_startAddress, m_base + (m_record[1] * 256U + m_record[2]));
        for (std::size_t i = 0; i < count; ++i) {
          m_data.push_back(m_record[4 + i]);
          sum += m_record[4 + i];
        }
        return sum % 256 == 0;
      case 1: m_ended = true; return sum % 256 == 0;
      case 2:
      case 4:
        if (room < 2) return false;
        m_base = (m_record[4] * 256U + m_record[5]) * (m_record[3] == 2 ? 16U : 65536U);
        return (sum + m_record[4] + m_record[5]) % 256 == 0;
      default: return true;
    }
  }

  std::vector<std::uint8_t> m_data;
  std::vector<std::uint8_t> m_record;
  std::uint32_t m_startAddress = 0xFFFFFFFF;
  std::uint32_t m_base = 0;
  bool m_ended = false;
};

}  // namespace tavo::bench
