// inspect: everything that an update file says, on the screen or as JSON, and whether it fits a device. Without
// a device only the file is opened.
#include <algorithm>
#include <iomanip>
#include <memory>
#include <optional>
#include <ostream>

#include "commands/commands.h"
#include "device/device_answers.h"
#include "file/block_map.h"
#include "file/package_json.h"
#include "file/package_report.h"
#include "text/json.h"
#include "text/options.h"
#include "text/text_format.h"
#include "update/closing_state.h"
#include "update/fit.h"

namespace tavo::tool {
namespace {

constexpr std::uint32_t kDefaultBlockSize = 128;
constexpr int kLeastWidth = 40;
constexpr int kMostWidth = 96;
constexpr std::size_t kNameWidth = 20;
constexpr std::size_t kLabelWidth = 15;

struct Options {
  std::string file;
  std::uint32_t blockSize = kDefaultBlockSize;
  bool json = false;
  TargetOptionsValues target{};

  bool NamesDevice() const { return !target.usbPort.empty() || !target.ftdiSerial.empty(); }
};

// Where the screen goes, and how many characters a line of it may have.
struct Screen {
  std::ostream& out;
  std::size_t width;
};

Screen ScreenOf(const Machine& machine) {
  const int width = machine.terminal ? machine.width() : kMostWidth;
  return {machine.out, static_cast<std::size_t>(std::clamp(width, kLeastWidth, kMostWidth))};
}

// A label and its text, which goes on below itself where it is too long for the line.
void PutWrapped(const Screen& screen, std::size_t indent, std::size_t labelWidth,
                const std::string& label, const std::string& text) {
  std::ostream& out = screen.out;
  out << std::string(indent, ' ') << label;
  std::size_t used = indent + label.size();
  const std::size_t column = indent + labelWidth + 1;
  if (used >= column) {
    out << '\n';
    used = 0;
  }
  out << std::string(column - used, ' ');
  std::size_t room = screen.width - column;
  std::size_t at = 0;
  while (text.size() - at > room) {
    std::size_t cut = text.rfind(' ', at + room);
    if (cut == std::string::npos || cut <= at) cut = at + room;
    out << text.substr(at, cut - at) << '\n' << std::string(column, ' ');
    at = text[cut] == ' ' ? cut + 1 : cut;
  }
  out << text.substr(at) << '\n';
}

std::string FileName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::string VerdictText(const MemberReport& member) {
  const std::string image = member.image ? "image " + std::to_string(*member.image + 1) : "";
  switch (member.verdict) {
    case Verdict::Used: return "used, " + image;
    case Verdict::Spoils: return image + ", for which the whole file is refused: " + member.reason;
    case Verdict::NeverChosen: return image + ", which no device takes: " + member.reason;
    default: return "left out: " + member.reason;
  }
}

void PutMembers(const Screen& screen, const PackageReport& report) {
  screen.out << "\nMembers\n";
  for (const MemberReport& member : report.members) {
    const bool isFileItself = member.name == report.path;
    const std::string name = isFileItself ? FileName(member.name) : member.name;
    PutWrapped(screen, 2, kNameWidth, Displayable(name), Displayable(VerdictText(member)));
    for (const std::string& warning : member.warnings) {
      PutWrapped(screen, 2, kNameWidth, "", "warning: " + Displayable(warning));
    }
  }
}

class ImageScreen {
 public:
  ImageScreen(const Screen& screen, const ImageReport& image, std::uint32_t blockSize)
      : m_screen(screen),
        m_out(screen.out),
        m_image(image),
        m_map(MapBlocks(image.image, blockSize)) {}

  void Put() {
    PutAddresses();
    for (const std::string& warning : m_image.warnings) Row("Warning", warning);
    if (m_image.adbType == 0) return Row("Descriptor", m_image.obstacle);
    PutDescription();
    PutBlockMap();
    PutLine();
    PutFits();
  }

 private:
  void Row(const std::string& label, const std::string& text) {
    PutWrapped(m_screen, 2, kLabelWidth, label, text);
  }

  std::size_t Size() const { return m_image.image.data.size(); }
  bool HasWholeBlocks() const { return Size() % m_map.blockSize == 0; }

  void PutAddresses() {
    if (Size() == 0) return Row("Addresses", "no bytes");
    std::string size = Format("%zu bytes", Size());
    if (Size() % 1024 == 0) size += Format(" (%zu KiB)", Size() / 1024);
    Row("Addresses", Format("0x%08X to 0x%08llX, ", m_image.image.startAddress,
                            static_cast<unsigned long long>(m_image.endAddress - 1)) +
                         size);
  }

