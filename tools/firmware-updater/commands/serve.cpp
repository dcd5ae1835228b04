// serve: a page in the browser for the bench. Its user sees the devices, drops an update file and starts
// the tool's other commands.
#include <memory>
#include <mutex>
#include <ostream>
#include <stdexcept>

#include "commands/commands.h"
#include "serve/bench.h"
#include "serve/server.h"
#include "system/interrupts.h"
#include "system/system.h"
#include "text/options.h"

namespace tavo::tool {
namespace {

ExitCode Serve(const Machine& machine, const std::string& journal) {
  SurviveLostOutput();
  std::mutex screen;
  Bench bench(journal, [&](const std::string& line) {
    const std::lock_guard lock(screen);
    machine.out << InLines(machine, line) << std::endl;
  });
  const Interrupts interrupts([&bench](int) { bench.RequestStop(); });
  std::unique_ptr<Server> server;
  try {
    server = std::make_unique<Server>(bench);
  } catch (const std::runtime_error& error) {
    Complain(machine, error.what(), {});
    return ExitCode::NoDevice;
  }
  machine.out << "Open this address in a browser on this machine; it is for you alone:\n"
              << server->Address() << "\nCtrl-C ends the page." << std::endl;
  return bench.Run();
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
