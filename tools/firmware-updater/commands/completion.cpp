#include "commands/completion.h"

#include <algorithm>

namespace tavo::tool {
namespace {

using Words = std::vector<std::string>;

std::string Joined(const Words& words, const char* between) {
  std::string text;
  for (const std::string& word : words) text += (&word == &words.front() ? "" : between) + word;
  return text;
}

std::string Replaced(std::string text, const std::string& what, const std::string& by) {
  for (std::size_t at = text.find(what); at != std::string::npos;
       at = text.find(what, at + by.size()))
    text.replace(at, what.size(), by);
  return text;
}

std::string Quoted(const std::string& text) { return "'" + Replaced(text, "'", "'\\''") + "'"; }

Words CommandNames(const CommandOutline& tool) {
  Words names;
  for (const CommandOutline& command : tool.commands) names.push_back(command.name);
  return names;
}

Words OptionNames(const CommandOutline& command) {
  Words names;
  for (const OptionOutline& option : command.options)
    names.insert(names.end(), option.names.begin(), option.names.end());
  return names;
}

constexpr const char* kBashHead =
    R"(# Completion for bash, written by "firmware-updater generate bash".
_firmware_updater() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local command='' kind='' words='' options='' i
  COMPREPLY=()
  # To bash, --option=value is three words.
  if [[ $current == '=' ]]; then
    current=''
  elif [[ $previous == '=' ]]; then
    previous=${COMP_WORDS[COMP_CWORD - 2]}
  fi
  for ((i = 1; i < COMP_CWORD; i++)); do
    case "$command ${COMP_WORDS[i]}" in
)";

constexpr const char* kBashTail = R"(    esac
    if [[ $current == -* ]]; then kind=words words=$options; fi
  fi
  case $kind in
    file) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
    folder) mapfile -t COMPREPLY < <(compgen -d -- "$current") ;;
    command) mapfile -t COMPREPLY < <(compgen -c -- "$current") ;;
    words) mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current") ;;
  esac
  if [[ $kind == file || $kind == folder ]]; then
    compopt -o filenames 2>/dev/null  # outside of a completion there is nothing to set it for
  fi
}

complete -F _firmware_updater firmware-updater
)";

std::string BashValue(const OptionOutline& option) {
  switch (option.kind) {
    case ValueKind::File: return "kind=file";
    case ValueKind::Folder: return "kind=folder";
    case ValueKind::Command: return "kind=command";
    case ValueKind::Choice: return "kind=words words=" + Quoted(Joined(option.choices, " "));
    case ValueKind::None:
    case ValueKind::Text: break;  // nothing that a shell could know
  }
  return "kind=text";
}

// When the word in front is an option with a value, that value is due.
std::string BashOptionValues(const CommandOutline& command) {
  std::string script;
  for (const OptionOutline& option : command.options) {
    if (option.kind == ValueKind::None) continue;
    Words patterns;
    for (const std::string& name : option.names)
      patterns.push_back(Quoted(command.name + " " + name));
    script += "      " + Joined(patterns, " | ") + ") " + BashValue(option) + " ;;\n";
  }
  return script;
}

bool RunsCommand(const CommandOutline& command) {
  return !command.arguments.empty() && command.arguments.front().kind == ValueKind::Command;
}

// What is due otherwise: the argument, or an option where there is none.
std::string BashWords(const CommandOutline& command) {
  std::string script =
      "      " + command.name + ") options=" +
      Quoted(Joined(OptionNames(command), " ") + (RunsCommand(command) ? " --" : ""));
  if (command.arguments.empty() || RunsCommand(command))
    return script + " kind=words words=$options ;;\n";
  return script + " " + BashValue(command.arguments.front()) + " ;;\n";
}

std::string BashCommandSearch(const CommandOutline& tool) {
  Words patterns;
  std::string script;
  for (const CommandOutline& command : tool.commands) {
    patterns.push_back("' " + command.name + "'");
    if (!RunsCommand(command)) continue;
    script +=
        "      '" + command.name + " --')\n        kind=file\n" +
        "        if ((i == COMP_CWORD - 1)); then kind=command; fi\n        break\n        ;;\n";
  }
  return "      " + Joined(patterns, " | ") + ") command=${COMP_WORDS[i]} ;;\n" + script;
}

