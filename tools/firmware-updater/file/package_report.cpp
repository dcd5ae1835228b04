#include "file/package_report.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <iterator>
#include <map>
#include <set>
#include <span>
#include <utility>

#include "file/digest.h"
#include "file/file_check.h"
#include "file/hex_survey.h"
#include "package/adb_view.h"
#include "package/file_reading.h"
#include "protocol/commands.h"
#include "simulator/checksum.h"
#include "text/text_format.h"

namespace tavo::tool {
namespace {

constexpr std::array<std::string_view, 10> kVerdictNames{
    "used",    "spoils",      "never-chosen", "folder",   "wrong-extension",
    "damaged", "unsupported", "too-large",    "replaced", "not-converted"};

// A device reports the size of its application section as a 16-bit count of these.
constexpr std::size_t kSizeUnit = 1024;
constexpr std::size_t kMaxSizeUnits = 0xFFFF;

constexpr std::size_t kCrcBytes = 4;
constexpr std::int64_t kTrailerBytes = 12;

// The lists of a damaged table may overlap and each be as long as the image.
constexpr std::size_t kMaxHardwareIdsShown = 256;

struct FateRow {
  MemberFate fate;
  Verdict verdict;
  std::string_view reason;
};

constexpr std::array kFates{
    FateRow{MemberFate::Unpacked, Verdict::Used, ""},
    FateRow{MemberFate::Folder, Verdict::Folder, "it is a folder"},
    FateRow{MemberFate::NotWanted, Verdict::WrongExtension, "its name does not end in .hex"},
    FateRow{MemberFate::Encrypted, Verdict::Unsupported, "it is encrypted"},
    FateRow{MemberFate::UnknownMethod, Verdict::Unsupported, "its compression method is unknown"},
    FateRow{MemberFate::TooLarge, Verdict::TooLarge, "it is too large"},
    FateRow{MemberFate::BadChecksum, Verdict::Damaged, "it is damaged: its CRC-32 does not match"},
    FateRow{MemberFate::Damaged, Verdict::Damaged, "it is damaged"},
    FateRow{MemberFate::NotConverted, Verdict::NotConverted, ""},  // the survey has the reason
};

// Reports the members as they are read.
class Collector {
 public:
  explicit Collector(PackageReport& report) : m_report(report) {}

  bool IsNoArchive() const { return m_isNoArchive; }

  void Add(const UpdateMember& member) {
    m_isNoArchive = member.fate == MemberFate::NoArchive;
    if (m_isNoArchive) return;
    MemberReport report = Judge(member);
    if (member.fate == MemberFate::Unpacked || member.fate == MemberFate::NotConverted) {
      Survey(member, report);
    }
    m_report.members.push_back(std::move(report));
  }

  // When all has been read: numbers the images. Returns how many there are.
  std::size_t NumberImages() {
    std::size_t images = 0;
    for (const auto& [name, index] : m_texts) {
      MemberReport& member = m_report.members[index];
      if (member.verdict == Verdict::Used) member.image = images++;
    }
    return images;
  }

 private:
  static MemberReport Judge(const UpdateMember& member) {
    const auto& row = *std::ranges::find(kFates, member.fate, &FateRow::fate);
    MemberReport report{
        .name = member.name, .verdict = row.verdict, .reason = std::string(row.reason)};
    if (row.fate == MemberFate::NotWanted && KindByName(member.name) == UpdateFileKind::Zip) {
      report.reason = "archives inside the archive are not opened";
    }
    if (!member.detail.empty()) report.reason += ": " + std::string(member.detail);
    return report;
  }

  void Survey(const UpdateMember& member, MemberReport& report) {
    Replace(member.name, report);
    HexSurvey survey = SurveyHex(member.text);
    report.isCutOff = survey.isCutOff;
    std::ranges::move(survey.warnings, std::back_inserter(report.warnings));
    if (!survey.fault) return;
    report.line = survey.fault->line;
    report.column = survey.fault->column;
    report.reason =
        Format("line %zu, column %zu: ", report.line, report.column) + survey.fault->text;
  }

