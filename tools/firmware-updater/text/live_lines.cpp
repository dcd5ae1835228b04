#include "text/live_lines.h"

#include <algorithm>
#include <ostream>

namespace tavo::tool {
namespace {

constexpr const char* kPlain = "\x1B[0m";
constexpr const char* kEraseToEnd = "\r\x1B[J";

}  // namespace

std::string Coloured(const Machine& machine, const char* colour, const std::string& text) {
  return machine.colour ? colour + text + kPlain : text;
}

std::size_t LiveLines::Room() const {
  return static_cast<std::size_t>(std::max(m_machine.width(), 2) - 1);
}

std::size_t LiveLines::Rows() const {
  return static_cast<std::size_t>(std::max(m_machine.height(), 2) - 1);
}

void LiveLines::Show(const std::vector<LiveLine>& lines) {
  std::string text = Erasing();
  m_drawn.clear();
  for (const LiveLine& line : lines) {
    if (m_drawn.size() == Rows()) break;
    if (!m_drawn.empty()) text += '\n';
    std::size_t used = 0;
    for (const Span& span : line) {
      const std::string part = span.text.substr(0, Room() - used);
      text += *span.colour == '\0' ? part : Coloured(m_machine, span.colour, part);
      used += part.size();
    }
    m_drawn.push_back(used);
  }
  m_machine.out << text << std::flush;
}

void LiveLines::Erase() {
  m_machine.out << Erasing();
  m_drawn.clear();
}

void LiveLines::Say(const std::string& text) {
  Erase();
  m_machine.out << InLines(m_machine, text) << std::endl;
}

// A window that has become narrower since has broken the lines into several.
std::string LiveLines::Erasing() const {
  if (m_drawn.empty()) return {};
  std::size_t above = m_drawn.size() - 1;
  for (const std::size_t length : m_drawn) above += length == 0 ? 0 : (length - 1) / (Room() + 1);
  const std::string up = above == 0 ? "" : "\x1B[" + std::to_string(above) + "A";
  return up + kEraseToEnd;
}

}  // namespace tavo::tool
