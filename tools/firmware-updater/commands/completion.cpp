#include "commands/completion.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <ostream>
#include <string_view>

#include "device/device_survey.h"
#include "system/system.h"
#include "text/text_format.h"

namespace tavo::tool {
namespace {

using Words = std::span<const std::string>;

class Completion {
 public:
  Completion(const CLI::App& app, std::string prefix, const Machine& machine)
      : m_command(&app), m_prefix(std::move(prefix)), m_machine(machine), m_out(machine.out) {}

  void Pass(const std::string& word) {
    if (m_due != nullptr) {
      if (word != "=") m_due = nullptr;  // to bash, --option=value is three words
    } else if (word.starts_with('-')) {
      const CLI::Option* const option = m_command->get_option_no_throw(word);
      if (option != nullptr && option->get_items_expected_max() > 0) m_due = option;
    } else if (const CLI::App* const command = CommandCalled(word)) {
      m_command = command;
    } else {
      ++m_arguments;
    }
  }

  void OfferWhatFits() {
    const std::size_t equals = m_prefix.find('=');
    if (m_due != nullptr && m_prefix == "=") m_prefix.clear();
    if (m_due == nullptr && m_prefix.starts_with("--") && equals != std::string::npos) {
      m_due = m_command->get_option_no_throw(m_prefix.substr(0, equals));
      m_prefix.erase(0, equals + 1);
      if (m_due == nullptr) return;
    }
    if (m_due != nullptr) {
      OfferValue(*m_due);
    } else if (m_prefix.starts_with('-')) {
      OfferOptions();
    } else {
      OfferCommands();
      OfferArgument();
    }
  }

 private:
  static bool IsVisible(const CLI::App* command) { return !command->get_group().empty(); }

  const CLI::App* CommandCalled(const std::string& name) const {
    const auto commands = m_command->get_subcommands(IsVisible);
    const auto found = std::ranges::find(commands, name, &CLI::App::get_name);
    return found == commands.end() ? nullptr : *found;
  }

  void Offer(const std::string& word, const std::string& description = {}) const {
    if (!word.starts_with(m_prefix)) return;
    m_out << word;
    if (!description.empty()) m_out << '\t' << description.substr(0, description.find('\n'));
    m_out << '\n';
  }

  void OfferCommands() const {
    for (const CLI::App* command : m_command->get_subcommands(IsVisible))
      Offer(command->get_name(), command->get_description());
  }

  void OfferOptions() const {
    for (const CLI::Option* option : m_command->get_options()) {
      if (option->get_group().empty()) continue;
      for (const std::string& name : option->get_lnames())
        Offer("--" + name, option->get_description());
    }
    if (m_command->get_option_no_throw("COMMAND") != nullptr) Offer("--", "run a command");
  }

  void OfferArgument() const {
    const auto arguments =
        m_command->get_options([](const CLI::Option* option) { return option->get_positional(); });
    if (m_arguments < arguments.size()) OfferValue(*arguments[m_arguments]);
  }

  // The parser describes a value as "FILE", or as "TEXT:{a,b}" where it knows them all.
  void OfferValue(const CLI::Option& option) const {
    const std::string type = option.get_name() + " " + option.get_type_name();
    const auto mentions = [&](const char* word) { return type.find(word) != std::string::npos; };
    const std::size_t choices = type.find('{');
    if (option.check_lname("usb")) return OfferDevices(TransportKind::Usb);
    if (option.check_lname("ftdi")) return OfferDevices(TransportKind::Ftdi);
    if (choices != std::string::npos) {
      const std::string list = type.substr(choices + 1, type.find('}') - choices - 1);
      for (const std::string& choice : CLI::detail::split(list, ',')) Offer(choice);
    } else if (mentions("FILE")) {
      m_out << ":files\n";
    } else if (mentions("DIR")) {
      m_out << ":folders\n";
    }
  }

  // None is opened, because an update may be about to. An address that the shell could not show as it is
  // cannot be picked from a list.
  void OfferDevices(TransportKind kind) const {
    const auto none = [](const FoundDevice&) { return false; };
    for (const FoundDevice& device : SurveyDevices(m_machine, nullptr, none)) {
      const bool fits = device.kind == kind && !device.address.empty();
      if (fits && Displayable(device.address) == device.address) {
        Offer(device.address, device.description);
      }
    }
  }

  const CLI::App* m_command;
  const CLI::Option* m_due = nullptr;  // the option whose value comes next
  std::size_t m_arguments = 0;         // of the command, passed so far
  std::string m_prefix;
  const Machine& m_machine;
  std::ostream& m_out;
};

// Behind "--" stands a command of the user's; the tool itself is completed there as well.
void CompleteUserCommand(const CLI::App& app, Words words, const Machine& machine) {
  if (words.size() == 1) {
    machine.out << ":commands\n";
  } else if (PathOf(words.front()).stem() == app.get_name()) {
    Complete(app, words.subspan(1), machine);
  } else {
    machine.out << ":files\n";
  }
}

}  // namespace

void Complete(const CLI::App& app, Words words, const Machine& machine) {
  if (words.empty()) return;
  const Words passed = words.first(words.size() - 1);
  const auto dashes = std::ranges::find(passed, "--");
  if (dashes != passed.end())
    return CompleteUserCommand(
        app, words.subspan(static_cast<std::size_t>(dashes - passed.begin()) + 1), machine);
  Completion completion(app, words.back(), machine);
  for (const std::string& word : passed) completion.Pass(word);
  completion.OfferWhatFits();
}

}  // namespace tavo::tool
