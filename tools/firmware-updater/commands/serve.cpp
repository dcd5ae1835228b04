// serve: a page in the browser for the bench. Its user sees the devices, drops an update file and starts
// the tool's other commands.
#include <memory>
#include <ostream>

#include "commands/commands.h"
#include "serve/server.h"
#include "system/interrupts.h"
#include "system/system.h"
#include "text/options.h"

namespace tavo::tool {
namespace {

ExitCode Serve(const Machine& machine, const std::string& journal) {
  SurviveLostOutput();
  Bench bench(journal);
  const Interrupts interrupts([&bench](int) { bench.RequestStop(); });
  return ServeBench(
      bench, [&](const std::string& line) { machine.out << InLines(machine, line) << std::endl; });
}

}  // namespace

void AddServeCommand(CLI::App& app, const Machine& machine, ExitCode& exit) {
  CommandOptions command(app, "serve", "Serve a page for the browser: devices, updates, journal");
  const auto journal = std::make_shared<std::string>();
  command
      .Value("--journal", *journal,
             "File to append the result of each update to, which the page sums up")
      .Shown("FILE")
      .NotEmpty();
  command.Footer(
      "Only this machine's browsers reach the page, and only with the address that is printed.\n"
      "The first Ctrl-C asks running updates to stop before their next request.\n\n"
      "Examples:\n"
      "  firmware-updater serve --journal line.ndjson\n"
      "  firmware-updater simulate -- firmware-updater serve");
  command.OnRun(exit, [journal, &machine] { return Serve(machine, *journal); });
}

}  // namespace tavo::tool
