// The simulator as a program: its command line, and a device with everything that this asks for
// behind a USB/IP server. Two programs are made from it, the simulator itself and the host tool's
// command of that name. Linux only, as the server is.
//
//   SimulatorArguments arguments;
//   AddSimulatorOptions(app, arguments);
//   app.parse(argc, argv);
//   const usbip::Socket end = EndSignal();
//   SimulatorProgram program(arguments, std::cerr);
//   std::cout << program.Port();
//   program.Run(end.Fd());
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "simulator/device.h"
#include "simulator/state_directory.h"
#include "simulator/usb_device.h"
#include "simulator/usbip/server.h"
#include "simulator/usbip/socket.h"

namespace tavosim {

// As the help text describes them.
struct SimulatorArguments {
  std::string family = "plain";
  bool usb = true;
  bool ftdi = false;
  std::string busId = "1-1";
  std::optional<std::string> serial{};
  std::optional<std::string> description{};
  std::uint16_t listen = 0;
  std::string portFile{};
  bool kernelDriver = false;
  std::optional<std::uint32_t> baud{};
  std::optional<std::uint16_t> latencyMs{};
  bool echo = false;
  std::optional<std::uint32_t> processor{};
  std::optional<std::uint16_t> hardwareId{};
  std::optional<std::uint16_t> deviceId{};
  std::optional<std::uint16_t> softwareId{};
  std::optional<std::uint16_t> bootloaderVersion{};
  std::optional<std::uint16_t> blockSize{};
  std::string start = "application";
  std::vector<std::uint16_t> openTunnel{};
  std::string writeAddress = "stays";
  std::vector<std::string> modules{};
  bool noCloseAnswer = false;
  bool leaveAnswer = false;
  std::string deviceIdAnswers = "both";
  double answerDelayMs = 1;
  double eraseTimeMs = 100;
  double blockTimeMs = 1;
  double applicationTimeMs = 0;
  double bootloaderTimeMs = 0;
  std::uint32_t seed = 1;
  std::vector<std::string> faults{};
  std::string state{};
};

// The option that names a device family.
CLI::Option* AddFamilyOption(CLI::App& app, std::string& to, const std::string& description);

// By name or by numbers, "8.2.14"; null when there is no such family.
const Family* FamilyCalled(const std::string& text);

// `arguments` must outlive the parsing.
void AddSimulatorOptions(CLI::App& app, SimulatorArguments& arguments);

class SimulatorProgram {
 public:
  // Takes up the device's state, listens and writes the port file. Throws std::exception with a
  // text for the user when one of these fails. `messages`, which must outlive the program, gets a
  // line for each peer that broke the protocol.
  SimulatorProgram(const SimulatorArguments& arguments, std::ostream& messages);

  SimulatorProgram(const SimulatorProgram&) = delete;
  SimulatorProgram& operator=(const SimulatorProgram&) = delete;

  std::uint16_t Port() const { return m_server.Port(); }

  // Serves until `stopFd` becomes readable. Throws std::exception when the state cannot be kept.
  void Run(int stopFd) { m_server.Run(stopFd); }

 private:
  usbip::ServerOptions ServerOptionsFor(const SimulatorArguments& arguments,
                                        std::ostream& messages);

  Device m_device;
  std::unique_ptr<UsbDevice> m_front;
  std::optional<StateDirectory> m_state{};
  usbip::Server m_server;
};

// Becomes readable when the program is asked to end (SIGINT, SIGTERM), which then no longer ends it
// by itself.
usbip::Socket EndSignal();

}  // namespace tavosim
