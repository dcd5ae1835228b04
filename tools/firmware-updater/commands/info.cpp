// info: asks one device for its identity and state, and leaves it as it was.
#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <ostream>
#include <utility>
#include <vector>

#include "commands/commands.h"
#include "device/device_answers.h"
#include "device/dialogue.h"
#include "device/refused_text.h"
#include "package/hardware_identity.h"
#include "text/json.h"
#include "text/options.h"
#include "text/text_format.h"
#include "update/closing_state.h"
#include "update/fit.h"
#include "update/update_checks.h"

namespace tavo::tool {
namespace {

using Facts = std::vector<std::pair<std::string, std::string>>;

constexpr int kDocumentVersion = 1;

struct Options {
  TargetOptionsValues target{};
  std::string file{};
  std::string through{};
  bool json = false;
  bool trace = false;
  bool verify = false;
};

enum class State { Application, Bootloader, Master, Silent };

// The command is also the one after an update that was killed, which could name none itself.
struct Description {
  State state;
  const char* name;      // stable, for scripts
  const char* sentence;  // for people
  const char* aim;       // of the command
  const char* needs;     // as long as FILE stands in it for the right file
  const char* command;   // null: none
};

// clang-format off
constexpr std::array kDescriptions{
    Description{State::Application, "application", "It runs its application.",
                "To update it, run", " this with the update file for it", "update"},
    Description{State::Bootloader,  "bootloader",  "It is in its bootloader.",
                "To recover it, run", " this with the update file for it", "recover"},
    Description{State::Master,      "master",
                "It is a master module; devices behind it are reached through a tunnel.",
                "To look behind it, run",
                " this with the update file for the device there, or with --through MASTER.SLAVE", "info"},
    Description{State::Silent,      "silent",      "It does not respond.", nullptr, nullptr, nullptr},
};
// clang-format on

const Description& DescriptionOf(const DeviceReport& report) {
  const State state = report.inBootloader        ? State::Bootloader
                      : report.RunsApplication() ? State::Application
                      : report.IsMaster()        ? State::Master
                                                 : State::Silent;
  return *std::ranges::find(kDescriptions, state, &Description::state);
}

// The answers, and how the update file fits them.
struct Findings : DeviceAnswers {
  std::string file{};  // as given; empty: none
  std::optional<Failure> misfit{};

