#include "app.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <memory>
#include <numeric>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "commands/completion.h"
#include "text/text_format.h"

namespace tavo::tool {
namespace {

constexpr const char* kName = "firmware-updater";
constexpr const char* kAbout = "Updates the firmware of control modules on the Tavo bus.";
constexpr std::string_view kComplete = "complete";  // for the shells, not for people
constexpr const char* kVersion = "firmware-updater " TAVO_VERSION;
constexpr const char* kExamples =
    "\nExamples:\n"
    "  firmware-updater list\n"
    "  firmware-updater inspect firmware.hex\n"
    "  firmware-updater update firmware.hex\n"
    "  firmware-updater update firmware.hex --ftdi TAVO0001 --baud 115200\n"
    "  firmware-updater simulate -- firmware-updater list\n";

std::string Footer() {
  std::string footer = kExamples;
  footer += "\nExit codes:\n";
  for (const ExitDescription& row : kExitTable) {
    footer += "  " + std::to_string(static_cast<int>(row.code)) + "  ";
    footer += std::string(row.meaning) + "\n";
  }
  return footer + "\nOptions of a command: firmware-updater COMMAND --help";
}

// The word that stands for a value: "FILE"; "{a,b}" where there is a choice.
std::string ValueName(const std::string& type) {
  const std::size_t choices = type.find('{');
  if (choices != std::string::npos) return type.substr(choices);
  const std::string name = type.substr(0, type.find(':'));
  return name == "INT" || name == "UINT" || name == "FLOAT" ? "N" : name;
}

// The parser's own puts types, checks and other options between an option and its description.
class HelpFormat : public CLI::Formatter {
  static constexpr std::size_t kLeastDescription = 20;

 public:
  explicit HelpFormat(const Machine& machine) : m_machine(machine) {}

  // A value that may be left out: "--name[=VALUE]" instead of "--name{default}".
  std::string make_option_name(const CLI::Option* option, bool isPositional) const override {
    const std::string name = CLI::Formatter::make_option_name(option, isPositional);
    const std::size_t bare = name.find('{');
    if (bare == std::string::npos) return name;
    return name.substr(0, bare) + "[=" + ValueName(option->get_type_name()) + "]";
  }
  std::string make_option_opts(const CLI::Option* option) const override {
    const bool hasValue = option->get_items_expected_max() > 0 && !option->get_positional();
    const std::string value = hasValue ? ValueName(option->get_type_name()) : "";
    return (value.empty() ? "" : " " + value) +
           (option->get_items_expected_max() > 1 ? " ..." : "");
  }
  std::string make_option_desc(const CLI::Option* option) const override {
    std::string text = option->get_description();
    if (option->get_required() && !option->get_positional()) text += " (required)";
    for (const CLI::Option* other : option->get_needs())
      text += " (with " + other->get_name() + ")";
    if (!option->get_default_str().empty()) text += " [" + option->get_default_str() + "]";
    const auto room = static_cast<std::size_t>(std::max(m_machine.width(), 1));
    const std::size_t column = get_column_width();
    const bool breaks = m_machine.terminal && room >= column + kLeastDescription;
    return breaks ? Wrapped(text, room - column) : text;
  }

