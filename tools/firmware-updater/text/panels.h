// Panels for a screen that is read from a distance: a word in block letters above or beside others.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "text/live_lines.h"

namespace tavo::tool {

struct Panel {
  std::string title;   // "usb-4-2  Writing  43 %"
  std::string word{};  // "PASS", "FAIL" or "STOP"; empty: none yet
};

// As large as they fit the window: side by side, below each other, or with the plain word where there is no
// room for letters. Without `colour` the letters are made of '#'.
std::vector<LiveLine> DrawPanels(const std::vector<Panel>& panels, std::size_t room,
                                 std::size_t rows, bool colour);

}  // namespace tavo::tool
