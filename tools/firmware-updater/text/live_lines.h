// The last lines on a terminal, which are redrawn in place while those above them scroll.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "text/machine.h"

namespace tavo::tool {

inline constexpr const char* kGreen = "\x1B[32m";
inline constexpr const char* kRed = "\x1B[31m";
inline constexpr const char* kGreenGround = "\x1B[42m";
inline constexpr const char* kRedGround = "\x1B[41m";

std::string Coloured(const Machine& machine, const char* colour, const std::string& text);

// Printable ASCII, in one colour.
struct Span {
  std::string text;
  const char* colour = "";
};
using LiveLine = std::vector<Span>;

class LiveLines {
 public:
  explicit LiveLines(const Machine& machine) : m_machine(machine) {}

  // In place of the lines that are shown. Lines below the window and characters beside it are cut off.
  void Show(const std::vector<LiveLine>& lines);
  void Erase();
  // The text takes their place and stays.
  void Say(const std::string& text);

  // Characters that fit a line: one that reached the edge would wrap, and its rest would stay.
  std::size_t Room() const;
  // Lines that fit the window.
  std::size_t Rows() const;

 private:
  std::string Erasing() const;

  const Machine& m_machine;
  std::vector<std::size_t> m_drawn;  // characters of each line shown
};

}  // namespace tavo::tool