  void PutDescription() {
    Row("Descriptor", Format("ADB of type %u at 0x%08X; addresses have %u bytes", m_image.adbType,
                             m_image.adbAddress, m_image.addressWidth));
    Row("MCU-ID", McuText());
    if (m_image.hasEntryTable) {
      PutEntries();
    } else {
      Row("Hardware id", HardwareIdsText(m_image.hardwareIds));
    }
    Row("Route", m_image.route.master == -1 ? "direct, no tunnel"
                                            : Format("tunnel, master %d, slave %d",
                                                     m_image.route.master, m_image.route.slave));
    Row("Message kind", Format("requests to the application have id 0x%X", m_image.requestId));
    Row("Ends in CRC-32", m_image.endsInCrc ? "yes" : "no");
  }

  std::string McuText() const {
    if (!m_image.mcuId) return "none";
    if (*m_image.mcuId == -1) return "outside the image";
    const std::string id = Format("0x%03X, ", static_cast<unsigned>(*m_image.mcuId));
    return id + (m_image.processorId ? Format("processor 0x%06X", *m_image.processorId)
                                     : "which no processor is known for");
  }

  // The place in the table is the label that the device is given.
  void PutEntries() {
    Row("Entry table", Format("%zu entries", m_image.entries.size()));
    for (std::size_t i = 0; i < m_image.entries.size(); ++i) {
      const EntryReport& entry = m_image.entries[i];
      const std::string device =
          entry.deviceId ? Format("device 0x%04X", *entry.deviceId) : "device unknown";
      const std::string ids =
          entry.readable ? HardwareIdsText(entry.hardwareIds) : "cannot be read";
      Row("", Format("%3zu  %s  ", i, device.c_str()) + ids);
    }
  }

  void PutBlockMap() {
    constexpr std::size_t kAddressWidth = 16;  // with the blanks around it
    const ScaledMap scaled =
        ScaleMap(m_map, std::min(kMostCharacters, m_screen.width - kAddressWidth));
    m_out << "\n  Block map: " << m_map.blocks.size() << " blocks of " << m_map.blockSize
          << " bytes, " << scaled.blocksPerCharacter
          << (scaled.blocksPerCharacter == 1 ? " block" : " blocks") << " a character\n";
    std::uint64_t address = m_image.image.startAddress;
    for (const std::string& row : scaled.rows) {
      m_out << "    " << Format("0x%08llX  ", static_cast<unsigned long long>(address)) << row
            << '\n';
      address += scaled.charactersPerRow * scaled.blocksPerCharacter * m_map.blockSize;
    }
    m_out << "    " << kAllData << " data";
    if (scaled.blocksPerCharacter > 1) m_out << "   " << kSomeData << " some data";
    m_out << "   " << kBlankWritten << " blank, written   " << kBlankSkipped << " blank, skipped\n";
  }

  void PutLine() {
    m_out << "\n  On the line\n";
    Row("Blocks", Format("%zu with data, %zu blank and written, %zu blank and skipped",
                         m_map.Count(BlockUse::Data), m_map.Count(BlockUse::BlankWritten),
                         m_map.Count(BlockUse::BlankSkipped)));
    Row("Requests",
        Format("%llu, each of them answered", static_cast<unsigned long long>(m_map.requests)));
    Row("Bytes", Format("%llu sent, %llu received at least",
                        static_cast<unsigned long long>(m_map.bytesSent),
                        static_cast<unsigned long long>(m_map.bytesReceived)));
    std::string times;
    for (const std::uint32_t baud : kLineRates) {
      times += Format("%s%.2f s at %u baud", times.empty() ? "" : ", ", m_map.Seconds(baud), baud);
    }
    Row("Takes at least", times);
  }

  void PutFits() {
    m_out << "\n  Fits devices with\n";
    if (!m_image.obstacle.empty()) return Row("None", m_image.obstacle);
    Row("Processor", m_image.processorId ? Format("0x%06X", *m_image.processorId)
                                         : "any that no other image is for");
    Row("Application", Format("exactly %zu KiB", Size() / 1024));
    Row("Block size", HasWholeBlocks()
                          ? Format("any up to %u that divides the image, as %u does",
                                   kMaxWritableBlockSize, m_map.blockSize)
                          : Format("any up to %u that divides the image; %u does not, the map and "
                                   "the line above are for nothing",
                                   kMaxWritableBlockSize, m_map.blockSize));
    Row("Hardware id", m_image.hasEntryTable ? "one that the entry of the device's id lists"
                                             : HardwareIdsText(m_image.hardwareIds));
    Row("", "(a 15 in a device's own hardware id fits any number in its place)");
  }

