// Shared by the targets. Each starts from something good, such as firmware of a family, and reads its
// input as changes to it, so the empty input goes all the way and no corpus is needed.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <span>

#include "simulator/firmware_builder.h"

namespace tavo::fuzz {

using Input = std::span<const std::uint8_t>;

// A broken promise ends the process, which the fuzzer reports together with the input that led there.
inline void Expect(bool kept, const char* promise) {
  if (kept) return;
  std::fprintf(stderr, "broken promise: %s\n", promise);
  std::abort();
}

// Removes the first `count` bytes of the input, or what is left of it, and returns them.
inline Input Take(Input& input, std::size_t count) {
  const Input taken = input.first(std::min(count, input.size()));
  input = input.subspan(taken.size());
  return taken;
}

inline std::uint32_t TakeNumber(Input& input, std::size_t bytes) {
  std::uint32_t number = 0;
  for (const std::uint8_t byte : Take(input, bytes)) number = number << 8 | byte;
  return number;
}

// Firmware of a family with a descriptor block of any type.
inline tavosim::Firmware TakeFirmware(Input& input) {
  const std::uint32_t choice = TakeNumber(input, 1);
  const std::size_t families = tavosim::kFamilies.size();
  tavosim::FirmwareRecipe recipe = tavosim::RecipeFor(tavosim::kFamilies[choice % families]);
  recipe.size = 256;
  if (choice >= families) recipe.adbType = static_cast<std::uint8_t>(choice / families % 9);
  return tavosim::BuildFirmware(recipe);
}

// Uses up the input: in turn a place and the byte that is put there, inserted there or cuts off the rest.
template <typename Content>
void Damage(Content& content, Input input) {
  while (input.size() >= 4 && !content.empty()) {
    const std::uint32_t kind = TakeNumber(input, 1);
    const auto at =
        content.begin() + static_cast<std::ptrdiff_t>(TakeNumber(input, 2) % content.size());
    const auto value = static_cast<typename Content::value_type>(TakeNumber(input, 1));
    if (kind == 0xFF) {
      content.erase(at, content.end());
    } else if (kind % 2 != 0) {
      content.insert(at, value);
    } else {
      *at = value;
    }
  }
}

}  // namespace tavo::fuzz
