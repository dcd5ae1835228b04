// info: asks one device who it is and what it is doing, and leaves it as it was.
#include <algorithm>
#include <array>
#include <memory>
#include <ostream>
#include <utility>
#include <vector>

#include "commands/commands.h"
#include "device/inquiry.h"
#include "device/session.h"
#include "device/target_choice.h"
#include "package/hardware_identity.h"
#include "text/json.h"
#include "text/log_platform.h"
#include "text/options.h"
#include "text/text_format.h"

namespace tavo::tool {
namespace {

using Facts = std::vector<std::pair<std::string, std::string>>;

constexpr int kDocumentVersion = 1;

struct Options {
  TargetOptionsValues target{};
  bool json = false;
};

enum class Doing { Application, Bootloader, Hidden, Silent };

// The command is also the one after an update that was broken off: a killed one names none itself.
struct Description {
  Doing doing;
  const char* name;      // stable, for scripts
  const char* sentence;  // for people; a command follows, when there is one
  const char* command;
};

// clang-format off
constexpr std::array kDescriptions{
    Description{Doing::Application, "application",
                "It runs its application. To update it: ", "update"},
    Description{Doing::Bootloader,  "bootloader",  "It sits in its bootloader: ", "recover"},
    Description{Doing::Hidden,      "hidden",
                "A module answers, but neither an application nor a bootloader was heard: a master module "
                "hides the device behind it until a tunnel is opened, which this command never does. "
                "Whatever it is doing, this updates it: ", "recover"},
    Description{Doing::Silent,      "silent",      "Nothing answered.", nullptr},
};
// clang-format on

const Description& DescriptionOf(const DeviceReport& report) {
  const Doing doing = report.inBootloader         ? Doing::Bootloader
                      : report.RunsApplication()  ? Doing::Application
                      : report.AnythingAnswered() ? Doing::Hidden
                                                  : Doing::Silent;
  return *std::ranges::find(kDescriptions, doing, &Description::doing);
}

std::string NextCommand(const Description& description, const Target& target) {
  if (description.command == nullptr) return {};
  return std::string("firmware-updater ") + description.command + " FILE " + TargetOptions(target);
}

const McuRow* FindMcu(std::uint32_t processorId) {
  const auto row = std::ranges::find(McuTable, processorId, &McuRow::processorId);
  return row == McuTable.end() ? nullptr : &*row;
}

int MasterOf(std::uint16_t tunnel) { return tunnel >> 8; }
int SlaveOf(std::uint16_t tunnel) { return tunnel & 0xFF; }

// --- for people ---

std::string TunnelText(std::uint16_t tunnel) {
  if (tunnel == 0) return "closed";
  return "open to master " + std::to_string(MasterOf(tunnel)) + ", slave " +
         std::to_string(SlaveOf(tunnel));
}

std::string ProcessorText(std::uint32_t id) {
  const McuRow* const mcu = FindMcu(id);
  return Hex(id, 6) + (mcu == nullptr
                           ? std::string(" (unknown)")
                           : Format(" (MCU-ID 0x%03X)", static_cast<unsigned>(mcu->mcuId)));
}

std::string HardwareText(std::uint16_t id) {
  const HardwareIdRecord fields = SplitHardwareId(id);
  return Hex(id) + " (Serie " + std::to_string(fields.serie) + ", Type " +
         std::to_string(fields.type) + ", Module " + std::to_string(fields.module) + ", Variant " +
         std::to_string(fields.variant) + ")";
}

Facts FactsOf(const DeviceReport& report) {
  Facts facts;
  if (report.deviceId) facts.emplace_back("device id", Hex(*report.deviceId));
  if (report.softwareId) facts.emplace_back("software id", Hex(*report.softwareId));
  if (report.inBootloader) {
    facts.emplace_back("bootloader", "version " + std::to_string(*report.bootloaderVersion) +
                                         ", blocks of " + std::to_string(*report.blockSize) +
                                         " bytes");
  }
  if (report.processorId) facts.emplace_back("processor", ProcessorText(*report.processorId));
  if (report.applicationKiB) {
    facts.emplace_back("application", "up to " + std::to_string(*report.applicationKiB) + " KiB");
  }
  if (report.hardwareId) facts.emplace_back("hardware id", HardwareText(*report.hardwareId));
  if (report.tunnel) facts.emplace_back("tunnel", TunnelText(*report.tunnel));
  return facts;
}

void WriteText(std::ostream& to, const Target& target, const DeviceReport& report) {
  constexpr std::size_t kColumn = 13;
  Facts facts = FactsOf(report);
  facts.emplace(facts.begin(), "device", TargetOptions(target));
  for (const auto& [name, value] : facts) {
    to << name << std::string(kColumn - name.size(), ' ') << value << '\n';
  }
  const Description& description = DescriptionOf(report);
  to << description.sentence << NextCommand(description, target) << '\n';
}

// --- for scripts: ids by the names and in the form that the record of an update has ---

Json TunnelJson(std::uint16_t tunnel) {
  if (tunnel == 0) return {{"open", false}};
  return {{"open", true}, {"master", MasterOf(tunnel)}, {"slave", SlaveOf(tunnel)}};
}

Json McuIdJson(std::uint32_t processorId) {
  const McuRow* const mcu = FindMcu(processorId);
  return mcu == nullptr ? Json() : Json(mcu->mcuId);
}

Json HardwareJson(std::uint16_t id) {
  const HardwareIdRecord fields = SplitHardwareId(id);
  return {{"serie", fields.serie},
          {"type", fields.type},
          {"module", fields.module},
          {"variant", fields.variant}};
}

void WriteJson(std::ostream& to, const Target& target, const DeviceReport& report) {
  const Description& description = DescriptionOf(report);
  const std::string next = NextCommand(description, target);
  const Json document{
      {"version", kDocumentVersion},
      {"kind", KindName(target.kind)},
      {"address", target.address},
      {"state", description.name},
      {"deviceId", report.deviceId},
      {"softwareId", report.softwareId},
      {"processorId", report.processorId},
      {"mcuId", report.processorId ? McuIdJson(*report.processorId) : Json()},
      {"hardwareId", report.hardwareId},
      {"hardware", report.hardwareId ? HardwareJson(*report.hardwareId) : Json()},
      {"bootloaderVersion", report.bootloaderVersion},
      {"blockSize", report.blockSize},
      {"applicationKiB", report.applicationKiB},
      {"tunnel", report.tunnel ? TunnelJson(*report.tunnel) : Json()},
      {"next", next.empty() ? Json() : Json(next)},
  };
  to << document.Text(2) << '\n';
}

// --- the command ---

std::string SilenceHint(const Target& target) {
  const std::string adapter =
      target.kind == TransportKind::Ftdi ? "check --baud and --echo; " : std::string();
  return adapter +
         "it may be without power or just starting: ask again in ten seconds; a device whose "
         "master module left a tunnel open may be silent too";
}

ExitCode Tell(const Machine& machine, const Options& options, const Target& target,
              const DeviceReport& report) {
  if (options.json) WriteJson(machine.out, target, report);
  if (!report.AnythingAnswered()) {
    Complain(machine, "the device at " + TargetOptions(target) + " answers nothing",
             SilenceHint(target));
    return ExitCode::FailedUnknown;
  }
  if (!options.json) WriteText(machine.out, target, report);
  return ExitCode::Done;
}

ExitCode Info(const Machine& machine, const Options& options) {
  const TargetChoice choice = ChooseTarget(machine, options.target);
  if (!choice.target) return choice.exit;
  LogPlatform quiet(machine.platform, {}, nullptr);
  Session session(machine, quiet);
  if (const std::string problem = session.Open(*choice.target); !problem.empty()) {
    Complain(machine, problem, "`firmware-updater list` shows what stands in the way");
    return ExitCode::NoDevice;
  }
  Inquiry inquiry(session.Transport(), quiet);
  return Tell(machine, options, *choice.target, AskWho(inquiry));
}

}  // namespace

void AddInfoCommand(CLI::App& app, const Machine& machine, ExitCode& exit) {
  CommandOptions command(app, "info",
                         "Ask a device who it is and what it is doing, changing nothing");
  const auto options = std::make_shared<Options>();
  AddTargetOptions(command, options->target);
  command.Flag("--json", options->json, "Write one JSON document");
  command.Footer(
      "Without --usb and --ftdi the only connected USB device is asked.\n\n"
      "Examples:\n"
      "  firmware-updater info\n"
      "  firmware-updater info --ftdi TAVO0001 --baud 115200 --json");
  command.OnRun(exit, [&machine, options] { return Info(machine, *options); });
}

}  // namespace tavo::tool