  // The member about to be added takes the place of an earlier text of that name.
  void Replace(const std::string& name, MemberReport& report) {
    const auto [place, isFirst] = m_texts.try_emplace(name, m_report.members.size());
    if (isFirst) return;
    m_report.members[place->second] = {
        .name = name, .verdict = Verdict::Replaced, .reason = "a later member has the same name"};
    report.warnings.push_back("it replaces an earlier member of the same name");
    place->second = m_report.members.size();
  }

  PackageReport& m_report;
  std::map<std::string, std::size_t> m_texts{};  // index of the last member of a name
  bool m_isNoArchive = false;
};

bool EndsInCrc(std::span<const std::uint8_t> data) {
  if (data.size() < kCrcBytes) return false;
  std::uint32_t crc = tavosim::Crc32(data.first(data.size() - kCrcBytes));
  return std::ranges::all_of(data.last(kCrcBytes), [&crc](std::uint8_t byte) {
    return byte == (std::exchange(crc, crc >> 8) & 0xFF);
  });
}

std::vector<EntryReport> ReadEntries(const AdbView& view) {
  std::vector<EntryReport> entries;
  for (std::int32_t index = 0; index < view.EntryCount(); ++index) {
    EntryReport& entry = entries.emplace_back();
    const std::int32_t key = view.EntryKey(index);
    if (key != -1) entry.deviceId = static_cast<std::uint16_t>(key);
    entry.readable = view.HardwareIdList(index, entry.hardwareIds) != -1;
    entry.listLength = entry.hardwareIds.size();
    entry.hardwareIds.resize(std::min(entry.listLength, kMaxHardwareIdsShown));
    entry.hardwareIds.shrink_to_fit();
  }
  return entries;
}

void WarnOfEntries(ImageReport& report) {
  if (report.entries.empty()) report.warnings.push_back("the entry table has no entries");
  std::set<std::uint16_t> deviceIds;
  for (std::size_t i = 0; i < report.entries.size(); ++i) {
    const EntryReport& entry = report.entries[i];
    const auto warn = [&](const char* text) {
      report.warnings.push_back("entry " + std::to_string(i) + ": " + text);
    };
    if (!entry.deviceId) warn("the device id lies outside the image");
    if (!entry.readable) warn("the list of hardware ids has no end in the image");
    if (entry.readable && entry.hardwareIds.empty()) warn("the list of hardware ids is empty");
    if (entry.listLength > entry.hardwareIds.size()) warn("only the first hardware ids are shown");
    if (entry.deviceId && !deviceIds.insert(*entry.deviceId).second) {
      warn("an earlier entry is for the same device");
    }
  }
}

ImageReport Describe(FirmwareImage&& image) {
  ImageReport report{.image = std::move(image)};
  const AdbView view(report.image);
  report.endAddress = view.EndAddress();
  report.adbType = view.AdbType();
  if (report.adbType == 0) return report;
  report.adbAddress = view.AdbAddress();
  report.addressWidth = view.AddressWidth();
  report.hasEntryTable = view.HasEntryTable();
  if (report.hasEntryTable) {
    report.entries = ReadEntries(view);
    WarnOfEntries(report);
  } else {
    view.HardwareIdList(0, report.hardwareIds);
  }
  if (!report.NamesHardware()) {
    report.warnings.push_back(
        "the image names no hardware id, so no device passes the hardware check");
  }
  report.mcuId = view.McuId();
  if (report.mcuId) report.processorId = FindProcessorId(*report.mcuId);
  report.route = FindTunnelRoute(report.image);
  report.requestId = FindBootloaderMessageKind(report.image) != 0 ? kAlternativeApplicationRequest
                                                                  : kApplicationRequest;
  report.endsInCrc = EndsInCrc(report.image.data);
  return report;
}

constexpr const char* kFixWarnings =
    "fix the warnings of firmware-updater inspect first: misplaced bytes hide the descriptor block";

std::string Quoted(const std::string& name) { return "'" + Displayable(name) + "'"; }

// The address in the trailer, and the bytes that stand there.
std::string DescriptorFault(const FirmwareImage& image) {
  const AdbView view(image);
  const std::uint32_t address = view.AdbAddress();
  const auto type = view.ReadByte(std::int64_t{address} + 1);
  if (address != 0 && view.ReadByte(address) && type) {
    return Format("the trailer points to 0x%08X, where the type is %u instead of 1 to 7", address,
                  unsigned{*type});
  }
  return Format("the trailer at 0x%08llX points to 0x%08X, outside the image",
                static_cast<unsigned long long>(view.EndAddress() - kTrailerBytes), address);
}

// Judges images as the engine chooses among them, for any device.
class Judge {
 public:
  explicit Judge(const std::vector<ImageReport>& images) : m_images(images) {
    for (std::size_t i = 0; i < images.size(); ++i) {
      if (!images[i].mcuId) m_candidates.push_back(i);
      if (images[i].processorId) m_firstFor.try_emplace(*images[i].processorId, i);
    }
  }

