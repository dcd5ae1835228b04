// Reads Intel HEX text as the converter does, and tells what the converter keeps to itself: where and
// why a text does not convert, and what in one that does is likely not what its author meant. The
// package report asks it for every HEX file. It changes nothing and prints nothing.
//
//   const HexSurvey survey = SurveyHex(text);
//   if (survey.fault) ... survey.fault->line, survey.fault->column, survey.fault->text
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "package/intel_hex_converter.h"

namespace tavo::tool {

struct HexFault {
  HexResult result = HexResult::FormatError;  // what the converter says to the text
  std::size_t line = 0;                       // both count from 1, columns in bytes
  std::size_t column = 0;
  std::string text{};  // what is wrong there
};

struct HexSurvey {
  std::optional<HexFault> fault{};      // the first one: nothing behind it is looked at
  std::vector<std::string> warnings{};  // at most kMaxHexWarnings, and one that counts the others
};

inline constexpr std::size_t kMaxHexWarnings = 8;

HexSurvey SurveyHex(std::span<const std::uint8_t> text);

}  // namespace tavo::tool
