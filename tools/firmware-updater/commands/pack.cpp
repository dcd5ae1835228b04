// pack: builds update files from raw binaries, from a recipe for demonstration firmware, or by
// collecting HEX files in an archive. The output gets its name only when it passes `inspect`.
#include <algorithm>
#include <charconv>
#include <filesystem>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>

#include "commands/commands.h"
#include "commands/simulator_options.h"
#include "file/file_check.h"
#include "file/package_report.h"
#include "package/file_reading.h"
#include "simulator/device.h"
#include "simulator/firmware_builder.h"
#include "simulator/new_file.h"
#include "simulator/served_device.h"
#include "system/system.h"
#include "text/text_format.h"

namespace tavo::tool {
namespace {

namespace fs = std::filesystem;
using tavosim::Existing;
using tavosim::Firmware;
using tavosim::FirmwareRecipe;
using tavosim::NewFile;

constexpr std::size_t kSizeUnit = 1024;
constexpr std::uintmax_t kMaxBinaryBytes = 0xFF0000;  // the reach of stored addresses

struct Options {
  std::string binary{};
  std::uint32_t address = 0;
  std::optional<std::uint32_t> size{};
  std::optional<std::uint32_t> adbType{};
  std::string hardwareId{};
  std::uint32_t mcuId = 0;
  std::vector<std::string> entries{};
  std::string family{};
  std::uint32_t seed = 1;
  std::vector<std::string> members{};
  std::string output{};
  std::string raw{};
  bool force = false;
};

[[noreturn]] void Refuse(std::string text, std::string hint, ExitCode exit = ExitCode::Usage) {
  throw Refusal{exit, "pack", std::move(text), std::move(hint)};
}

// --- numbers ---

std::optional<unsigned> Number(std::string_view text) {
  const bool isHex = text.starts_with("0x") || text.starts_with("0X");
  if (isHex) text.remove_prefix(2);
  unsigned value = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), value, isHex ? 16 : 10);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts{""};
  for (const char c : text) {
    if (c == separator) {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  return parts;
}

// "0x8410" or "8.4.1.0".
std::uint16_t ParseHardwareId(const std::string& text) {
  const std::vector<std::string> fields = Split(text, '.');
  const unsigned limit = fields.size() == 4 ? 0xF : 0xFFFF;
  const bool isComplete = fields.size() == 4 || fields.size() == 1;
  unsigned id = 0;
  for (const std::string& field : fields) {
    const std::optional<unsigned> value = Number(field);
    if (!isComplete || !value || *value > limit) {
      Refuse("'" + text + "' is not a hardware id", "write it as 0x8410 or as 8.4.1.0");
    }
    id = id << 4 | *value;
  }
  if (id == 0) Refuse("hardware id 0 means no hardware", "give the id that the devices report");
  return static_cast<std::uint16_t>(id);
}

// "0x0503=8.4.3.0,8.4.3.1".
tavosim::FirmwareEntry ParseEntry(const std::string& text) {
  const std::vector<std::string> sides = Split(text, '=');
  const std::optional<unsigned> device = Number(sides.front());
  if (sides.size() != 2 || !device || *device > 0xFFFF) {
    Refuse("'" + text + "' is not an entry", "write it as DEVICE=HARDWARE[,HARDWARE...]");
  }
  tavosim::FirmwareEntry entry{static_cast<std::uint16_t>(*device), {}};
  for (const std::string& id : Split(sides[1], ',')) {
    entry.hardwareIds.push_back(ParseHardwareId(id));
  }
  return entry;
}

// --- images ---

std::vector<std::uint8_t> ReadBinary(const std::string& path) {
  const FileProblem problem = CheckReadable(path, kMaxBinaryBytes);
  if (problem.Exists()) Refuse(path + ": " + problem.text, problem.hint, ExitCode::BadFile);
  std::vector<std::uint8_t> bytes = ReadWholeFile(path);
  if (bytes.empty()) Refuse(path + ": the file is empty", "check the path", ExitCode::BadFile);
  return bytes;
}

bool TakesEntries(unsigned adbType) { return adbType == 5 || adbType == 7; }

void CheckDescription(const Options& options) {
  const bool takesEntries = TakesEntries(*options.adbType);
  if (takesEntries && (options.entries.empty() || !options.hardwareId.empty())) {
    Refuse("ADB types 5 and 7 name their hardware in entries",
           "give --entry DEVICE=HARDWARE[,HARDWARE...] for each device, and no --hardware-id");
  }
  if (!takesEntries && (options.hardwareId.empty() || !options.entries.empty())) {
    Refuse("ADB types other than 5 and 7 name one hardware id",
           "give --hardware-id, and no --entry");
  }
}

std::size_t RoundedUp(std::size_t bytes) { return (bytes + kSizeUnit - 1) / kSizeUnit * kSizeUnit; }

FirmwareRecipe RecipeFromOptions(const Options& options, std::vector<std::uint8_t> content) {
  CheckDescription(options);
  FirmwareRecipe recipe;
  recipe.startAddress = options.address;
  recipe.adbType = static_cast<std::uint8_t>(*options.adbType);
  recipe.mcuId = static_cast<std::uint16_t>(options.mcuId);
  if (!options.hardwareId.empty()) recipe.hardwareId = ParseHardwareId(options.hardwareId);
  for (const std::string& entry : options.entries) recipe.entries.push_back(ParseEntry(entry));
  recipe.size = content.size();  // for the width of the addresses, on which the rest depends
  recipe.size = options.size.value_or(RoundedUp(content.size() + DescriptionSize(recipe)));
  recipe.content = std::move(content);
  return recipe;
}

// A binary that describes itself is packed unchanged.
Firmware Finished(const Options& options, std::vector<std::uint8_t> content) {
  if (options.size || !options.hardwareId.empty() || options.mcuId != 0 ||
      !options.entries.empty()) {
    Refuse("without --adb-type the binary is packed unchanged",
           "give --adb-type, or leave out --size, --hardware-id, --mcu-id and --entry");
  }
  return {std::move(content), options.address, 0};
}

Firmware BuildFromBinary(const Options& options) {
  std::vector<std::uint8_t> content = ReadBinary(options.binary);
  if (!options.adbType) return Finished(options, std::move(content));
  return BuildFirmware(RecipeFromOptions(options, std::move(content)));
}

Firmware BuildDemonstration(const Options& options) {
  FirmwareRecipe recipe = RecipeFor(*tavosim::FamilyCalled(options.family));
  recipe.seed = options.seed;
  return BuildFirmware(recipe);
}

// --- output ---

std::string Collect(const Options& options) {
  std::vector<tavosim::ZipMember> members;
  for (const std::string& path : options.members) {
    const PackageReport report = ReportOn(path);
    if (report.kind != UpdateFileKind::Hex) {
      Refuse(path + ": only .hex files can be added", "unpack an archive and add the files in it",
             ExitCode::BadFile);
    }
    if (!report.CouldBeWritten()) {
      Refuse(path + ": " + report.problem, report.hint, ExitCode::BadFile);
    }
    const std::string name = TextOf(PathOf(path).filename());
    if (std::ranges::any_of(members, [&](const auto& other) { return other.name == name; })) {
      Refuse("two files are called '" + name + "'", "give one of them another name");
    }
    const std::vector<std::uint8_t> text = ReadWholeFile(path);
    members.push_back({name, std::string(text.begin(), text.end())});
  }
  return tavosim::ZipArchive(members);
}

std::string UpdateFileOf(const Options& options, const Firmware& firmware) {
  std::string text = HexText(firmware);
  if (KindByName(options.output) == UpdateFileKind::Hex) return text;
  const std::string name = TextOf(PathOf(options.output).stem()) + ".hex";
  return tavosim::ZipArchive({{name, std::move(text)}});
}

NewFile Output(const std::string& path, bool force) {
  std::error_code ignored;
  const fs::path place = PathOf(path);
  const bool exists = fs::exists(fs::symlink_status(place, ignored));
  if (exists && !fs::is_regular_file(place, ignored)) {
    Refuse(path + " exists and is not a regular file", "give another name");
  }
  if (exists && !force) Refuse(path + " exists already", "give --force to replace it");
  return {place, force ? Existing::Replace : Existing::Keep};
}

void CheckOptions(const Options& options) {
  const UpdateFileKind kind = KindByName(options.output);
  if (kind == UpdateFileKind::Neither) {
    Refuse("'" + options.output + "' does not name an update file",
           "give --output a name that ends in .hex or .zip");
  }
  const int sources =
      int{!options.binary.empty()} + int{!options.family.empty()} + int{!options.members.empty()};
  if (sources != 1) {
    Refuse("one of --image, --family and --add is needed",
           "firmware-updater pack --help shows an example of each");
  }
  if (options.members.empty()) return;
  if (kind != UpdateFileKind::Zip) {
    Refuse("HEX files are added to an archive", "give --output a name that ends in .zip");
  }
  if (!options.raw.empty()) Refuse("--raw needs one image", "leave --raw out");
}

// "0x00004000 to 0x00007FFF, 16384 bytes", its ids and its route: typing errors show here first.
void PutImage(std::ostream& out, const ImageReport& image) {
  out << "  "
      << Format("0x%08X to 0x%08llX, %zu bytes, ADB type %u", image.image.startAddress,
                static_cast<unsigned long long>(image.endAddress - 1), image.image.data.size(),
                image.adbType);
  if (image.mcuId) out << ", MCU-ID " << Hex(static_cast<std::uint32_t>(*image.mcuId), 3);
  if (image.route.master == -1) {
    out << ", direct\n";
  } else {
    out << Format(", tunnel %d.%d\n", image.route.master, image.route.slave);
  }
  if (!image.hasEntryTable) out << "  hardware " << HardwareIdsText(image.hardwareIds) << '\n';
  for (const EntryReport& entry : image.entries) {
    out << "  device " << Hex(entry.deviceId.value_or(0)) << ", hardware "
        << HardwareIdsText(entry.hardwareIds) << '\n';
  }
  for (const std::string& warning : image.warnings) {
    out << "  warning: " << Displayable(image.member) << ": " << warning << '\n';
  }
}

void Pack(const Machine& machine, const Options& options) {
  CheckOptions(options);
  NewFile output = Output(options.output, options.force);
  std::optional<NewFile> raw;
  if (!options.raw.empty()) {
    const auto place = [](const std::string& path) {
      return fs::weakly_canonical(fs::absolute(PathOf(path)));
    };
    if (place(options.raw) == place(options.output)) {
      Refuse("--raw and --output name the same file", "give one of them another name");
    }
    raw.emplace(Output(options.raw, options.force));
  }
  if (options.members.empty()) {
    const Firmware firmware =
        options.family.empty() ? BuildFromBinary(options) : BuildDemonstration(options);
    output.Write(UpdateFileOf(options, firmware));
    if (raw)
      raw->Write({reinterpret_cast<const char*>(firmware.data.data()), firmware.data.size()});
  } else {
    output.Write(Collect(options));
  }
  const PackageReport report = ReportOn(TextOf(output.Temporary()));
  for (const MemberReport& member : report.members) {
    if (member.verdict != Verdict::Used) {
      Refuse(report.problem.empty() ? "'" + member.name + "': " + member.reason : report.problem,
             report.hint.empty() ? "leave it out" : report.hint);
    }
  }
  output.Name();
  if (raw) raw->Name();
  machine.out << options.output << ": " << report.images.size()
              << (report.images.size() == 1 ? " image\n" : " images\n");
  for (const ImageReport& image : report.images) PutImage(machine.out, image);
}

ExitCode RunPack(const Machine& machine, const Options& options) try {
  Pack(machine, options);
  return ExitCode::Done;
} catch (const std::invalid_argument& error) {
  Complain(machine, error.what(), "change --size, --address or the description of the image");
  return ExitCode::Usage;
} catch (const std::runtime_error& error) {
  Complain(machine, error.what(), "check that the folder of the output exists and is writable");
  return ExitCode::Usage;
}

// 4000 means one thing to a person who reads addresses, and another to one who counts bytes.
std::string CheckAddress(const std::string& text) {
  return text.starts_with("0x") || text.starts_with("0X") ? "" : "write it with 0x, as 0x4000";
}

// All the others describe the raw binary.
void AddImageOptions(CommandOptions& command, Options& options) {
  Option image =
      command.Value("--image", options.binary, "Raw binary to make an image of").Shown("FILE");
  const Option address =
      command.Value("--address", options.address, "Device address of its first byte, as 0x4000")
          .Checked(CheckAddress)
          .Needs(image);
  image.Needs(address);
  command
      .Value("--size", options.size,
             "Size of the image in bytes, padded with 0xFF (default: the next whole KiB)")
      .Needs(image);
  command
      .Value("--adb-type", options.adbType,
             "Type of the descriptor block to add; without it, the binary brings its own")
      .Between(1U, 7U)
      .Needs(image);
  command.Value("--hardware-id", options.hardwareId, "Hardware id, as 0x8410 or as 8.4.1.0")
      .Shown("ID")
      .Needs(image);
  command.Value("--mcu-id", options.mcuId, "Kind of processor, for example 0x100")
      .Between(0U, 0xFFFFU)
      .Needs(image);
  command
      .Values("--entry", options.entries,
              "DEVICE=HARDWARE[,HARDWARE...], one for each device; ADB types 5 and 7")
      .Shown("ENTRY")
      .Needs(image);
}

constexpr const char* kExamples =
    "Examples:\n"
    "  firmware-updater pack --image app.bin --address 0x4000 --size 16384 \\\n"
    "            --adb-type 6 --hardware-id 8.4.1.0 --mcu-id 0x100 -o fw.hex\n"
    "  firmware-updater pack --image app.bin --address 0x4000 --adb-type 5 \\\n"
    "            --entry 0x0501=8.4.3.1 --entry 0x0502=8.4.3.2,8.4.3.3 -o fw.hex\n"
    "  firmware-updater pack --add left.hex --add right.hex -o fw.zip\n"
    "  firmware-updater pack --family plain --raw flash.bin -o demo.zip";

}  // namespace

void AddPackCommand(CLI::App& app, const Machine& machine, ExitCode& exit) {
  CommandOptions command(app, "pack", "Build an update file from raw binaries");
  const auto options = std::make_shared<Options>();
  AddImageOptions(command, *options);
  const Option family =
      AddFamilyOption(command, options->family,
                      "Make demonstration firmware for this family, by name or by numbers");
  command.Value("--seed", options->seed, "Demonstration firmware with other content")
      .WithDefault()
      .Needs(family);
  command.Values("--add", options->members, "HEX file to put into an archive; repeatable")
      .Shown("FILE");
  command.Value("-o,--output", options->output, "Update file to write, .hex or .zip")
      .Shown("FILE")
      .Required();
  command.Value("--raw", options->raw, "Also write the bytes that the flash holds afterwards")
      .Shown("FILE");
  command.Flag("--force", options->force, "Replace existing files");
  command.Footer(kExamples);
  command.OnRun(exit, [options, &machine] { return RunPack(machine, *options); });
}

}  // namespace tavo::tool