// The first line of `text`, as it has to stand in what _arguments is told.
std::string ZshText(std::string text) {
  text = text.substr(0, text.find('\n'));
  for (const char* const special : {"\\", "[", "]", ":"})
    text = Replaced(text, special, std::string("\\") + special);
  return text;
}

std::string ZshAction(const OptionOutline& option) {
  switch (option.kind) {
    case ValueKind::File: return "_files";
    case ValueKind::Folder: return "_files -/";
    case ValueKind::Command: return "_command_names -e";
    case ValueKind::Choice: return "(" + Joined(option.choices, " ") + ")";
    case ValueKind::None:
    case ValueKind::Text: break;
  }
  return " ";  // a value that nothing is known of
}

std::string ZshOption(const OptionOutline& option, const std::string& name) {
  const std::string others = "(" + Joined(option.names, " ") + ")";
  const bool isLong = name.starts_with("--");
  std::string rule = (option.repeatable ? "*" : others) + name;
  if (option.kind == ValueKind::None) return rule + "[" + ZshText(option.description) + "]";
  rule += std::string(isLong ? "=" : "") + "[" + ZshText(option.description) + "]";
  return rule + ":" + ZshText(option.choices.empty() ? option.value : "value") + ":" +
         ZshAction(option);
}

std::string ZshArgument(const OptionOutline& argument) {
  return (argument.repeatable ? "*:" : ":") + ZshText(argument.names.front()) + ":" +
         ZshAction(argument);
}

Words ZshRules(const CommandOutline& command) {
  Words rules;
  for (const OptionOutline& option : command.options)
    for (const std::string& name : option.names) rules.push_back(Quoted(ZshOption(option, name)));
  for (const OptionOutline& argument : command.arguments)
    rules.push_back(Quoted(ZshArgument(argument)));
  return rules;
}

// Behind "--" a command of the user's is completed as if it stood alone.
constexpr const char* kZshUserCommand = R"(        local -i dashes=${words[(i)--]}
        if (( dashes < CURRENT )); then
          shift $dashes words
          (( CURRENT -= dashes ))
          _normal
          return
        fi
)";

std::string ZshArguments(const Words& rules, const std::string& indent) {
  const std::string between = " \\\n" + indent + "  ";
  return indent + "_arguments" + between + Joined(rules, between.c_str()) + "\n";
}

std::string ZshCommand(const CommandOutline& command) {
  return "      " + command.name + ")\n" + (RunsCommand(command) ? kZshUserCommand : "") +
         ZshArguments(ZshRules(command), "        ") + "        ;;\n";
}

std::string ZshCommandList(const CommandOutline& tool) {
  std::string script = "local -a commands=(\n";
  for (const CommandOutline& command : tool.commands)
    script += "  " + Quoted(command.name + ":" + command.description) + "\n";
  return script + ")\n";
}

}  // namespace

std::string BashCompletion(const CommandOutline& tool) {
  std::string script = kBashHead + BashCommandSearch(tool);
  script += "    esac\n  done\n  if [[ -z $kind ]]; then\n    case \"$command $previous\" in\n";
  for (const CommandOutline& command : tool.commands) script += BashOptionValues(command);
  script += "    esac\n  fi\n  if [[ -z $kind ]]; then\n    case $command in\n";
  script += "      '') options=" + Quoted(Joined(OptionNames(tool), " ")) +
            " kind=words words=" + Quoted(Joined(CommandNames(tool), " ")) + " ;;\n";
  for (const CommandOutline& command : tool.commands) script += BashWords(command);
  return script + kBashTail;
}

std::string ZshCompletion(const CommandOutline& tool) {
  Words rules = ZshRules(tool);
  rules.insert(rules.begin(), "-C");
  rules.insert(rules.end(), {"'1:command:->command'", "'*::argument:->argument'"});
  std::string script =
      "#compdef firmware-updater\n"
      "# Completion for zsh, written by \"firmware-updater generate zsh\".\n"
      "local context state state_descr line\ntypeset -A opt_args\n";
  script += ZshCommandList(tool) + ZshArguments(rules, "");
  script +=
      "case $state in\n  command) _describe -t commands command commands ;;\n"
      "  argument)\n    case $words[1] in\n";
  for (const CommandOutline& command : tool.commands) script += ZshCommand(command);
  return script + "    esac\n    ;;\nesac\n";
}

}  // namespace tavo::tool