  FileProblem ObstacleOf(std::size_t index) const {
    const ImageReport& image = m_images[index];
    if (image.adbType == 0) return NoDescriptor(image);
    if (image.mcuId && !image.processorId) return UnknownMcu(*image.mcuId);
    if (image.processorId && m_firstFor.at(*image.processorId) != index) {
      return {"the image of " + Quoted(m_images[m_firstFor.at(*image.processorId)].member) +
                  " is for the same processor and is always chosen first",
              "remove one of the two from the archive"};
    }
    if (!image.mcuId && m_candidates.size() > 1) return Ambiguous(index);
    return BadSize(image.image.data.size());
  }

 private:
  static FileProblem NoDescriptor(const ImageReport& image) {
    if (image.image.data.empty()) {
      return {"the file has no data records", "ask for the file again"};
    }
    return {"the image has no valid descriptor block: " + DescriptorFault(image.image),
            "use firmware that describes itself, or build it with firmware-updater pack"};
  }

  static FileProblem UnknownMcu(std::int32_t mcuId) {
    const std::string fault =
        mcuId == -1 ? "the image's MCU-ID lies outside the image"
                    : Format("the image's MCU-ID 0x%03X is unknown", static_cast<unsigned>(mcuId));
    return {fault + ", so no device accepts it", "check the MCU-ID that the image was built with"};
  }

  FileProblem Ambiguous(std::size_t index) const {
    const std::size_t other = m_candidates.front() == index ? m_candidates[1] : m_candidates[0];
    return {"neither this image nor that of " + Quoted(m_images[other].member) +
                " names an MCU-ID, so the update cannot choose between them",
            "build all but one of them with an MCU-ID"};
  }

  static FileProblem BadSize(std::size_t size) {
    if (size % kSizeUnit == 0 && size / kSizeUnit <= kMaxSizeUnits) return {};
    return {Format("the image is %zu bytes long, but application sections are whole KiB, at most "
                   "%zu",
                   size, kMaxSizeUnits),
            "fill the image up with 0xFF to exactly the size of the application section"};
  }

