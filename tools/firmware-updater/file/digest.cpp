#include "file/digest.h"

#include "system/system.h"
#include "text/text_format.h"

namespace tavo::tool {

std::string Sha256(std::span<const std::uint8_t> bytes) {
  const auto digest = bytes.empty() ? std::nullopt : Sha256Of(bytes);
  std::string text;
  if (!digest) return text;
  for (const std::uint8_t byte : *digest) text += Format("%02x", byte);
  return text;
}

}  // namespace tavo::tool
