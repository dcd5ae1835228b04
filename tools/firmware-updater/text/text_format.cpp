#include "text/text_format.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>

#include "log/displayable.h"
#include "package/hardware_identity.h"

namespace tavo::tool {

std::string Format(const char* format, ...) {
  std::array<char, 256> text{};
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  return text.data();
}

std::string Hex(std::uint32_t value, int digits) { return Format("0x%0*X", digits, value); }

double Seconds(std::chrono::milliseconds time) { return static_cast<double>(time.count()) / 1000; }

std::string HexBytes(std::span<const std::uint8_t> bytes) {
  constexpr std::size_t kMostShown = 12;
  std::string text;
  for (const std::uint8_t byte : bytes.first(std::min(bytes.size(), kMostShown))) {
    text += Format(text.empty() ? "%02X" : " %02X", unsigned{byte});
  }
  return bytes.size() > kMostShown ? text + Format(" ... %zu more", bytes.size() - kMostShown)
                                   : text;
}

std::string Displayable(std::string_view text, std::size_t maxLength) {
  const std::string shown = tavo::Displayable(text.substr(0, maxLength));
  return text.size() > maxLength ? shown + "..." : shown;
}

std::string Wrapped(std::string_view text, std::size_t width) {
  constexpr std::string_view kCommand = ": firmware-updater ";
  const std::size_t colon = text.find(kCommand);
  const std::size_t command = colon == text.npos ? text.npos : colon + 2;
  std::string lines;
  std::size_t column = 0;
  for (std::size_t at = 0; at < text.size();) {
    std::size_t end = text.find(' ', at);
    const std::size_t quote = text.find('`', at);
    if (quote < end) end = text.find(' ', text.find('`', quote + 1));
    if (at == command) end = text.npos;
    const std::string_view word = text.substr(at, end - at);
    if (column > 0) {
      const bool fits = column + 1 + word.size() <= width;
      lines += fits ? ' ' : '\n';
      column = fits ? column + 1 : 0;
    }
    lines += word;
    column += word.size();
    at += word.size() + 1;
  }
  return lines;
}

std::string HardwareIdText(std::uint16_t hardwareId) {
  const HardwareIdRecord id = SplitHardwareId(hardwareId);
  return Format("%u.%u.%u.%u", id.serie, id.type, id.module, id.variant);
}

std::string HardwareIdsText(const std::vector<std::uint16_t>& ids) {
  constexpr std::size_t kMaxShown = 16;
  std::string text;
  for (std::size_t i = 0; i < std::min(ids.size(), kMaxShown); ++i) {
    if (i > 0) text += ", ";
    text += HardwareIdText(ids[i]);
  }
  if (ids.size() > kMaxShown) text += Format(" and %zu more", ids.size() - kMaxShown);
  return text.empty() ? "none" : text;
}

}  // namespace tavo::tool
