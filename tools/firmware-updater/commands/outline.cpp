#include "commands/outline.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace tavo::tool {
namespace {

// The parser says "TEXT:{a,b}" or "SECONDS:FLOAT in [0 - 60]": what the value is, then what checks
// it. The check tells a reader more than the name of a type does.
std::string ValueOf(const std::string& type) {
  constexpr std::array<std::string_view, 4> kPlain{"TEXT", "INT", "UINT", "FLOAT"};
  const std::size_t colon = std::min(type.find(':'), type.size());
  const std::string name = type.substr(0, colon);
  const bool plain = std::ranges::find(kPlain, name) != kPlain.end();
  return plain && colon < type.size() ? type.substr(colon + 1) : name;
}

std::vector<std::string> ChoicesOf(const std::string& type) {
  const std::size_t begin = type.find('{');
  if (begin == std::string::npos || !type.ends_with('}')) return {};
  return CLI::detail::split(type.substr(begin + 1, type.size() - begin - 2), ',');
}

ValueKind KindOf(const std::string& type, const std::string& name) {
  const auto mention = [&](const char* word) {
    return type.find(word) != std::string::npos || name.find(word) != std::string::npos;
  };
  if (!ChoicesOf(type).empty()) return ValueKind::Choice;
  if (mention("COMMAND")) return ValueKind::Command;
  if (mention("FILE") || mention("PATH")) return ValueKind::File;
  return mention("DIR") ? ValueKind::Folder : ValueKind::Text;
}

std::vector<std::string> NamesOf(const CLI::Option& option) {
  if (option.get_positional()) return {option.get_name(true)};
  std::vector<std::string> names;
  for (const std::string& name : option.get_snames()) names.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) names.push_back("--" + name);
  return names;
}

OptionOutline OutlineOf(const CLI::Option& option) {
  OptionOutline outline{.names = NamesOf(option), .description = option.get_description()};
  outline.required = option.get_required();
  outline.repeatable = option.get_items_expected_max() > 1;
  if (option.get_items_expected_max() == 0) return outline;
  const std::string type = option.get_type_name();
  outline.value = ValueOf(type);
  outline.choices = ChoicesOf(type);
  outline.kind = KindOf(type, outline.names.front());
  outline.preset = option.get_default_str();
  return outline;
}

}  // namespace

CommandOutline OutlineOf(const CLI::App& app) {
  CommandOutline outline{app.get_name(), app.get_description(), app.get_footer()};
  const auto isOption = [](const CLI::Option* option) { return !option->get_group().empty(); };
  for (const CLI::Option* option : app.get_options(isOption)) {
    auto& list = option->get_positional() ? outline.arguments : outline.options;
    list.push_back(OutlineOf(*option));
  }
  const auto isCommand = [](const CLI::App* command) { return !command->get_group().empty(); };
  for (const CLI::App* command : app.get_subcommands(isCommand))
    outline.commands.push_back(OutlineOf(*command));
  return outline;
}

}  // namespace tavo::tool
