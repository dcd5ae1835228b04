#include "text/panels.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace tavo::tool {
namespace {

constexpr std::size_t kLetterHeight = 5;
constexpr std::size_t kLetterWidth = 5;
constexpr std::size_t kWordWidth = 4 * (kLetterWidth + 1);

struct Letter {
  char name;
  std::array<std::string_view, kLetterHeight> rows;
};
constexpr std::array kLetters{
    Letter{'P', {"#### ", "#   #", "#### ", "#    ", "#    "}},
    Letter{'A', {" ### ", "#   #", "#####", "#   #", "#   #"}},
    Letter{'S', {" ####", "#    ", " ### ", "    #", "#### "}},
    Letter{'F', {"#####", "#    ", "#### ", "#    ", "#    "}},
    Letter{'I', {" ### ", "  #  ", "  #  ", "  #  ", " ### "}},
    Letter{'L', {"#    ", "#    ", "#    ", "#    ", "#####"}},
    Letter{'T', {"#####", "  #  ", "  #  ", "  #  ", "  #  "}},
    Letter{'O', {" ### ", "#   #", "#   #", "#   #", " ### "}},
};

// A sign of a letter is about twice as high as wide, so a dot is two signs wide where there is room.
struct Layout {
  std::size_t columns = 1;    // panels beside each other
  std::size_t dotWidth = 0;   // 0: no room for letters
  std::size_t dotHeight = 0;  // in signs
};

Layout LayoutFor(std::size_t panels, std::size_t room, std::size_t rows) {
  Layout best{};
  for (std::size_t columns = 1; columns <= panels; ++columns) {
    const std::size_t lines = rows / ((panels + columns - 1) / columns);
    const std::size_t high = lines < 2 ? 0 : (lines - 2) / kLetterHeight;  // title, blank line
    const std::size_t wide = room / columns / kWordWidth;
    const std::size_t height = std::min(high, std::max<std::size_t>(wide / 2, wide > 0 ? 1 : 0));
    if (height <= best.dotHeight) continue;
    best = {columns, std::min(wide, 2 * height), height};
  }
  return best;
}

const char* GroundOf(const std::string& word) { return word == "PASS" ? kGreenGround : kRedGround; }

std::string Fitted(std::string text, std::size_t width) {
  text.resize(width, ' ');
  return text;
}

// One row of dots of the word, `width` signs long.
void AddDots(LiveLine& line, const std::string& word, std::size_t row, const Layout& layout,
             std::size_t width, bool colour) {
  std::size_t used = 0;
  const auto add = [&](char dot) {
    const bool lit = dot == '#';
    line.push_back({std::string(layout.dotWidth, lit && !colour ? '#' : ' '),
                    lit && colour ? GroundOf(word) : ""});
    used += layout.dotWidth;
  };
  for (const char name : word) {
    const auto* const letter = std::ranges::find(kLetters, name, &Letter::name);
    for (const char dot : letter->rows[row]) add(dot);
    add(' ');
  }
  line.push_back({std::string(width - used, ' ')});
}

LiveLine PlainRow(const Panel& panel) {
  LiveLine line{{panel.title}};
  if (!panel.word.empty()) {
    line.push_back({"  "});
    line.push_back({" " + panel.word + " ", GroundOf(panel.word)});
  }
  return line;
}

}  // namespace

std::vector<LiveLine> DrawPanels(const std::vector<Panel>& panels, std::size_t room,
                                 std::size_t rows, bool colour) {
  std::vector<LiveLine> lines;
  const Layout layout = LayoutFor(panels.size(), room, rows);
  if (layout.dotWidth == 0) {
    for (const Panel& panel : panels) lines.push_back(PlainRow(panel));
    return lines;
  }
  const std::size_t width = room / layout.columns;
  for (std::size_t first = 0; first < panels.size(); first += layout.columns) {
    const auto begin = panels.begin() + static_cast<std::ptrdiff_t>(first);
    const auto end =
        begin + static_cast<std::ptrdiff_t>(std::min(layout.columns, panels.size() - first));
    LiveLine& titles = lines.emplace_back();
    for (auto panel = begin; panel != end; ++panel) {
      titles.push_back({Fitted(panel->title, width - 1) + " "});
    }
    for (std::size_t row = 0; row < kLetterHeight * layout.dotHeight; ++row) {
      LiveLine& line = lines.emplace_back();
      for (auto panel = begin; panel != end; ++panel) {
        AddDots(line, panel->word, row / layout.dotHeight, layout, width, colour);
      }
    }
    lines.emplace_back();
  }
  return lines;
}

}  // namespace tavo::tool
