#include "device/target.h"

#include <algorithm>
#include <string_view>

#include "log/displayable.h"
#include "text/text_format.h"

namespace tavo::tool {
namespace {

constexpr std::string_view kSafeSigns = "-_./:=@%+,";

bool IsSafe(char c) {
  const bool alphanumeric =
      (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
  return alphanumeric || kSafeSigns.find(c) != std::string_view::npos;
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