 private:
  const Machine& m_machine;
};

// The innermost command that the arguments have named; the app itself when they named none.
const CLI::App& Chosen(const CLI::App& app) {
  const std::vector<CLI::App*> commands = app.get_subcommands();
  return commands.empty() ? app : Chosen(*commands.front());
}

// The words that the parser could not use, in the order of the command line.
std::vector<std::string> LeftOver(const CLI::App& app) {
  std::vector<std::string> words = app.remaining(true);
  std::erase(words, "--");
  return words;
}

// The parser's own text, except where it speaks of types and counts.
std::string Plain(const CLI::ParseError& error) {
  const std::string text = error.what();
  const std::string name = text.substr(0, text.find(':'));
  if (text.ends_with(" missing")) return name + " needs a value";
  if (text.find(": At Most 1 required") != std::string::npos)
    return name + " can be given only once";
  return text;
}

// The number of letters to add, drop or exchange to turn one word into the other.
std::size_t Distance(std::string_view one, std::string_view other) {
  std::vector<std::size_t> row(other.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < one.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < other.size(); ++j) {
      const std::size_t exchanged = diagonal + (one[i] == other[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({exchanged, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

std::string Suggestion(const CLI::App& app, const std::string& word) {
  constexpr std::size_t kMostTypos = 2;
  const auto commands = app.get_subcommands([](const CLI::App*) { return true; });
  const auto distance = [&](const CLI::App* command) {
    return Distance(command->get_name(), word);
  };
  const auto nearest = std::ranges::min_element(commands, {}, distance);
  if (nearest == commands.end() || distance(*nearest) > kMostTypos) return {};
  return "; did you mean \"" + (*nearest)->get_name() + "\"?";
}

std::string Complaint(const CLI::App& app, const CLI::ParseError& error) {
  const std::vector<std::string> words = LeftOver(app);
  if (words.empty()) return Plain(error);
  const std::string& word = words.front();
  const bool inFront = &Chosen(app) != &app && !app.remaining().empty();
  if (word.starts_with('-')) {
    return "unknown option \"" + word + "\"" + (inFront ? " before the command" : "");
  }
  if (&Chosen(app) == &app) return "unknown command \"" + word + "\"" + Suggestion(app, word);
  return "unexpected argument \"" + word + "\"";
}

std::string HelpHint(const CLI::App& app) {
  const CLI::App& chosen = Chosen(app);
  return std::string(kName) + " " + (&chosen == &app ? "" : chosen.get_name() + " ") + "--help";
}

ExitCode EndParsing(const CLI::App& app, const CLI::ParseError& error, const Machine& machine) {
  if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {  // --help, --version
    app.exit(error, machine.out, machine.err);
    return ExitCode::Done;
  }
  Complain(machine, Complaint(app, error), HelpHint(app));
  return ExitCode::Usage;
}

ExitCode Run(int argc, const char* const* argv, const Machine& machine) {
  CLI::App app{kAbout, kName};
  ExitCode exit = ExitCode::Usage;
  AddEverything(app, machine, exit);
  if (argc < 2) {
    machine.err << app.help();
    return ExitCode::Usage;
  }
  if (argv[1] == kComplete) {
    Complete(app, std::vector<std::string>(argv + 2, argv + argc), machine);
    return ExitCode::Done;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return EndParsing(app, error, machine);
  }
  return exit;
}

// Lost output counts as failure. An update has checked this itself, because it knows the device.
ExitCode WithOutput(ExitCode exit, const Machine& machine) {
  machine.out.flush();
  if (machine.out || exit != ExitCode::Done) return exit;
  Complain(machine, "standard output cannot be written; the output was lost",
           "check the disk, or the program that reads the output, then run the command again");
  return ExitCode::EvidenceLost;
}

}  // namespace

void AddEverything(CLI::App& app, const Machine& machine, ExitCode& exit) {
  const auto format = std::make_shared<HelpFormat>(machine);
  format->label("Positionals", "Arguments");
  format->label("SUBCOMMAND", "COMMAND");
  app.formatter(format);
  app.set_version_flag("--version", kVersion, "Print the version and exit");
  app.require_subcommand(1);
  app.allow_windows_style_options(false);  // a path may begin with a slash there too
  app.footer(Footer());
  AddListCommand(app, machine, exit);
  AddDoctorCommand(app, machine, exit);
  AddInfoCommand(app, machine, exit);
  AddCheckDeviceCommand(app, machine, exit);
  AddUpdateCommand(app, machine, exit);
  AddStationCommand(app, machine, exit);
  AddRecoverCommand(app, machine, exit);
  AddHistoryCommand(app, machine, exit);
  AddInspectCommand(app, machine, exit);
  AddPackCommand(app, machine, exit);
  AddReplayCommand(app, machine, exit);
  AddSimulateCommand(app, machine, exit);
  AddServeCommand(app, machine, exit);
}

int RunTool(int argc, const char* const* argv, const Machine& machine) {
  try {
    return static_cast<int>(WithOutput(Run(argc, argv, machine), machine));
  } catch (const Refusal& refusal) {
    return static_cast<int>(Complain(machine, refusal));
  } catch (const std::exception& error) {
    // A defect of the tool, or no memory left: how far the command came is not known here.
    Machine simplest = machine;
    simplest.terminal = false;  // the defect may be in the layout of lines
    Complain(simplest, std::string("unexpected: ") + error.what(), {});
    return static_cast<int>(ExitCode::FailedUnknown);
  }
}

}  // namespace tavo::tool
