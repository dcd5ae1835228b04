// What the parser knows about commands and options, as plain text. The manual page and the shell
// completions are written from it, so that they can say nothing else than the parser does. Hidden
// commands and options are left out.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace tavo::tool {

// What can stand where a value is due; decides what a shell offers there.
enum class ValueKind { None, Text, File, Folder, Choice, Command };

struct OptionOutline {
  std::vector<std::string> names{};    // "-h", "--help"; the one name of an argument: "FILE"
  std::string value{};                 // "SECONDS", "{stays,advances}"; empty without a value
  ValueKind kind = ValueKind::None;    // None: a flag
  std::vector<std::string> choices{};  // of ValueKind::Choice
  std::string description{};
  std::string preset{};  // what holds without it; empty when nothing does
  bool required = false;
  bool repeatable = false;
};

struct CommandOutline {
  std::string name{};
  std::string description{};
  std::string footer{};
  std::vector<OptionOutline> options{};
  std::vector<OptionOutline> arguments{};  // in their order
  std::vector<CommandOutline> commands{};
};

CommandOutline OutlineOf(const CLI::App& app);

}  // namespace tavo::tool
