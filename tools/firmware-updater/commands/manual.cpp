#include "commands/manual.h"

#include <algorithm>
#include <array>
#include <sstream>
#include <string_view>

#include "text/exit_code.h"

namespace tavo::tool {
namespace {

struct Entry {
  std::string_view term;
  std::string_view text;
};

constexpr std::array kEnvironment{
    Entry{"NO_COLOR", "Set to anything, it keeps colours out of the output."},
    Entry{"XDG_STATE_HOME", "Folder of the logs; without it ~/.local/state."},
    Entry{"TAVO_SIMULATORS",
          "Addresses of simulated devices, IP:PORT, with commas between them. Only the libusb that "
          "finds simulated devices reads it; \"firmware-updater simulate\" prints what to set."},
};
constexpr std::array kFiles{
    Entry{"$XDG_STATE_HOME/firmware-updater/",
          "The log of updates: what the library says of every step, unless --log names another "
          "file."},
};

// `text` such that roff shows it as it stands, wherever in a line it is.
std::string Escaped(std::string_view text) {
  std::string roff;
  for (const char c : text) {
    switch (c) {
      case '\\': roff += "\\e"; break;
      case '-': roff += "\\-"; break;
      case '\'': roff += "\\(aq"; break;
      case '`': roff += "\\(ga"; break;
      case '^': roff += "\\(ha"; break;
      case '~': roff += "\\(ti"; break;
      default: roff += c;
    }
  }
  return roff.starts_with('.') ? "\\&" + roff : roff;
}

std::string Bold(const std::string& text) { return "\\fB" + Escaped(text) + "\\fR"; }
std::string Italic(const std::string& text) { return "\\fI" + Escaped(text) + "\\fR"; }

// Indented lines are examples and tables, which stay as they are; the others are running text, with
// paragraphs between empty lines.
std::string Lines(const std::string& text) {
  std::istringstream lines(text);
  std::string roff;
  std::string line;
  bool asItIs = false;
  bool begins = true;
  while (std::getline(lines, line)) {
    const bool indented = line.starts_with("  ");
    if (indented != asItIs) roff += indented ? ".nf\n" : ".fi\n";
    begins = begins || line.empty() || asItIs;
    asItIs = indented;
    if (line.empty()) continue;
    if (begins && !indented) roff += ".PP\n";
    begins = false;
    roff += Escaped(line) + "\n";
  }
  return roff + (asItIs ? ".fi\n" : "");
}

std::string Description(const OptionOutline& option) {
  const std::size_t end = std::min(option.description.find('\n'), option.description.size());
  std::string text = Escaped(option.description.substr(0, end));
  if (!option.preset.empty()) text += " (without it: " + Escaped(option.preset) + ")";
  return text + "\n" + Lines(option.description.substr(end));
}

std::string Option(const OptionOutline& option) {
  std::string roff = ".TP\n";
  for (const std::string& name : option.names)
    roff += (&name == &option.names.front() ? "" : ", ") + Bold(name);
  if (!option.value.empty()) roff += " " + Italic(option.value);
  if (option.repeatable) roff += " ...";
  return roff + "\n" + Description(option);
}

std::string Argument(const OptionOutline& argument) {
  return ".TP\n" + Italic(argument.names.front()) + "\n" + Description(argument);
}

std::string Options(const CommandOutline& command) {
  std::string roff;
  for (const OptionOutline& argument : command.arguments) roff += Argument(argument);
  for (const OptionOutline& option : command.options) roff += Option(option);
  return roff;
}

std::string Synopsis(const CommandOutline& tool, const CommandOutline& command) {
  std::string roff = Bold(tool.name + " " + command.name) + " [" + Italic("OPTION") + " ...]";
  for (const OptionOutline& argument : command.arguments) {
    std::string word = Italic(argument.names.front());
    if (argument.kind == ValueKind::Command)
      word = Bold("--") + " " + word + " [" + Italic("ARG") + " ...]";
    if (argument.repeatable) word += " ...";
    roff += argument.required ? " " + word : " [" + word + "]";
  }
  return roff + "\n";
}

std::string Command(const CommandOutline& tool, const CommandOutline& command) {
  return ".SS " + Escaped(command.name) + "\n" + Synopsis(tool, command) + ".PP\n" +
         Escaped(command.description) + "\n" + Options(command) + Lines(command.footer);
}

template <class Entries>
std::string Section(const char* title, const Entries& entries) {
  std::string roff = std::string(".SH ") + title + "\n";
  for (const Entry& entry : entries)
    roff += ".TP\n" + Bold(std::string(entry.term)) + "\n" + Escaped(entry.text) + "\n";
  return roff;
}

std::string ExitStatus() {
  std::string roff = ".SH EXIT STATUS\n";
  for (const ExitDescription& row : kExitTable)
    roff += ".TP\n" + Bold(std::to_string(static_cast<int>(row.code))) + "\n" +
            Escaped(row.meaning) + "\n";
  return roff;
}

}  // namespace

std::string ManualPage(const CommandOutline& tool, const std::string& version) {
  std::string roff = ".TH FIRMWARE\\-UPDATER 1 \"\" \"" + Escaped(version) + "\"\n";
  roff += ".SH NAME\n" + Escaped(tool.name) + " \\- " + Escaped(tool.description) + "\n";
  roff += ".SH SYNOPSIS\n";
  for (const CommandOutline& command : tool.commands)
    roff += Synopsis(tool, command) + (&command == &tool.commands.back() ? "" : ".br\n");
  roff += ".SH OPTIONS\n" + Options(tool) + ".SH COMMANDS\n";
  for (const CommandOutline& command : tool.commands) roff += Command(tool, command);
  roff += ExitStatus() + Section("ENVIRONMENT", kEnvironment) + Section("FILES", kFiles);
  return roff;
}

}  // namespace tavo::tool
