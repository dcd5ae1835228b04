// A simulated device with everything that a user asked for, behind a USB/IP server.
//
//   SimulatorArguments arguments;
//   arguments.family = "drive";
//   ServedDevice device(arguments, std::cerr);
//   std::cout << device.Port();
//   device.Run(stop.get_token());
#pragma once

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "simulator/device.h"
#include "simulator/state_directory.h"
#include "simulator/usb_device.h"
#include "simulator/usbip/server.h"

namespace tavosim {

// The texts have passed the functions below; paths are UTF-8.
struct SimulatorArguments {
  std::string family = "plain";  // FamilyCalled
  bool ftdi = false;             // behind an FTDI adapter instead of its own USB function
  std::string busId = "1-1";     // usbip::ParseBusId
  std::optional<std::string> serial{};
  std::optional<std::string> description{};
  std::uint32_t listen = 0;  // TCP port, 0 = any free one
  std::string portFile{};
  bool kernelDriver = false;
  std::optional<std::uint32_t> baud{};
  std::optional<std::uint32_t> latencyMs{};
  unsigned channels = 1;
  bool echo = false;
  std::optional<std::uint32_t> processor{};
  std::optional<std::uint32_t> hardwareId{};
  std::optional<std::uint32_t> deviceId{};
  std::optional<std::uint32_t> softwareId{};
  std::optional<std::uint32_t> bootloaderVersion{};
  std::optional<std::uint32_t> blockSize{};
  std::string start = "application";   // or "bootloader" or "erased"
  std::string openTunnel{};            // ParseTunnel
  std::string writeAddress = "stays";  // or "advances"
  std::string modules{};               // ParseModules
  bool noCloseAnswer = false;
  bool leaveAnswer = false;
  std::string deviceIdAnswers = "both";  // or "admin" or "neither"
  double answerDelayMs = 1;
  double eraseTimeMs = 100;
  double blockTimeMs = 1;
  double applicationTimeMs = 0;
  double bootloaderTimeMs = 0;
  std::uint32_t seed = 1;
  std::vector<std::string> faults{};  // ParseFault
  std::string state{};
};

// By name or by numbers, "8.2.14"; null when no family goes by it.
const Family* FamilyCalled(const std::string& text);
// "8.2.14": the first three of the four numbers in the hardware id.
std::string NumbersOf(const Family& family);

// "4,1" is master 4, slave 1; none for anything else.
std::optional<std::uint16_t> ParseTunnel(const std::string& text);
// The codes of "ABC,XYZ", three capital letters each; none for anything else.
std::optional<std::vector<std::uint16_t>> ParseModules(const std::string& text);

class ServedDevice {
 public:
  // Restores the device's state, listens and writes the port file. Throws std::exception with a
  // text for the user when one of these fails. `messages`, which must outlive the object, gets a
  // line for each peer that broke the protocol.
  ServedDevice(const SimulatorArguments& arguments, std::ostream& messages);

  ServedDevice(const ServedDevice&) = delete;
  ServedDevice& operator=(const ServedDevice&) = delete;

  std::uint16_t Port() const { return m_server.Port(); }

  // Serves until a stop is requested. Throws std::exception when the state cannot be kept.
  void Run(const std::stop_token& stop) { m_server.Run(stop); }

 private:
  usbip::ServerOptions ServerOptionsFor(const SimulatorArguments& arguments,
                                        std::ostream& messages);

  Device m_device;
  std::unique_ptr<UsbDevice> m_front;
  std::optional<StateDirectory> m_state{};
  usbip::Server m_server;
};

}  // namespace tavosim
