// The command "simulate": a simulated device, for another terminal or for one command. The command is a
// child process. It gets Ctrl-C, and the device lives until it has ended.
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "commands/commands.h"
#include "commands/simulator_options.h"
#include "device/target.h"
#include "platform/platform.h"
#include "simulator/served_device.h"

namespace tavo::tool {
namespace {

using Words = std::vector<std::string>;

constexpr const char* kAddresses = "TAVO_SIMULATORS";
constexpr const char* kLibraryPath = "LD_LIBRARY_PATH";
constexpr const char* kExamples =
    "\nExamples:\n"
    "  firmware-updater simulate --family 8.2.14\n"
    "  firmware-updater simulate --family drive --port-path 1-4.2 --state drive\n"
    "  firmware-updater simulate --fault lose:5 -- firmware-updater update firmware.hex\n"
    "The first two serve the device until Ctrl-C and print the command that makes another\n"
    "terminal see it; any account of this machine can. With a COMMAND, the device lives until\n"
    "that ends, and its exit code is passed on.\n"
    "On a kernel with the vhci driver, root can plug the device into the kernel as well:\n"
    "  usbip --tcp-port PORT attach -r 127.0.0.1 -b 1-1";

struct Arguments {
  tavosim::SimulatorArguments simulator{};
  Words command{};  // of the user's, to run while the device lives
};

// The folder with the libusb that finds simulated devices, in a build tree or installed; empty without
// one.
std::string SubstituteFolder(Platform& platform) {
  constexpr std::array kPlaces{"../substitute", "../lib/firmware-updater/substitute"};
  const auto here = std::filesystem::path(platform.ExecutablePath()).parent_path();
  for (const char* const place : kPlaces) {
    const std::filesystem::path folder = (here / place).lexically_normal();
    std::error_code ignored;
    if (std::filesystem::exists(folder / "libusb-1.0.so.0", ignored)) return folder.string();
  }
  return {};
}

std::string Environment(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? std::string() : value;
}

// Devices that the environment shows already stay visible, so that simulators can be nested.
void ShowToChildren(const std::string& address, const std::string& substitute) {
  const std::string addresses = Environment(kAddresses);
  const std::string path = Environment(kLibraryPath);
  setenv(kAddresses, (addresses.empty() ? address : addresses + "," + address).c_str(), 1);
  setenv(kLibraryPath, (path.empty() ? substitute : substitute + ":" + path).c_str(), 1);
}

// Keeps signals waiting while it lives.
class SignalPause {
 public:
  SignalPause() {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &m_before);
  }
  ~SignalPause() { sigprocmask(SIG_SETMASK, &m_before, nullptr); }
  SignalPause(const SignalPause&) = delete;
  SignalPause& operator=(const SignalPause&) = delete;

  const sigset_t& Before() const { return m_before; }

 private:
  sigset_t m_before{};
};

// The process id, or 0 with `failure` set. "firmware-updater" is this very program, in any folder.
pid_t Spawn(Words words, const sigset_t& signals, Platform& platform, int& failure) {
  const std::string program =
      words.front() == "firmware-updater" ? platform.ExecutablePath() : words.front();
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setsigmask(&attributes, &signals);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  pid_t pid = 0;
  failure = posix_spawnp(&pid, program.c_str(), nullptr, &attributes, pointers.data(), environ);
  posix_spawnattr_destroy(&attributes);
  return failure == 0 ? pid : 0;
}

// For the signal handler, which gets no object.
volatile std::sig_atomic_t g_command = 0;

// The terminal signals the command as well; other signals arrive here only and are passed on.
void LeaveSignalsTo(pid_t command) {
  g_command = command;
  for (const int signal : {SIGINT, SIGQUIT}) std::signal(signal, SIG_IGN);
  for (const int signal : {SIGTERM, SIGHUP})
    std::signal(signal, [](int number) { kill(g_command, number); });
}

// The process id; from here on signals go to the command. Throws std::system_error when it cannot be
// started.
pid_t Start(const Words& words, Platform& platform) {
  const SignalPause pause;  // no signal is lost between here and the command
  int failure = 0;
  const pid_t command = Spawn(words, pause.Before(), platform, failure);
  if (failure != 0) throw std::system_error(failure, std::generic_category(), words.front());
  LeaveSignalsTo(command);
  return command;
}

// Serves while the command runs. Returns its exit code, or 128 + the signal that ended it.
int ServeUntilEnd(tavosim::ServedDevice& device, pid_t command) {
  const tavosim::usbip::Socket ended(eventfd(0, EFD_CLOEXEC));
  int status = 0;
  {
    const std::jthread waiter([&] {
      waitpid(command, &status, 0);
      eventfd_write(ended.Fd(), 1);
    });
    device.Run(ended.Fd());
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// A kernel can attach the device without the substitute.
ExitCode ServeOthers(tavosim::ServedDevice& device, const std::string& address,
                     const std::string& substitute, int endFd, const Machine& machine) {
  machine.out << "listening on " << address << std::endl;
  if (!substitute.empty()) {
    machine.out << "Another terminal sees the device after\nexport " << kAddresses << "=" << address
                << " " << kLibraryPath << "=" << ShellWord(substitute) << std::endl;
  }
  device.Run(endFd);
  return ExitCode::Done;
}

ExitCode RunBeside(tavosim::ServedDevice& device, const Words& words, const Machine& machine) {
  pid_t command = 0;
  try {
    command = Start(words, machine.platform);
  } catch (const std::system_error& error) {
    Complain(machine, error.what(),
             "write a command and its arguments after --, for example: -- env");
    return ExitCode::Usage;
  }
  return static_cast<ExitCode>(ServeUntilEnd(device, command));
}

ExitCode Serve(tavosim::ServedDevice& device, const Words& words, int endFd, const Machine& machine,
               const std::string& substitute) {
  const std::string address = "127.0.0.1:" + std::to_string(device.Port());
  if (!words.empty()) {
    ShowToChildren(address, substitute);
    return RunBeside(device, words, machine);
  }
  return ServeOthers(device, address, substitute, endFd, machine);
}

ExitCode Simulate(const Arguments& arguments, const Machine& machine) {
  const Words& words = arguments.command;
  const std::string substitute = SubstituteFolder(machine.platform);
  if (substitute.empty() && !words.empty()) {
    Complain(machine, "the libusb that finds simulated devices is missing",
             "build or install the whole tool, not the program alone");
    return ExitCode::NoDevice;
  }
  // With a command, the command gets the signals.
  const tavosim::usbip::Socket end =
      words.empty() ? tavosim::EndSignal() : tavosim::usbip::Socket();
  std::optional<tavosim::ServedDevice> device;
  try {
    device.emplace(arguments.simulator, machine.err);
  } catch (const std::exception& error) {
    Complain(machine, error.what(), "see firmware-updater simulate --help");
    return ExitCode::Usage;
  }
  try {
    return Serve(*device, words, end.Fd(), machine, substitute);
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
  command.Footer(std::string(tavosim::kFaultSyntax) + kExamples);
  command.OnRun(exit, [arguments, &machine] { return Simulate(*arguments, machine); });
}

}  // namespace tavo::tool