  const std::vector<ImageReport>& m_images;
  std::vector<std::size_t> m_candidates{};
  std::map<std::uint32_t, std::size_t> m_firstFor{};
};

// The first image decides how the update talks to the device, whichever is chosen later.
void WarnOfOtherWays(std::vector<ImageReport>& images) {
  for (ImageReport& image : images) {
    const ImageReport& first = images.front();
    if (image.route == first.route && image.requestId == first.requestId) continue;
    image.warnings.push_back(
        "route or message kind differs from the first image, which decides for all");
  }
}

void JudgeImages(PackageReport& report) {
  const Judge judge(report.images);
  for (std::size_t i = 0; i < report.images.size(); ++i) {
    const FileProblem obstacle = judge.ObstacleOf(i);
    report.images[i].obstacle = obstacle.text;
    report.images[i].remedy = obstacle.hint;
  }
  for (MemberReport& member : report.members) {
    if (!member.image) continue;
    ImageReport& image = report.images[*member.image];
    member.reason = image.obstacle;
    if (image.adbType == 0) {
      member.verdict = Verdict::Spoils;
      if (!member.warnings.empty()) image.remedy = kFixWarnings;
    } else if (!image.obstacle.empty()) {
      member.verdict = Verdict::NeverChosen;
    }
  }
}

FileProblem NoImage(const PackageReport& report) {
  if (report.kind == UpdateFileKind::Hex && !report.members.empty()) {
    return {report.members.front().reason, "ask for the file again"};
  }
  if (report.members.empty()) {
    return {"the archive is empty", "ask for an archive of HEX files"};
  }
  for (const MemberReport& member : report.members) {
    if (KindByName(member.name) != UpdateFileKind::Hex) continue;
    return {"no member contains an image: " + Quoted(member.name) + ": " + member.reason,
            "run firmware-updater inspect to see every member, and ask for the file again"};
  }
  for (const MemberReport& member : report.members) {
    if (KindByName(member.name) != UpdateFileKind::Zip) continue;
    return {"no member ends in .hex, but the archive contains another one: " + Quoted(member.name),
            "unpack it and use the archive inside"};
  }
  return {"no member ends in .hex", "ask for an archive of HEX files"};
}

FileProblem JudgePackage(const PackageReport& report) {
  if (report.images.empty()) return NoImage(report);
  const bool isArchive = report.kind == UpdateFileKind::Zip;
  const auto obstacle = [&](const ImageReport& image) {
    return isArchive ? Quoted(image.member) + ": " + image.obstacle : image.obstacle;
  };
  for (const ImageReport& image : report.images) {
    if (image.adbType != 0) continue;
    if (report.images.size() == 1) return {obstacle(image), image.remedy};
    return {obstacle(image) + "; this one member makes every update refuse the file",
            "remove " + Quoted(image.member) + " from the archive"};
  }
  for (const ImageReport& image : report.images) {
    if (image.obstacle.empty()) return {};
  }
  return {obstacle(report.images.front()), report.images.front().remedy};
}

void Refuse(PackageReport& report, const FileProblem& problem) {
  report.problem = problem.text;
  report.hint = problem.hint;
}

void ReadImages(PackageReport& report, std::span<const std::uint8_t> bytes) {
  Collector collector(report);
  std::vector<FirmwareImage> images =
      MakeImages(report.path, bytes, [&](const UpdateMember& member) { collector.Add(member); });
  if (collector.IsNoArchive()) return Refuse(report, ExplainNoArchive(bytes));
  [[maybe_unused]] const std::size_t numbered = collector.NumberImages();
  assert(images.size() == numbered);
  for (FirmwareImage& image : images) report.images.push_back(Describe(std::move(image)));
  for (const MemberReport& member : report.members) {
    if (member.image) report.images[*member.image].member = member.name;
  }
  JudgeImages(report);
  WarnOfOtherWays(report.images);
  Refuse(report, JudgePackage(report));
}

}  // namespace

bool ImageReport::NamesHardware() const {
  if (!hasEntryTable) return !hardwareIds.empty();
  return std::ranges::any_of(entries, [](const EntryReport& entry) {
    return entry.deviceId && entry.readable && !entry.hardwareIds.empty();
  });
}

bool PackageReport::PassesHardwareCheck() const {
  return CouldBeWritten() && std::ranges::any_of(images, [](const ImageReport& image) {
           return image.obstacle.empty() && image.NamesHardware();
         });
}

std::string_view VerdictName(Verdict verdict) {
  return kVerdictNames[static_cast<std::size_t>(verdict)];
}

PackageReport ReportOn(const std::string& path) {
  const FileProblem problem = CheckReadable(path, kMaxUpdateTextBytes);
  if (!problem.Exists()) return ReportOn(path, ReadWholeFile(path));
  PackageReport report{.path = path, .kind = KindByName(path)};
  Refuse(report, problem);
  return report;
}

std::vector<FirmwareImage> PackageReport::Firmware() const {
  std::vector<FirmwareImage> firmware;
  for (const ImageReport& report : images) firmware.push_back(report.image);
  return firmware;
}

PackageReport ReportOn(const std::string& path, std::span<const std::uint8_t> bytes) {
  PackageReport report{.path = path, .sha256 = Sha256(bytes), .kind = KindByName(path)};
  if (const FileProblem problem = CheckUpdateFile(path, bytes); problem.Exists()) {
    Refuse(report, problem);
  } else {
    ReadImages(report, bytes);
  }
  return report;
}

}  // namespace tavo::tool
