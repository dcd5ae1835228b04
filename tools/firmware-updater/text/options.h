// How a command declares its options. Behind this the parser does the work; its headers take longer
// to compile than a command does, so that only few files include them.
//
//   CommandOptions command(app, "list", "Show the connected devices");
//   command.Flag("--json", options->json, "Write one JSON document");
//   command.Value("--wait", options->seconds, "Wait this long").Shown("SECONDS").Between(0, 60);
//   command.OnRun(exit, [&machine, options] { return List(machine, *options); });
//
// The parser writes to the variables when it has seen the whole command line; they must outlive it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "text/exit_code.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace tavo::tool {

// One option or argument. Every function returns the option itself.
class Option {
 public:
  // Empty when the text is a value; else what is wrong with it, to follow the option's name.
  using Check = std::function<std::string(const std::string& text)>;

  explicit Option(CLI::Option& option) : m_option(&option) {}

  Option& Required();
  Option& Shown(const char* placeholder);  // "FILE", "SECONDS"
  Option& WithDefault();                   // the help shows what holds without it
  Option& NotEmpty();
  Option& Between(std::uint32_t least, std::uint32_t most);
  Option& Between(double least, double most);
  Option& Seconds();  // 0 to 86400, "2.5"; for SecondsOf
  Option& OneOf(std::initializer_list<const char*> words);
  Option& Checked(Check check);
  Option& Needs(const Option& other);
  Option& Needs(const char* other);
  Option& Excludes(const Option& other);
  Option& Excludes(const char* other);

 private:
  CLI::Option* m_option;
};

// The value of an option with Seconds; empty: 0.
std::chrono::milliseconds SecondsOf(const std::string& text);

class CommandOptions {
 public:
  CommandOptions(CLI::App& parent, const char* name, const char* about);

  // `name` begins with "--"; without, it is the next argument.
  Option Value(const char* name, std::string& to, const char* help);
  Option Value(const char* name, std::uint32_t& to, const char* help);
  Option Value(const char* name, double& to, const char* help);
  Option Value(const char* name, std::optional<std::string>& to, const char* help);
  Option Value(const char* name, std::optional<std::uint32_t>& to, const char* help);
  Option Values(const char* name, std::vector<std::string>& to, const char* help);  // repeatable
  // Turns `to` into `value`.
  Option Flag(const char* name, bool& to, const char* help, bool value = true);
  // "--name" stands for "--name=BARE".
  Option FlagOrValue(const char* name, const char* bare, std::string& to, const char* help);

  // A command line of the user's behind "--". The options in it are its own.
  void UserCommand(std::vector<std::string>& to, const char* help);

  // The options that the user has given, but those of these names, as words for another command.
  std::vector<std::string> Given(const std::vector<std::string_view>& except) const;

  void Footer(const std::string& text);
  // `run` is called when the user has chosen the command; `exit` gets what it returns.
  void OnRun(ExitCode& exit, std::function<ExitCode()> run);

 private:
  CLI::App& m_command;
  std::function<void()> m_takeUserCommand = [] {};
};

}  // namespace tavo::tool
