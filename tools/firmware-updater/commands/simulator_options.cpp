#include "commands/simulator_options.h"

#include <cstdio>

#include "simulator/served_device.h"

namespace tavo::tool {
namespace {

using tavosim::Family;
using tavosim::SimulatorArguments;

constexpr std::uint32_t kMaxByte = 0xFF;
constexpr std::uint32_t kMaxWord = 0xFFFF;
constexpr double kLongestMs = 60 * 60 * 1000;

std::string FamilyNames() {
  std::string names;
  for (const Family& family : tavosim::kFamilies)
    names += (names.empty() ? "" : ",") + std::string(family.name);
  return names;
}

// Both spellings and the differences, one family a line.
std::string FamilyTable() {
  std::string table;
  for (const Family& family : tavosim::kFamilies) {
    char line[100];
    std::snprintf(line, sizeof line, "\n  %-10s%-8s%s, descriptor type %d, blocks of %d bytes",
                  family.name.data(), NumbersOf(family).c_str(),
                  family.route == 0 ? "connected directly" : "behind a tunnel", family.adbType,
                  family.blockSize);
    table += line;
  }
  return table;
}

std::string CheckFamily(const std::string& name) {
  if (tavosim::FamilyCalled(name) != nullptr) return {};
  return "unknown family \"" + name + "\"; choose one of" + FamilyTable();
}

std::string CheckBusId(const std::string& busId) {
  if (!tavosim::usbip::ParseBusId(busId).empty()) return {};
  return "\"" + busId + "\" is not a port path; write bus-port or bus-port.port, such as 1-4.2";
}

std::string CheckFault(const std::string& text) {
  const tavosim::ParsedFault parsed = tavosim::ParseFault(text);
  return parsed.fault ? std::string() : parsed.error;
}

std::string CheckTunnel(const std::string& text) {
  if (tavosim::ParseTunnel(text)) return {};
  return "\"" + text + "\" is not a tunnel; write MASTER,SLAVE, each 0 to 255";
}

std::string CheckModules(const std::string& text) {
  if (tavosim::ParseModules(text)) return {};
  return "\"" + text + "\" names no modules; write three capital letters each, such as ABC,XYZ";
}

void AddConnection(CommandOptions& command, SimulatorArguments& to) {
  AddFamilyOption(command, to.family, "Device family, by name or by numbers: 8.2.14 is gateway")
      .WithDefault();
  const Option usb =
      command.Flag("--usb", to.ftdi, "Connect the device by its own USB function (default)", false);
  command.Flag("--ftdi", to.ftdi, "Connect the device through an FTDI adapter").Excludes(usb);
  command.Value("--port-path", to.busId, "USB bus and ports, for example 1-4.2")
      .Shown("PATH")
      .Checked(CheckBusId)
      .WithDefault();
  command.Value("--serial", to.serial, "Serial number of the USB device");
  command.Value("--description", to.description, "Product name of the USB device");
  command.Value("--listen", to.listen, "TCP port on 127.0.0.1; 0 takes a free one and prints it")
      .Between(0U, kMaxWord)
      .WithDefault();
  command.Value("--port-file", to.portFile, "Write the TCP port to this file once it listens")
      .Shown("FILE");
  command.Flag("--kernel-driver", to.kernelDriver,
               "A kernel driver holds the interfaces until the host detaches it");
}

void AddLine(CommandOptions& command, SimulatorArguments& to) {
  command.Value("--baud", to.baud,
                "Speed of the serial line, at which bytes take their time; an adapter's host must "
                "set the same one. Without it bytes take no time, and an adapter expects 19200");
  command.Value("--latency", to.latencyMs, "Latency timer of the adapter at the start, in ms")
      .Between(1U, kMaxByte)
      .Needs("--ftdi");
  command.Value("--channels", to.channels, "Channels of the adapter; the device is on the last one")
      .OneOf({"1", "2", "4"})
      .Needs("--ftdi");
  command.Flag("--echo", to.echo, "The host receives the bytes it sends, as on a one-wire bus");
}

void AddIdentity(CommandOptions& command, SimulatorArguments& to) {
  command.Value("--processor", to.processor, "Processor id, instead of the family's: 0x1E9748");
  command.Value("--hardware-id", to.hardwareId, "Hardware id, instead of the family's: 0x8410")
      .Between(0U, kMaxWord);
  command.Value("--device-id", to.deviceId, "Device id, instead of the family's")
      .Between(0U, kMaxWord);
  command.Value("--software-id", to.softwareId, "Software id, instead of the family's")
      .Between(0U, kMaxWord);
  command
      .Value("--bootloader-version", to.bootloaderVersion,
             "Bootloader version, instead of the family's")
      .Between(0U, kMaxByte);
  command.Value("--block-size", to.blockSize, "Block size in bytes, instead of the family's")
      .Between(1U, kMaxByte);
}

void AddBehaviour(CommandOptions& command, SimulatorArguments& to) {
  command.Value("--start", to.start, "State at the start; erased has no application")
      .OneOf({"application", "bootloader", "erased"})
      .WithDefault();
  command.Value("--open-tunnel", to.openTunnel, "A tunnel was left open")
      .Shown("MASTER,SLAVE")
      .Checked(CheckTunnel);
  command.Value("--write-address", to.writeAddress, "The write address after a block is written")
      .OneOf({"stays", "advances"})
      .WithDefault();
  command.Value("--modules", to.modules, "Modules that report a reset, for example ABC,XYZ")
      .Checked(CheckModules);
  command.Flag("--no-close-answer", to.noCloseAnswer,
               "Leave requests to close a tunnel unanswered");
  command.Flag("--leave-answer", to.leaveAnswer,
               "The application answers a request to leave the bootloader");
  command
      .Value("--device-id-answers", to.deviceIdAnswers,
             "The requests for the device id that are answered")
      .OneOf({"both", "admin", "neither"})
      .WithDefault();
}

void AddTimes(CommandOptions& command, SimulatorArguments& to) {
  const auto time = [&command](const char* name, double& value, const char* help) {
    command.Value(name, value, help).Shown("MS").Between(0.0, kLongestMs).WithDefault();
  };
  time("--answer-delay", to.answerDelayMs, "Time before an answer");
  time("--erase-time", to.eraseTimeMs, "Time to erase the flash");
  time("--block-time", to.blockTimeMs, "Time to write one block");
  time("--application-time", to.applicationTimeMs, "Time the application takes to start");
  time("--bootloader-time", to.bootloaderTimeMs, "Time the bootloader takes to start");
}

}  // namespace

Option AddFamilyOption(CommandOptions& command, std::string& to, const char* help) {
  return command.Value("--family", to, help)
      .Shown(("{" + FamilyNames() + "}").c_str())
      .Checked(CheckFamily);
}

void AddSimulatorOptions(CommandOptions& command, SimulatorArguments& to) {
  AddConnection(command, to);
  AddLine(command, to);
  AddIdentity(command, to);
  AddBehaviour(command, to);
  AddTimes(command, to);
  command.Values("--fault", to.faults, "Something goes wrong, see below; repeatable")
      .Shown("FAULT")
      .Checked(CheckFault);
  command.Value("--seed", to.seed, "Seed of all random choices").WithDefault();
  command.Value("--state", to.state, "Folder that keeps the device's state for the next run")
      .Shown("DIR");
}

}  // namespace tavo::tool
