// Reads Intel HEX text as the converter does and reports what the converter keeps to itself: where and
// why a text does not convert, and which parts of one that does are probably mistakes. The package
// report asks it for every HEX file. It changes nothing and prints nothing.
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
  HexResult result = HexResult::FormatError;  // the converter's result
  std::size_t line = 0;                       // both count from 1, columns in bytes
  std::size_t column = 0;
  std::string text{};  // the fault
};

struct HexSurvey {
  std::optional<HexFault> fault{};      // the first one, which ends the survey
  bool isCutOff = false;                // it lacks the end record
  std::vector<std::string> warnings{};  // at most kMaxHexWarnings and one that counts the rest
};

inline constexpr std::size_t kMaxHexWarnings = 8;

HexSurvey SurveyHex(std::span<const std::uint8_t> text);

}  // namespace tavo::tool
