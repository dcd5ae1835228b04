#include "simulator/served_device.h"

#include <algorithm>
#include <charconv>
#include <ostream>

#include "simulator/cdc_function.h"
#include "simulator/ftdi_adapter.h"
#include "simulator/new_file.h"

namespace tavosim {
namespace {

constexpr char kSeparator = ',';

// The parts of "ABC,XYZ".
std::vector<std::string> Split(const std::string& text) {
  std::vector<std::string> parts{""};
  for (const char c : text) {
    if (c == kSeparator) {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  return parts;
}

std::optional<std::uint8_t> ParseByte(const std::string& text) {
  std::uint8_t byte = 0;
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, byte);
  return result.ec == std::errc{} && result.ptr == end ? std::optional(byte) : std::nullopt;
}

// Five bits a letter, A is 1.
std::optional<std::uint16_t> ModuleCode(const std::string& name) {
  unsigned code = 0;
  for (const char letter : name) {
    if (letter < 'A' || letter > 'Z') return std::nullopt;
    code = code << 5 | static_cast<unsigned>(letter - 'A' + 1);
  }
  if (name.size() != 3) return std::nullopt;
  return static_cast<std::uint16_t>(code);
}

template <class To, class From>
void Override(To& to, const std::optional<From>& from) {
  if (from) to = static_cast<To>(*from);
}

SimTime Milliseconds(double count) {
  return std::chrono::round<SimTime>(std::chrono::duration<double, std::milli>(count));
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
  if (!from.openTunnel.empty()) to.openTunnel = ParseTunnel(from.openTunnel).value();
  to.writeAddressAdvances = from.writeAddress == "advances";
  to.answersCloseTunnel = !from.noCloseAnswer;
  to.answersLeaveInApplication = from.leaveAnswer;
  if (from.deviceIdAnswers == "admin") to.deviceIdAnswers = DeviceIdAnswers::AdminOnly;
  if (from.deviceIdAnswers == "neither") to.deviceIdAnswers = DeviceIdAnswers::Neither;
  if (!from.modules.empty()) to.resetModules = ParseModules(from.modules).value();
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
  FtdiOptions options{.strings = strings, .channels = from.channels};
  Override(options.deviceBaud, from.baud);
  auto adapter = std::make_unique<FtdiAdapter>(device, line, options);
  if (from.latencyMs)
    adapter->Control({kVendorOut, kSetLatency, static_cast<std::uint16_t>(*from.latencyMs), 0, 0},
                     {}, SimTime{0});
  return adapter;
}

void WritePortFile(std::uint16_t port, const std::string& portFile) {
  // A waiting reader never sees half a number.
  NewFile file(PathOf(portFile), Existing::Replace);
  file.Write(std::to_string(port) + "\n");
  file.Name();
}

}  // namespace

const Family* FamilyCalled(const std::string& text) {
  const auto found = std::ranges::find(kFamilies, text, NumbersOf);
  return found != kFamilies.end() ? &*found : FindFamily(text);
}

std::string NumbersOf(const Family& family) {
  const unsigned id = family.hardwareId;
  return std::to_string(id >> 12) + "." + std::to_string(id >> 8 & 0xF) + "." +
         std::to_string(id >> 4 & 0xF);
}

std::optional<std::uint16_t> ParseTunnel(const std::string& text) {
  const std::vector<std::string> parts = Split(text);
  if (parts.size() != 2) return std::nullopt;
  const std::optional<std::uint8_t> master = ParseByte(parts[0]);
  const std::optional<std::uint8_t> slave = ParseByte(parts[1]);
  if (!master || !slave) return std::nullopt;
  return static_cast<std::uint16_t>(*master << 8 | *slave);
}

std::optional<std::vector<std::uint16_t>> ParseModules(const std::string& text) {
  std::vector<std::uint16_t> codes;
  for (const std::string& name : Split(text)) {
    const std::optional<std::uint16_t> code = ModuleCode(name);
    if (!code) return std::nullopt;
    codes.push_back(*code);
  }
  return codes;
}

ServedDevice::ServedDevice(const SimulatorArguments& arguments, std::ostream& messages)
    : m_device(OptionsOf(arguments), FaultsOf(arguments)),
      m_front(MakeFront(m_device, arguments)),
      m_server(*m_front, ServerOptionsFor(arguments, messages)) {
  if (!arguments.state.empty()) m_state.emplace(PathOf(arguments.state), m_device);
  if (!arguments.portFile.empty()) WritePortFile(m_server.Port(), arguments.portFile);
}

usbip::ServerOptions ServedDevice::ServerOptionsFor(const SimulatorArguments& arguments,
                                                    std::ostream& messages) {
  usbip::ServerOptions options{.port = static_cast<std::uint16_t>(arguments.listen),
                               .busId = arguments.busId,
                               .kernelDriver = arguments.kernelDriver};
  options.message = [&messages](const std::string& text) { messages << text << std::endl; };
  options.afterStep = [this](SimTime now) {
    if (m_state) m_state->Update(now);
  };
  return options;
}

}  // namespace tavosim