  bool NobodyBehind() const { return place.behind && report.IsMaster(); }
  bool FileFits() const { return !file.empty() && !misfit; }
};

struct VerdictRow {
  FlashVerdict verdict;
  const char* name;  // stable, for scripts
  const char* text;
};

// clang-format off
constexpr std::array kVerdicts{
    VerdictRow{FlashVerdict::Passed,       "passed",        "passes its bootloader's check: it is whole, whichever firmware it is"},
    VerdictRow{FlashVerdict::Failed,       "failed",        "fails its bootloader's check"},
    VerdictRow{FlashVerdict::NotSupported, "not-supported", "not checked: its bootloader cannot, before version 3"},
    VerdictRow{FlashVerdict::NoAnswer,     "no-answer",     "not checked: its bootloader does not answer that question"},
    VerdictRow{FlashVerdict::NoBootloader, "no-bootloader", "not checked: the device did not enter its bootloader"},
    VerdictRow{FlashVerdict::NotAsked,     "not-asked",     "not checked"},
};
// clang-format on

const VerdictRow& RowOf(FlashVerdict verdict) {
  return *std::ranges::find(kVerdicts, verdict, &VerdictRow::verdict);
}

// The update file names the tunnel itself.
std::string NextCommand(const Findings& found) {
  const Description& description = DescriptionOf(found.report);
  if (description.command == nullptr || found.NobodyBehind()) return {};
  return std::string("firmware-updater ") + description.command + " " +
         (found.FileFits() ? FileWord(found.file) : "FILE") + " " +
         TargetOptions(found.place.target);
}

std::string LastLine(const Findings& found) {
  const Description& description = DescriptionOf(found.report);
  std::string line = description.sentence;
  if (found.NobodyBehind()) {
    line += " No device responds behind " + RouteText(*found.place.behind) + ".";
  }
  if (found.misfit) line += " The file does not fit: " + found.misfit->text + ".";
  const std::string next = NextCommand(found);
  if (next.empty()) return line;
  return line + " " + description.aim + (found.FileFits() ? "" : description.needs) + ": " + next;
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

Facts Answers(const DeviceReport& report) {
  Facts facts;
  if (report.deviceId) facts.emplace_back("device id", Hex(*report.deviceId));
  if (report.softwareId) facts.emplace_back("software id", Hex(*report.softwareId));
  if (report.bootloaderVersion) {
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

std::string FlashText(const FlashCheck& flash) {
  const std::string text = RowOf(flash.verdict).text;
  if (!flash.calculated) return text;
  return text + " (calculated " + Hex(*flash.calculated, 8) + ", expected " +
         Hex(*flash.expected, 8) + ")";
}

void WriteText(std::ostream& to, const Findings& found) {
  constexpr std::size_t kColumn = 13;
  Facts facts = Answers(found.report);
  if (found.refused.Total() > 0) {
    facts.emplace_back(
        "refused", std::to_string(found.refused.Total()) + " bytes: " + ReasonsOf(found.refused));
  }
  if (found.flash) facts.emplace_back("flash", FlashText(*found.flash));
  facts.emplace(facts.begin(), "device", found.place.Options());
  for (const auto& [name, value] : facts) {
    to << name << std::string(kColumn - name.size(), ' ') << value << '\n';
  }
  to << LastLine(found) << '\n';
}

// --- for scripts: ids by the names and in the form that the record of an update has ---

Json TunnelJson(std::uint16_t tunnel) {
  if (tunnel == 0) return {{"open", false}};
  return {{"open", true}, {"master", MasterOf(tunnel)}, {"slave", SlaveOf(tunnel)}};
}

Json RouteJson(const TunnelRoute& route) {
  return {{"master", route.master}, {"slave", route.slave}};
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

Json FlashJson(const FlashCheck& flash) {
  return {{"verdict", RowOf(flash.verdict).name},
          {"calculated", flash.calculated},
          {"expected", flash.expected}};
}

void WriteJson(std::ostream& to, const Findings& found) {
  const auto& [place, report, refused, flash, stopped] = static_cast<const DeviceAnswers&>(found);
  const std::string next = NextCommand(found);
  const Json document{
      {"version", kDocumentVersion},
      {"kind", KindName(place.target.kind)},
      {"address", place.target.address},
      {"through", place.behind ? RouteJson(*place.behind) : Json()},
      {"state", DescriptionOf(report).name},
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
      {"refused", RefusedJson(refused)},
      {"verification", flash ? FlashJson(*flash) : Json()},
      {"misfit", found.misfit ? Json(found.misfit->text) : Json()},
      {"next", next.empty() ? Json() : Json(next)},
  };
  to << document.Text(2) << '\n';
}

// --- the command ---

std::string SilenceHint(const Place& place) {
  if (place.behind) return "check that device and its connection to the master";
  const std::string adapter =
      place.target.kind == TransportKind::Ftdi ? "check --baud; " : std::string();
  return adapter +
         "it may be without power or starting: ask again in ten seconds; a device whose master "
         "module left a tunnel open may be silent too";
}

// Without the verdict that the flash passes, and with a device that is not as it was found, --verify has failed.
ExitCode ExitOf(const Findings& found) {
  if (found.stopped) return ExitCode::Stopped;
  const auto& flash = found.flash;
  const bool done = !flash || (flash->verdict == FlashVerdict::Passed && !flash->lost);
  return done ? ExitCode::Done : FailedWith(found.report);
}

ExitCode Report(const Machine& machine, bool json, const Findings& found) {
  const auto& [place, report, refused, flash, stopped] = static_cast<const DeviceAnswers&>(found);
  if (json) WriteJson(machine.out, found);
  if (!report.AnythingAnswered()) {
    const std::string device = "the device at " + place.Options();
    const bool silent = refused.Total() == 0;
    const char* const silence = flash && flash->lost
                                    ? " does not respond since its application was to start again"
                                    : " does not respond";
    Complain(machine, device + (silent ? silence : ": " + NoAnswerAmong(refused)),
             silent ? SilenceHint(place) : HintOn(refused, place.target.kind));
    return ExitCode::FailedUnknown;
  }
  if (!json) WriteText(machine.out, found);
  if (flash && flash->lost) {
    Complain(machine, "the bootloader did not start the application again", {});
  }
  return ExitOf(found);
}

ExitCode Info(const Machine& machine, const Options& options) {
  std::optional<PackageReport> file;
  if (!options.file.empty()) file = CheckedFile(options.file);
  Findings found{AskDevice(machine, options.target,
                           {.command = "info",
                            .route = RouteBehind(options.file, options.through),
                            .flash = options.verify,
                            .trace = options.trace}),
                 options.file};
  if (file) found.misfit = Misfit(*file, found.place, found.report);
  return Report(machine, options.json, found);
}

}  // namespace

void AddInfoCommand(CLI::App& app, const Machine& machine, ExitCode& exit) {
  CommandOptions command(app, "info", "Ask a device for its identity and state, changing nothing");
  const auto options = std::make_shared<Options>();
  Option file = command.Value("FILE", options->file,
                              "Update file of the device: a tunnel that it needs is opened for the "
                              "questions and closed again");
  AddTargetOptions(command, options->target);
  AddThroughOption(command, options->through).Excludes(file);
  command.Flag(
      "--verify", options->verify,
      "Ask the bootloader whether the flash passes its check: a running application is left "
      "for that and started again");
  command.Flag("--json", options->json, "Write one JSON document");
  command.Flag("--trace", options->trace, kTraceHelp);
  command.Footer(
      "Without --usb and --ftdi the only connected USB device is asked.\n\n"
      "Examples:\n"
      "  firmware-updater info\n"
      "  firmware-updater info --usb 4-2 --through 4.1\n"
      "  firmware-updater info --verify\n"
      "  firmware-updater info --ftdi TAVO0001 --baud 115200 --json");
  command.OnRun(exit, [&machine, options] { return Info(machine, *options); });
}

}  // namespace tavo::tool