  const Screen& m_screen;
  std::ostream& m_out;
  const ImageReport& m_image;
  BlockMap m_map;
};

const char* Headline(const PackageReport& report) {
  if (!report.CouldBeWritten()) return "no device can accept this file";
  return report.PassesHardwareCheck() ? "usable" : "usable only with --skip-identity-check";
}

void PutScreen(const Screen& screen, const PackageReport& report, std::uint32_t blockSize) {
  std::ostream& out = screen.out;
  out << Displayable(report.path) << ": " << Headline(report) << '\n';
  if (!report.members.empty()) PutMembers(screen, report);
  for (std::size_t i = 0; i < report.images.size(); ++i) {
    out << "\nImage " << i + 1;
    if (report.kind == UpdateFileKind::Zip) out << ": " << Displayable(report.images[i].member);
    out << '\n';
    ImageScreen(screen, report.images[i], blockSize).Put();
  }
}

struct Fit {
  Place place;
  DeviceFacts facts;
  std::string misfit;  // empty: nothing that the device answers speaks against the file
  bool answers = false;
  bool isComplete = false;  // a bootloader has answered: it alone knows processor and hardware
  ExitCode exit = ExitCode::Done;
};

Fit FitOf(const Machine& machine, const PackageReport& report, const Options& options) {
  const DeviceAnswers answers = AskDevice(
      machine, options.target,
      {.command = "inspect " + FileWord(options.file), .route = RouteBehind(options.file, {})});
  const auto misfit = Misfit(report, answers.place, answers.report);
  Fit fit{.place = answers.place,
          .facts = FactsOf(answers.report),
          .misfit = misfit ? misfit->text : "",
          .answers = answers.report.AnythingAnswered(),
          .isComplete = answers.report.bootloaderVersion.has_value()};
  if (misfit || !fit.answers) fit.exit = FailedWith(answers.report);
  return fit;
}

std::string FitText(const Fit& fit) {
  if (!fit.misfit.empty()) return "does not fit: " + fit.misfit;
  if (fit.isComplete) return "fits";
  return "fits, as far as a running application answers; only its bootloader knows processor, size "
         "and hardware id";
}

void PutFit(const Screen& screen, const Fit& fit, const std::string& file) {
  const std::string device = "Device " + fit.place.Options();
  screen.out << '\n' << device << (fit.answers ? "\n" : " does not respond\n");
  if (!fit.answers) return;
  if (const std::string facts = FactsText(fit.facts); !facts.empty()) {
    PutWrapped(screen, 2, kLabelWidth, "Reports", facts);
  }
  PutWrapped(screen, 2, kLabelWidth, "The file", FitText(fit));
  if (fit.isComplete || !fit.misfit.empty()) return;
  const Screen endless{screen.out, std::string::npos};  // a command stays in one piece
  PutWrapped(
      endless, 2, kLabelWidth, "To ask it",
      "firmware-updater info " + FileWord(file) + " --verify " + TargetOptions(fit.place.target));
}

Json FitJson(const Fit& fit) {
  Json json{{"kind", KindName(fit.place.target.kind)}, {"address", fit.place.target.address}};
  json.Append(AsJson(fit.facts));
  json.Set("fits", fit.answers ? Json(fit.misfit.empty()) : Json());
  json.Set("misfit", fit.misfit.empty() ? Json() : Json(fit.misfit));
  return json;
}

ExitCode Inspect(const Machine& machine, const Options& options) {
  const PackageReport report = ReportOn(options.file);
  std::optional<Fit> fit;
  if (options.NamesDevice() && report.CouldBeWritten()) fit = FitOf(machine, report, options);
  if (options.json) {
    Json document = PackageJson(report, options.blockSize);
    document.Set("device", fit ? FitJson(*fit) : Json());
    machine.out << document.Text(2) << '\n';
  } else if (report.CouldBeWritten() || !report.members.empty()) {
    PutScreen(ScreenOf(machine), report, options.blockSize);
  }
  if (fit && !options.json) PutFit(ScreenOf(machine), *fit, options.file);
  if (report.CouldBeWritten()) return fit ? fit->exit : ExitCode::Done;
  Complain(machine, Displayable(report.path) + ": " + report.problem, report.hint);
  return ExitCode::BadFile;
}

}  // namespace

void AddInspectCommand(CLI::App& app, const Machine& machine, ExitCode& exit) {
  CommandOptions command(app, "inspect",
                         "Show the content of an update file, its faults and its devices");
  const auto options = std::make_shared<Options>();
  command.Value("FILE", options->file, "Update file, .hex or .zip").Required();
  command.Flag("--json", options->json, "One JSON document instead of the screen");
  command
      .Value("--block-size", options->blockSize,
             "Bytes that the device writes at once, for block map and times")
      .Between(kMinBlockSize, kMaxWritableBlockSize)
      .WithDefault();
  AddTargetOptions(command, options->target);
  command.Footer(
      "With --usb or --ftdi that device is asked, and it is said whether the file fits it. "
      "Without, only "
      "the file is opened. Ends with exit code 4 when no device can accept the file.\n\n"
      "Examples:\n"
      "  firmware-updater inspect firmware.zip\n"
      "  firmware-updater inspect firmware.hex --usb 4-2\n"
      "  firmware-updater inspect --block-size 64 --json firmware.hex");
  command.OnRun(exit, [options, &machine] { return Inspect(machine, *options); });
}

}  // namespace tavo::tool
