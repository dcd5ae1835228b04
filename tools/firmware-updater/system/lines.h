// Cuts the bytes of a stream into lines.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace tavo::tool {

class LineCutter {
 public:
  explicit LineCutter(std::function<void(std::string_view line)> onLine)
      : m_onLine(std::move(onLine)) {}

  void Take(std::string_view bytes) {
    for (const char byte : bytes) {
      if (byte != '\n') m_line += byte;
      if (byte == '\n' || m_line.size() == kLongest) Cut();
    }
  }
  // The last line may lack its end.
  void End() {
    if (!m_line.empty()) Cut();
  }

 private:
  static constexpr std::size_t kLongest = std::size_t{1} << 20;

  void Cut() {
    if (m_line.ends_with('\r')) m_line.pop_back();
    m_onLine(m_line);
    m_line.clear();
  }

  std::function<void(std::string_view line)> m_onLine;
  std::string m_line;
};

}  // namespace tavo::tool
