#include "log/displayable.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace tavo {
namespace {

// One row for each length of a character in UTF-8.
struct Form {
  unsigned char mask;  // of the fixed bits in the first byte
  unsigned char lead;  // their value
  std::size_t length;
  char32_t smallest;  // a smaller character has a shorter form
};
constexpr std::array kForms{Form{0x80, 0x00, 1, 0}, Form{0xE0, 0xC0, 2, 0x80},
                            Form{0xF0, 0xE0, 3, 0x800}, Form{0xF8, 0xF0, 4, 0x10000}};

struct Range {
  char32_t first;
  char32_t last;
};
constexpr std::array kHidden{
    Range{0x00, 0x1F},          // C0
    Range{0x7F, 0x9F},          // DEL, C1
    Range{0x061C, 0x061C},      // Arabic letter mark
    Range{0x200E, 0x200F},      // left-to-right and right-to-left mark
    Range{0x2028, 0x202E},      // separators of lines and paragraphs; embeddings and overrides
    Range{0x2066, 0x2069},      // isolates
    Range{0xD800, 0xDFFF},      // halves of UTF-16 pairs
    Range{0x110000, 0x1FFFFF},  // beyond Unicode
};

// Bytes of the first character if it may be shown, otherwise 0.
std::size_t ShownLength(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  const auto form = std::ranges::find_if(
      kForms, [first](const Form& row) { return (first & row.mask) == row.lead; });
  if (form == kForms.end() || form->length > text.size()) return 0;
  char32_t character = first & static_cast<unsigned char>(~form->mask);
  for (const char c : text.substr(1, form->length - 1)) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte & 0xC0) != 0x80) return 0;
    character = character << 6 | (byte & 0x3F);
  }
  const bool hidden = std::ranges::any_of(kHidden, [character](const Range& range) {
    return range.first <= character && character <= range.last;
  });
  return hidden || character < form->smallest ? 0 : form->length;
}

}  // namespace

std::string Displayable(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    const std::size_t length = ShownLength(text);
    shown += length == 0 ? "?" : text.substr(0, length);
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return shown;
}

}  // namespace tavo
