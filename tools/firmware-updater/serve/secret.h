// Secrets that another program on this machine cannot guess.
#pragma once

#include <random>
#include <string>
#include <string_view>

#include "text/text_format.h"

namespace tavo::tool {

// 128 random bits in hexadecimal digits. The source is the system's generator.
inline std::string MakeSecret() {
  std::random_device bits;
  std::string secret;
  for (int i = 0; i < 4; ++i) secret += Format("%08x", static_cast<unsigned>(bits()));
  return secret;
}

// Takes the same time wherever the first difference is.
inline bool AreEqual(std::string_view one, std::string_view other) {
  if (one.size() != other.size()) return false;
  int difference = 0;
  for (std::size_t i = 0; i < one.size(); ++i) difference |= one[i] ^ other[i];
  return difference == 0;
}

}  // namespace tavo::tool
