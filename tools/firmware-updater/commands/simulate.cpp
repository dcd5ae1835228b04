// The command "simulate": a simulated device, for another terminal or for one command. The device
// lives until the command has ended.
#include <array>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <ostream>
#include <stop_token>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "commands/commands.h"
#include "commands/simulator_options.h"
#include "device/target.h"
#include "platform/platform.h"
#include "simulator/served_device.h"
#include "system/interrupts.h"
#include "system/process.h"
#include "system/system.h"

namespace tavo::tool {
namespace {

using Words = Process::Words;

constexpr const char* kTool = "firmware-updater";
constexpr const char* kAddresses = "TAVO_SIMULATORS";

// How programs get the libusb that finds simulated devices instead of the real one. Windows looks for it
// in the program's own folder first, so there a copy of the tool lies beside it.
#ifdef _WIN32
constexpr std::array kSubstituteFolders{"simulator", "../simulator"};
constexpr const char* kSubstitute = "libusb-1.0.dll";
constexpr const char* kToolBesideIt = "firmware-updater.exe";
constexpr const char* kSearchPath = "PATH";
constexpr const char* kSeparator = ";";
constexpr const char* kOtherPrograms =
    "A program of your own sees the device if libusb-1.0.dll and FTD2XX.dll lie beside it, from\n"
    "the folder \"simulator\" beside this tool.";
#else
constexpr std::array kSubstituteFolders{"../substitute", "../lib/firmware-updater/substitute"};
constexpr const char* kSubstitute = "libusb-1.0.so.0";
constexpr const char* kToolBesideIt = nullptr;
constexpr const char* kSearchPath = "LD_LIBRARY_PATH";
constexpr const char* kSeparator = ":";
constexpr const char* kOtherPrograms =
    "On a kernel with the vhci driver, root can plug the device into the kernel as well:\n"
    "  usbip --tcp-port PORT attach -r 127.0.0.1 -b 1-1";
#endif

constexpr const char* kExamples =
    "\nExamples:\n"
    "  firmware-updater simulate --family 8.2.14\n"
    "  firmware-updater simulate --family drive --port-path 1-4.2 --state drive\n"
    "  firmware-updater simulate --fault lose:5 -- firmware-updater update firmware.hex\n"
    "The first two serve the device until Ctrl-C and print the command that makes another\n"
    "terminal see it; any account of this machine can. With a COMMAND, the device lives until\n"
    "that ends, and its exit code is passed on.\n";

struct Arguments {
  tavosim::SimulatorArguments simulator{};
  Words command{};  // of the user's, to run while the device lives
};

// In a build tree or installed; empty without one.
std::string SubstituteFolder(Platform& platform) {
  const auto here = tavosim::PathOf(platform.ExecutablePath()).parent_path();
  for (const char* const place : kSubstituteFolders) {
    const std::filesystem::path folder = (here / place).lexically_normal();
    std::error_code ignored;
    if (std::filesystem::exists(folder / kSubstitute, ignored)) return folder.string();
  }
  return {};
}

// Devices that the environment shows already stay visible, so that simulators can be nested.
Words EnvironmentWith(const std::string& address, const std::string& substitute) {
  const std::string addresses = Environment(kAddresses);
  const std::string path = Environment(kSearchPath);
  return {kAddresses + ("=" + (addresses.empty() ? address : addresses + "," + address)),
          kSearchPath + ("=" + (path.empty() ? substitute : substitute + kSeparator + path))};
}

Words WithToolOf(const std::string& substitute, Words words) {
  if (kToolBesideIt != nullptr && words.front() == kTool)
    words.front() = (tavosim::PathOf(substitute) / kToolBesideIt).string();
  return words;
}

// The commands by which the shells of this system make a device visible.
std::string ShellCommands(const std::string& address, const std::string& substitute) {
#ifdef _WIN32
  std::string quoted;  // in PowerShell
  for (const char c : substitute) quoted.append(c == '\'' ? 2 : 1, c);
  return "  cmd:        set \"TAVO_SIMULATORS=" + address + "\" & set \"PATH=" + substitute +
         ";%PATH%\"\n  PowerShell: $env:TAVO_SIMULATORS='" + address + "'; $env:PATH='" + quoted +
         ";'+$env:PATH\n";
#else
  return "export TAVO_SIMULATORS=" + address + " LD_LIBRARY_PATH=" + ShellWord(substitute) + "\n";
#endif
}

// Serves while the command runs. Returns its exit code.
int ServeUntilEnd(tavosim::ServedDevice& device, Process& command) {
  std::stop_source end;
  int exitCode = 0;
  {
    const std::jthread waiter([&] {
      exitCode = command.Wait();
      end.request_stop();
    });
    device.Run(end.get_token());
  }
  return exitCode;
}

// A kernel can attach the device without the substitute.
ExitCode ServeOthers(tavosim::ServedDevice& device, const std::string& address,
                     const std::string& substitute, const std::stop_token& end,
                     const Machine& machine) {
  machine.out << "listening on " << address << std::endl;
  if (!substitute.empty()) {
    machine.out << "Another terminal sees the device after\n"
                << ShellCommands(address, substitute) << std::flush;
  }
  device.Run(end);
  return ExitCode::Done;
}

ExitCode RunBeside(tavosim::ServedDevice& device, const Words& words, const Words& environment,
                   const Machine& machine) {
  std::optional<Process> command;
  try {
    command.emplace(words, environment);
  } catch (const std::system_error& error) {
    Complain(machine, error.what(),
             "write a command and its arguments after --, for example: -- env");
    return ExitCode::Usage;
  }
  return static_cast<ExitCode>(ServeUntilEnd(device, *command));
}

ExitCode Serve(tavosim::ServedDevice& device, const Words& words, const std::stop_token& end,
               const Machine& machine, const std::string& substitute) {
  const std::string address = "127.0.0.1:" + std::to_string(device.Port());
  if (!words.empty()) {
    return RunBeside(device, WithToolOf(substitute, words), EnvironmentWith(address, substitute),
                     machine);
  }
  return ServeOthers(device, address, substitute, end, machine);
}

ExitCode Simulate(const Arguments& arguments, const Machine& machine) {
  const Words& words = arguments.command;
  const std::string substitute = SubstituteFolder(machine.platform);
  if (substitute.empty() && !words.empty()) {
    Complain(machine, "the libusb that finds simulated devices is missing",
             "build or install the whole tool, not the program alone");
    return ExitCode::NoDevice;
  }
  std::stop_source end;
  std::optional<Interrupts> interrupts;  // with a command, the command gets the signals
  if (words.empty()) interrupts.emplace([&end](int) { end.request_stop(); });
  std::optional<tavosim::ServedDevice> device;
  try {
    device.emplace(arguments.simulator, machine.err);
  } catch (const std::exception& error) {
    Complain(machine, error.what(), "see firmware-updater simulate --help");
    return ExitCode::Usage;
  }
  try {
    return Serve(*device, words, end.get_token(), machine, substitute);
  } catch (const std::exception& error) {
    Complain(machine, error.what(), "the simulated device has gone; start it again");
    return ExitCode::FailedUnknown;
  }
}

}  // namespace

void AddSimulateCommand(CLI::App& app, const Machine& machine, ExitCode& exit) {
  CommandOptions command(app, "simulate", "Try everything without hardware, on a simulated device");
  const auto arguments = std::make_shared<Arguments>();
  AddSimulatorOptions(command, arguments->simulator);
  command.UserCommand(
      arguments->command,
      "After --: run this command, with its arguments, while the device exists; it sees the "
      "device");
  command.Footer(std::string(tavosim::kFaultSyntax) + kExamples + kOtherPrograms);
  command.OnRun(exit, [arguments, &machine] { return Simulate(*arguments, machine); });
}

}  // namespace tavo::tool
