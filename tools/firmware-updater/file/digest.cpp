#include "file/digest.h"

#include <openssl/evp.h>

#include <array>

#include "text/text_format.h"

namespace tavo::tool {

std::string Sha256(std::span<const std::uint8_t> bytes) {
  std::array<std::uint8_t, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  if (bytes.empty() ||
      EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1) {
    return {};
  }
  std::string text;
  for (const std::uint8_t byte : std::span(digest).first(size)) text += Format("%02x", byte);
  return text;
}

}  // namespace tavo::tool
