#include "file/digest.h"

#include <openssl/evp.h>

#include <array>
#include <cstdint>
#include <memory>

#include "platform/file.h"

namespace tavo::tool {
namespace {

struct FreeContext {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

std::string Hexadecimal(const std::uint8_t* bytes, std::size_t count) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < count; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 0xF];
  }
  return text;
}

}  // namespace

std::string Sha256OfFile(const std::string& path) {
  const FileHandle file = OpenForReading(path);
  const std::unique_ptr<EVP_MD_CTX, FreeContext> context(EVP_MD_CTX_new());
  if (!file || !context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) return {};
  std::array<std::uint8_t, 64 * 1024> chunk;
  while (const std::size_t count = std::fread(chunk.data(), 1, chunk.size(), file.get())) {
    if (EVP_DigestUpdate(context.get(), chunk.data(), count) != 1) return {};
  }
  std::array<std::uint8_t, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  const bool done =
      std::ferror(file.get()) == 0 && EVP_DigestFinal_ex(context.get(), digest.data(), &size) == 1;
  return done ? Hexadecimal(digest.data(), size) : std::string();
}

}  // namespace tavo::tool
