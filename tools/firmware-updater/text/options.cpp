#include "text/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <memory>
#include <utility>

namespace tavo::tool {
namespace {

constexpr double kMostSeconds = 24 * 60 * 60;

// Not a number for any other text.
double Number(const std::string& text) {
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool isNumber = error == std::errc() && end == text.data() + text.size();
  return isNumber ? number : std::numeric_limits<double>::quiet_NaN();
}

}  // namespace

Option& Option::Required() { return m_option->required(), *this; }

Option& Option::Shown(const char* placeholder) { return m_option->type_name(placeholder), *this; }

Option& Option::WithDefault() { return m_option->capture_default_str(), *this; }

Option& Option::NotEmpty() {
  return Checked([](const std::string& text) { return text.empty() ? "is empty" : ""; });
}

Option& Option::Between(std::uint32_t least, std::uint32_t most) {
  return m_option->check(CLI::Range(least, most)), *this;
}

Option& Option::Between(double least, double most) {
  return m_option->check(CLI::Range(least, most)), *this;
}

Option& Option::Seconds() {
  return Shown("SECONDS").Checked([](const std::string& text) {
    const double seconds = Number(text);
    // A value that is not a number is out of range.
    return seconds >= 0 && seconds <= kMostSeconds ? "" : "takes 0 to 86400 seconds, not " + text;
  });
}

std::chrono::milliseconds SecondsOf(const std::string& text) {
  const std::chrono::duration<double> seconds(text.empty() ? 0 : Number(text));
  return std::chrono::duration_cast<std::chrono::milliseconds>(seconds);
}

Option& Option::OneOf(std::initializer_list<const char*> words) {
  return m_option->check(CLI::IsMember(std::vector<std::string>(words.begin(), words.end()))),
         *this;
}

Option& Option::Checked(Check check) {
  const auto validate = [check = std::move(check)](std::string& text) { return check(text); };
  return m_option->check(CLI::Validator(validate, "")), *this;
}

Option& Option::Needs(const Option& other) { return m_option->needs(other.m_option), *this; }

Option& Option::Needs(const char* other) { return m_option->needs(other), *this; }

Option& Option::Excludes(const Option& other) { return m_option->excludes(other.m_option), *this; }

Option& Option::Excludes(const char* other) { return m_option->excludes(other), *this; }

CommandOptions::CommandOptions(CLI::App& parent, const char* name, const char* about)
    : m_command(*parent.add_subcommand(name, about)) {}

Option CommandOptions::Value(const char* name, std::string& to, const char* help) {
  return Option(*m_command.add_option(name, to, help));
}

Option CommandOptions::Value(const char* name, std::uint32_t& to, const char* help) {
  return Option(*m_command.add_option(name, to, help));
}

Option CommandOptions::Value(const char* name, double& to, const char* help) {
  return Option(*m_command.add_option(name, to, help));
}

Option CommandOptions::Value(const char* name, std::optional<std::string>& to, const char* help) {
  return Option(*m_command.add_option(name, to, help));
}

Option CommandOptions::Value(const char* name, std::optional<std::uint32_t>& to, const char* help) {
  return Option(*m_command.add_option(name, to, help));
}

Option CommandOptions::Values(const char* name, std::vector<std::string>& to, const char* help) {
  return Option(*m_command.add_option(name, to, help)->allow_extra_args(false));
}

Option CommandOptions::Flag(const char* name, bool& to, const char* help, bool value) {
  return Option(*m_command.add_flag_callback(
      name, [&to, value] { to = value; }, help));
}

Option CommandOptions::FlagOrValue(const char* name, const char* bare, std::string& to,
                                   const char* help) {
  return Option(*m_command.add_flag(std::string(name) + "{" + bare + "}", to, help));
}

void CommandOptions::UserCommand(std::vector<std::string>& to, const char* help) {
  const auto program = std::make_shared<std::string>();
  m_command.add_option("COMMAND", *program, help)->type_name("")->default_str("");
  // The parser lets unknown options pass, as they may be the user command's; those in front of the
  // "--" are nobody's.
  m_command.allow_extras();
  m_takeUserCommand = [&command = m_command, &to, program] {
    std::vector<std::string> words = command.remaining();
    if (!words.empty() && words.front() != "--") throw CLI::ExtrasError(command.get_name(), words);
    if (program->empty()) return;
    if (!words.empty()) words.erase(words.begin());
    to = std::move(words);
    to.insert(to.begin(), *program);
  };
}

std::vector<std::string> CommandOptions::Given(const std::vector<std::string_view>& except) const {
  constexpr const char* kPlainFlag = "true";
  std::vector<std::string> words;
  for (const CLI::Option* const option : m_command.get_options()) {
    const std::string name = option->get_name();
    const bool isFlag = option->get_items_expected_max() == 0;
    if (!name.starts_with("--") || std::ranges::count(except, name) > 0) continue;
    for (const std::string& value : option->results()) {
      words.push_back(isFlag && value != kPlainFlag ? name + "=" + value : name);
      if (!isFlag) words.push_back(value);
    }
  }
  return words;
}

void CommandOptions::Footer(const std::string& text) { m_command.footer(text); }

void CommandOptions::OnRun(ExitCode& exit, std::function<ExitCode()> run) {
  m_command.callback([&exit, take = m_takeUserCommand, run = std::move(run)] {
    take();
    exit = run();
  });
}

}  // namespace tavo::tool
