#include "device/target.h"

#include <algorithm>
#include <string_view>

#include "log/displayable.h"
#include "text/text_format.h"

namespace tavo::tool {
namespace {

bool IsAlphanumeric(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool IsSafe(char c) {
  return IsAlphanumeric(c) || std::string_view("-_./:=@%+,").find(c) != std::string_view::npos;
}

bool IsSafeOnWindows(char c) {
  return IsAlphanumeric(c) || std::string_view("-_./:=+\\").find(c) != std::string_view::npos;
}

// As bash and zsh write what cannot be shown.
std::string Escaped(std::string_view text) {
  std::string word = "$'";
  for (const char c : text) {
    word += IsSafe(c) ? std::string(1, c) : Format("\\%03o", static_cast<unsigned char>(c));
  }
  return word + "'";
}

// PowerShell also takes the curved quotation marks for quotes: U+2018 to U+201B for single ones, U+201C to
// U+201E for double ones.
std::size_t CurvedQuote(std::string_view text, char first, char last) {
  for (std::size_t at = 0; (at = text.find("\xE2\x80", at)) != text.npos; ++at) {
    if (at + 2 < text.size() && text[at + 2] >= first && text[at + 2] <= last) return at;
  }
  return text.npos;
}

std::string InSingleQuotes(std::string_view text) {
  std::string word = "'";
  while (!text.empty()) {
    const std::size_t plain = std::min(text.find('\''), text.size());
    const std::size_t curved = std::min(CurvedQuote(text, '\x98', '\x9B'), text.size());
    const std::size_t at = std::min(plain, curved);
    const std::string_view quote = text.substr(at, at == curved ? 3 : 1);
    word.append(text.substr(0, at)).append(quote).append(quote);
    text.remove_prefix(at + quote.size());
  }
  return word + "'";
}

std::string WindowsWord(std::string text) {
  if (!text.empty() && std::ranges::all_of(text, IsSafeOnWindows)) return text;
  text = tavo::Displayable(text);  // no file has the letters that this exchanges
  const bool single =
      text.find_first_of("$`\"") != text.npos || CurvedQuote(text, '\x9C', '\x9E') != text.npos;
  if (single) return InSingleQuotes(text);
  const std::size_t backslashes = text.size() - (text.find_last_not_of('\\') + 1);
  return "\"" + text + std::string(backslashes, '\\') + "\"";  // or the last would escape the quote
}

}  // namespace

const char* KindName(TransportKind kind) { return kind == TransportKind::Usb ? "usb" : "ftdi"; }

std::string ShellWord(const std::string& text, System system) {
  if (system == System::Windows) return WindowsWord(text);
  if (!text.empty() && std::all_of(text.begin(), text.end(), IsSafe)) return text;
  if (tavo::Displayable(text) != text) return Escaped(text);
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
