// The hidden command "generate": what is packed beside the program but written from its parser.
#include <CLI/CLI.hpp>
#include <array>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "app.h"
#include "commands/completion.h"
#include "commands/manual.h"

namespace tavo::tool {
namespace {

std::string Manual(const CommandOutline& tool) {
  return ManualPage(tool, "firmware-updater " TAVO_VERSION);
}

struct Document {
  const char* name;
  std::string (*write)(const CommandOutline& tool);
};
constexpr std::array kDocuments{
    Document{"man", Manual},
    Document{"bash", BashCompletion},
    Document{"zsh", ZshCompletion},
};

std::vector<std::string> DocumentNames() {
  std::vector<std::string> names;
  for (const Document& document : kDocuments) names.emplace_back(document.name);
  return names;
}

}  // namespace

void AddGenerateCommand(CLI::App& app, const Machine& machine, ExitCode& exit) {
  CLI::App* const command =
      app.add_subcommand("generate", "Write the manual page or a shell completion")->group("");
  const auto wanted = std::make_shared<std::string>();
  command->add_option("DOCUMENT", *wanted, "What to write")
      ->required()
      ->check(CLI::IsMember(DocumentNames()));
  command->footer("\nExamples:\n  firmware-updater generate man | man -l -");
  command->callback([&app, wanted, &machine, &exit] {
    const CommandOutline tool = OutlineOf(app);
    for (const Document& document : kDocuments)
      if (*wanted == document.name) machine.out << document.write(tool);
    exit = ExitCode::Done;
  });
}

}  // namespace tavo::tool
