#include "device/target.h"

#include <algorithm>
#include <string_view>

#include "text/text_format.h"

namespace tavo::tool {
namespace {

constexpr std::string_view kSafeSigns = "-_./:=@%+,";

bool IsSafe(char c) {
  const bool alphanumeric =
      (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
  return alphanumeric || kSafeSigns.find(c) != std::string_view::npos;
}

// How many bytes the character at the beginning has in UTF-8; 0 when it is none.
std::size_t CharacterLength(std::string_view text) {
  const auto isContinuation = [](char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; };
  const auto first = static_cast<unsigned char>(text.front());
  const std::size_t length = first < 0x80 ? 1 : first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first >= 0xF8 || isContinuation(text.front()) || length > text.size()) return 0;
  return std::ranges::all_of(text.substr(1, length - 1), isContinuation) ? length : 0;
}

// Whether a terminal shows it and JSON can hold it.
bool IsShowable(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = CharacterLength(text);
    const bool isControl = text.front() >= 0 && (text.front() < ' ' || text.front() == 0x7F);
    if (length == 0 || isControl) return false;
    text.remove_prefix(length);
  }
  return true;
}

// As bash and zsh write what cannot be shown.
std::string Escaped(std::string_view text) {
  std::string word = "$'";
  for (const char c : text) {
    word += IsSafe(c) ? std::string(1, c) : Format("\\%03o", static_cast<unsigned char>(c));
  }
  return word + "'";
}

}  // namespace

const char* KindName(TransportKind kind) { return kind == TransportKind::Usb ? "usb" : "ftdi"; }

std::string ShellWord(const std::string& text) {
  if (!text.empty() && std::all_of(text.begin(), text.end(), IsSafe)) return text;
  if (!IsShowable(text)) return Escaped(text);
  std::string word = "'";
  for (const char c : text) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return word + "'";
}

std::string TargetOptions(const Target& target) {
  if (target.kind == TransportKind::Usb) return "--usb " + ShellWord(target.address);
  const std::uint32_t kDefaultBaudRate = Target().baudRate;
  std::string options = "--ftdi " + ShellWord(target.address);
  if (target.baudRate != kDefaultBaudRate) options += " --baud " + std::to_string(target.baudRate);
  if (target.echo) options += " --echo";
  return options;
}

}  // namespace tavo::tool
