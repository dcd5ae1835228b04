#include "simulator/served_device.h"

#include <sys/signalfd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iomanip>
#include <ostream>
#include <sstream>
#include <stdexcept>

#include "simulator/cdc_function.h"
#include "simulator/ftdi_adapter.h"

namespace tavosim {
namespace {

// "8.2.14": the first three of the four numbers that the hardware id holds.
std::string NumbersOf(const Family& family) {
  const unsigned id = family.hardwareId;
  return std::to_string(id >> 12) + "." + std::to_string(id >> 8 & 0xF) + "." +
         std::to_string(id >> 4 & 0xF);
}

std::string FamilyNames() {
  std::string names;
  for (const Family& family : kFamilies)
    names += (names.empty() ? "" : ",") + std::string(family.name);
  return names;
}

// Both spellings and the differences, one family a line.
std::string FamilyTable() {
  std::ostringstream table;
  for (const Family& family : kFamilies) {
    table << "\n  " << std::left << std::setw(10) << family.name << std::setw(8)
          << NumbersOf(family) << (family.route == 0 ? "connected directly" : "behind a tunnel")
          << ", descriptor type " << int{family.adbType} << ", blocks of " << int{family.blockSize}
          << " bytes";
  }
  return table.str();
}

std::string CheckFamily(const std::string& name) {
  if (FamilyCalled(name) != nullptr) return {};
  return "there is no family \"" + name + "\"; choose one of" + FamilyTable();
}

std::string CheckBusId(const std::string& busId) {
  if (!usbip::ParseBusId(busId).empty()) return {};
  return "\"" + busId + "\" is no port path; write bus-port or bus-port.port, for example 1-4.2";
}

std::string CheckFault(const std::string& text) {
  const ParsedFault parsed = ParseFault(text);
  return parsed.fault ? std::string() : parsed.error;
}

std::string CheckModule(const std::string& name) {
  const bool letters = std::ranges::all_of(name, [](char c) { return c >= 'A' && c <= 'Z'; });
  if (name.size() == 3 && letters) return {};
  return "\"" + name + "\" is no module; write three capital letters, for example ABC,XYZ";
}

void AddPlace(CLI::App& app, SimulatorArguments& to) {
  AddFamilyOption(app, to.family, "Device family, by name or by numbers: 8.2.14 is gateway");
  auto* const usb =
      app.add_flag("--usb", to.usb, "The device brings its own USB function (the default)");
  app.add_flag("--ftdi", to.ftdi, "The device is connected by an FTDI adapter")->excludes(usb);
  app.add_option("--port-path", to.busId, "Bus and ports, for example 1-4.2")->check(CheckBusId);
  app.add_option("--serial", to.serial, "Serial number of the USB device");
  app.add_option("--description", to.description, "Product text of the USB device");
  app.add_option("--listen", to.listen, "TCP port on 127.0.0.1; 0 = any free one, printed");
  app.add_option("--port-file", to.portFile, "File to write the TCP port to, once it listens")
      ->type_name("FILE");
  app.add_flag("--kernel-driver", to.kernelDriver,
               "A kernel driver holds the interfaces until a host detaches it");
}

void AddLine(CLI::App& app, SimulatorArguments& to) {
  app.add_option("--baud", to.baud,
                 "Rate of the device's serial line, which then takes its time; behind an adapter a "
                 "host must set the same rate (without it: 19200 there, and no time)");
  app.add_option("--latency", to.latencyMs,
                 "Latency timer of the adapter until it is unplugged, ms")
      ->check(CLI::Range(1, 255))
      ->needs("--ftdi");
  app.add_flag("--echo", to.echo, "The host receives what it sends, as on a one-wire bus");
}

void AddIdentity(CLI::App& app, SimulatorArguments& to) {
  app.add_option("--processor", to.processor, "Processor id instead of the family's, 0x1E9748");
  app.add_option("--hardware-id", to.hardwareId, "Hardware id instead of the family's, 0x8410");
  app.add_option("--device-id", to.deviceId, "Device id instead of the family's");
  app.add_option("--software-id", to.softwareId, "Software id instead of the family's");
  app.add_option("--bootloader-version", to.bootloaderVersion, "Instead of the family's")
      ->check(CLI::Range(0, 255));
  app.add_option("--block-size", to.blockSize, "Instead of the family's, bytes")
      ->check(CLI::Range(1, 255));
}

void AddBehaviour(CLI::App& app, SimulatorArguments& to) {
  app.add_option("--start", to.start, "State at the start: application, bootloader or erased")
      ->check(CLI::IsMember({"application", "bootloader", "erased"}));
  app.add_option("--open-tunnel", to.openTunnel, "MASTER,SLAVE of a tunnel left open")
      ->delimiter(',')
      ->expected(2)
      ->default_str("")
      ->allow_extra_args(false)
      ->check(CLI::Range(0, 255));
  app.add_option("--write-address", to.writeAddress,
                 "What it does after a written block: stays or advances")
      ->check(CLI::IsMember({"stays", "advances"}));
  app.add_option("--modules", to.modules, "Modules that report a reset, for example ABC,XYZ")
      ->delimiter(',')
      ->default_str("")
      ->check(CheckModule)
      ->allow_extra_args(false);
  app.add_flag("--no-close-answer", to.noCloseAnswer, "No answer to the closing of a tunnel");
  app.add_flag("--leave-answer", to.leaveAnswer,
               "The application answers the request to leave the bootloader");
  app.add_option("--device-id-answers", to.deviceIdAnswers,
                 "Requests for the device id that it answers: both, admin or neither")
      ->check(CLI::IsMember({"both", "admin", "neither"}));
}

void AddTimes(CLI::App& app, SimulatorArguments& to) {
  const auto time = [&app](const char* name, double& value, const char* text) {
    app.add_option(name, value, std::string(text) + ", ms")->check(CLI::Range(0.0, 3600000.0));
  };
  time("--answer-delay", to.answerDelayMs, "Time to any answer");
  time("--erase-time", to.eraseTimeMs, "Time to erase the flash");
  time("--block-time", to.blockTimeMs, "Time to write one block");
  time("--application-time", to.applicationTimeMs, "Silence while the application starts");
  time("--bootloader-time", to.bootloaderTimeMs, "Silence while the bootloader starts");
}

template <class To, class From>
void Override(To& to, const std::optional<From>& from) {
  if (from) to = static_cast<To>(*from);
}

SimTime Milliseconds(double count) {
  return std::chrono::round<SimTime>(std::chrono::duration<double, std::milli>(count));
}

// Five bits a letter, A is 1.
std::uint16_t ModuleCode(const std::string& name) {
  unsigned code = 0;
  for (const char letter : name) code = code << 5 | static_cast<unsigned>(letter - 'A' + 1);
  return static_cast<std::uint16_t>(code);
}

Family FamilyOf(const SimulatorArguments& from) {
  Family family = *FamilyCalled(from.family);
  Override(family.processorId, from.processor);
  Override(family.hardwareId, from.hardwareId);
  Override(family.deviceId, from.deviceId);
  Override(family.softwareId, from.softwareId);
  Override(family.bootloaderVersion, from.bootloaderVersion);
  Override(family.blockSize, from.blockSize);
  return family;
}

DeviceOptions OptionsOf(const SimulatorArguments& from) {
  DeviceOptions to = OptionsFor(FamilyOf(from));
  const bool bootloader = from.start == "bootloader";
  to.start = bootloader ? DeviceState::Bootloader : DeviceState::Application;
  to.applicationIntact = from.start != "erased";
  if (!from.openTunnel.empty())
    to.openTunnel = static_cast<std::uint16_t>(from.openTunnel[0] << 8 | from.openTunnel[1]);
  to.writeAddressAdvances = from.writeAddress == "advances";
  to.answersCloseTunnel = !from.noCloseAnswer;
  to.answersLeaveInApplication = from.leaveAnswer;
  if (from.deviceIdAnswers == "admin") to.deviceIdAnswers = DeviceIdAnswers::AdminOnly;
  if (from.deviceIdAnswers == "neither") to.deviceIdAnswers = DeviceIdAnswers::Neither;
  for (const std::string& name : from.modules) to.resetModules.push_back(ModuleCode(name));
  to.answerDelay = Milliseconds(from.answerDelayMs);
  to.eraseTime = Milliseconds(from.eraseTimeMs);
  to.blockWriteTime = Milliseconds(from.blockTimeMs);
  to.applicationBootTime = Milliseconds(from.applicationTimeMs);
  to.bootloaderStartTime = Milliseconds(from.bootloaderTimeMs);
  to.seed = from.seed;
  return to;
}

std::vector<Fault> FaultsOf(const SimulatorArguments& from) {
  std::vector<Fault> faults;
  for (const std::string& text : from.faults) faults.push_back(*ParseFault(text).fault);
  return faults;
}

std::unique_ptr<UsbDevice> MakeFront(Device& device, const SimulatorArguments& from) {
  constexpr std::uint8_t kVendorOut = 0x40;
  constexpr std::uint8_t kSetLatency = 0x09;
  const LineOptions line{.baud = from.baud.value_or(0), .echo = from.echo};
  UsbStrings strings =
      from.ftdi ? FtdiOptions{}.strings : UsbStrings{"Tavo", "Control Module", "1"};
  Override(strings.serialNumber, from.serial);
  Override(strings.product, from.description);
  if (!from.ftdi) return std::make_unique<CdcFunction>(device, line, strings);
  FtdiOptions options{.strings = strings};
  Override(options.deviceBaud, from.baud);
  auto adapter = std::make_unique<FtdiAdapter>(device, line, options);
  if (from.latencyMs)
    adapter->Control({kVendorOut, kSetLatency, *from.latencyMs, 0, 0}, {}, SimTime{0});
  return adapter;
}

void WritePortFile(std::uint16_t port, const std::string& portFile) {
  // Renamed into place: whoever waits for the file never reads half a number.
  const std::string beside = portFile + ".new";
  std::ofstream out(beside);
  out << port << '\n';
  out.close();
  if (!out || std::rename(beside.c_str(), portFile.c_str()) != 0)
    throw std::runtime_error(portFile + ": cannot be written; choose another --port-file");
}

}  // namespace

const Family* FamilyCalled(const std::string& text) {
  const auto found = std::ranges::find(kFamilies, text, NumbersOf);
  return found != kFamilies.end() ? &*found : FindFamily(text);
}

CLI::Option* AddFamilyOption(CLI::App& app, std::string& to, const std::string& description) {
  return app.add_option("--family", to, description)
      ->type_name("{" + FamilyNames() + "}")
      ->check(CheckFamily);
}

void AddSimulatorOptions(CLI::App& app, SimulatorArguments& to) {
  app.option_defaults()->always_capture_default();
  AddPlace(app, to);
  AddLine(app, to);
  AddIdentity(app, to);
  AddBehaviour(app, to);
  AddTimes(app, to);
  app.add_option("--fault", to.faults,
                 "What goes wrong, may be given several times: " + std::string(kFaultSyntax))
      ->default_str("")
      ->check(CheckFault)
      ->allow_extra_args(false);
  app.add_option("--seed", to.seed, "Seed of everything random");
  app.add_option("--state", to.state,
                 "Directory that keeps the device's state beyond the end of the simulator")
      ->type_name("DIR");
}

SimulatorProgram::SimulatorProgram(const SimulatorArguments& arguments, std::ostream& messages)
    : m_device(OptionsOf(arguments), FaultsOf(arguments)),
      m_front(MakeFront(m_device, arguments)),
      m_server(*m_front, ServerOptionsFor(arguments, messages)) {
  if (!arguments.state.empty()) m_state.emplace(arguments.state, m_device);
  if (!arguments.portFile.empty()) WritePortFile(m_server.Port(), arguments.portFile);
}

usbip::ServerOptions SimulatorProgram::ServerOptionsFor(const SimulatorArguments& arguments,
                                                        std::ostream& messages) {
  usbip::ServerOptions options{
      .port = arguments.listen, .busId = arguments.busId, .kernelDriver = arguments.kernelDriver};
  options.message = [&messages](const std::string& text) { messages << text << std::endl; };
  options.afterStep = [this](SimTime now) {
    if (m_state) m_state->Update(now);
  };
  return options;
}

usbip::Socket EndSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  return usbip::Socket(signalfd(-1, &signals, SFD_CLOEXEC));
}

}  // namespace tavosim
