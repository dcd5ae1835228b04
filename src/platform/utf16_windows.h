// Texts and paths as Windows takes them.
#pragma once

#include <string>
#include <string_view>

namespace tavo {

// A host that does not use UTF-8 passes its texts in the machine's code page. Letters beyond ASCII
// practically never form valid UTF-8 there, which distinguishes the two.
std::wstring WidenText(std::string_view text);

std::string ToUtf8(std::wstring_view wide);

// The path unchanged if its absolute form is short enough. A longer one opens only in its extended
// form, unless both host and machine have enabled long paths.
std::wstring SystemPath(std::string_view path);

}  // namespace tavo
