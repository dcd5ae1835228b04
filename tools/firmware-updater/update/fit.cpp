#include "update/fit.h"

#include <algorithm>
#include <set>
#include <vector>

#include "engine/error_code.h"
#include "package/hardware_identity.h"
#include "text/text_format.h"

namespace tavo::tool {
namespace {

constexpr std::uint8_t kLabellingAdbType = 5;

constexpr const char* kTakeAnother =
    "Use the update file for this device: `firmware-updater inspect FILE` shows which devices a "
    "file is for.";

Failure FailureOf(ErrorCode code, const std::string& text, const char* hint) {
  return {.name = std::string(kErrorTable[static_cast<std::size_t>(code)].name),
          .code = static_cast<int>(code),
          .text = text,
          .hint = hint};
}

// `slip`: a mistake in the device's answer, without which the file would fit; null: none is known.
Failure NotForThisDevice(ErrorCode code, const std::string& text, const char* slip) {
  return FailureOf(code, text, slip == nullptr ? kTakeAnother : slip);
}

std::uint16_t Swapped(std::int32_t value) {
  return static_cast<std::uint16_t>((value & 0xFF) << 8 | (value >> 8 & 0xFF));
}

std::string Listed(const std::set<std::string>& values) {
  constexpr std::size_t kMostShown = 6;
  std::string text;
  std::size_t shown = 0;
  for (const std::string& value : values) {
    if (shown == kMostShown) return text + " and others";
    text += (shown++ == 0 ? "" : ", ") + value;
  }
  return text;
}

std::string ProcessorText(std::uint32_t id) { return Hex(id, 6); }

std::string ProcessorsOf(const PackageReport& report) {
  std::set<std::string> names;
  for (const ImageReport& image : report.images) {
    if (image.processorId) names.insert(ProcessorText(*image.processorId));
  }
  return Listed(names);
}

// With an entry table it is the entry of the device's id; of an unknown id, any entry.
std::vector<std::uint16_t> AcceptedBy(const ImageReport& image, std::int32_t deviceId) {
  if (!image.hasEntryTable) return image.hardwareIds;
  std::vector<std::uint16_t> ids;
  for (const EntryReport& entry : image.entries) {
    if (deviceId != -1 && entry.deviceId != deviceId) continue;
    ids.insert(ids.end(), entry.hardwareIds.begin(), entry.hardwareIds.end());
  }
  return ids;
}

std::optional<Failure> HardwareMisfit(const ImageReport& image, const DeviceFacts& device) {
  const std::vector<std::uint16_t> accepted = AcceptedBy(image, device.deviceId);
  if (accepted.empty()) {
    const bool swapped = !AcceptedBy(image, Swapped(device.deviceId)).empty();
    return NotForThisDevice(
        ErrorCode::HardwareId,
        "the file is not for devices with the id " +
            Hex(static_cast<std::uint32_t>(device.deviceId)) + ", which this device has",
        swapped ? "The bytes are swapped: a device answers DEVICE ID low byte first." : nullptr);
  }
  const auto hardwareId = static_cast<std::uint16_t>(device.hardwareId);
  const auto fits = [&](std::uint16_t id) {
    return Accepts(SplitHardwareId(id), SplitHardwareId(hardwareId));
  };
  if (std::ranges::any_of(accepted, fits)) return std::nullopt;
  const auto fitsSwapped = [&](std::uint16_t id) {
    return Accepts(SplitHardwareId(id), SplitHardwareId(Swapped(device.hardwareId)));
  };
  const bool swapped = std::ranges::any_of(accepted, fitsSwapped);
  std::set<std::string> names;
  for (const std::uint16_t id : accepted) names.insert(HardwareIdText(id));
  return NotForThisDevice(
      ErrorCode::HardwareId,
      "the file is for hardware " + Listed(names) + ", the device is " + HardwareIdText(hardwareId),
      swapped ? "The bytes are swapped: a bootloader answers HARDWARE low byte first." : nullptr);
}

// No file fits a bootloader that reports such a block size.
std::optional<Failure> BadBlockSize(std::size_t section, const DeviceFacts& device) {
  const auto blockSize = static_cast<std::size_t>(std::max(device.blockSize, 0));
  const bool fitsFrame = blockSize > 0 && blockSize <= kMaxPayload;
  if (fitsFrame && section % blockSize == 0) return std::nullopt;
  const std::string why =
      fitsFrame ? Format("which does not divide the application section of %zu bytes", section)
                : Format("but a block has 1 to %u bytes", unsigned{kMaxPayload});
  return FailureOf(ErrorCode::ApplicationSize,
                   Format("the bootloader reports a block size of %zu, ", blockSize) + why,
                   "No update file fits this bootloader: the second byte of its answer to VERSION "
                   "is wrong.");
}

std::optional<Failure> SizeMisfit(const ImageReport& image, const DeviceFacts& device) {
  constexpr std::size_t kUnit = 1024;
  const std::size_t size = image.image.data.size();
  const auto room = static_cast<std::size_t>(device.applicationKiB) * kUnit;
  if (size == room) return BadBlockSize(size, device);
  const char* slip = nullptr;
  if (size == Swapped(device.applicationKiB) * kUnit) {
    slip = "The bytes are swapped: a bootloader answers SIZE low byte first.";
  } else if (size == static_cast<std::size_t>(device.applicationKiB)) {
    slip = "This is the size in bytes: a bootloader answers SIZE in KiB.";
  }
  return NotForThisDevice(ErrorCode::ApplicationSize,
                          Format("the firmware has %zu KiB, the device takes exactly %d KiB",
                                 size / kUnit, device.applicationKiB),
                          slip);
}

}  // namespace

std::int32_t OrUnknown(std::optional<std::uint32_t> value) {
  return value ? static_cast<std::int32_t>(*value) : -1;
}

DeviceFacts FactsOf(const DeviceReport& device) {
  return {.deviceId = OrUnknown(device.deviceId),
          .softwareId = OrUnknown(device.softwareId),
          .bootloaderVersion = OrUnknown(device.bootloaderVersion),
          .blockSize = OrUnknown(device.blockSize),
          .processorId = OrUnknown(device.processorId),
          .hardwareId = OrUnknown(device.hardwareId),
          .applicationKiB = OrUnknown(device.applicationKiB)};
}

const ImageReport* ImageFor(const PackageReport& report, std::uint32_t processorId) {
  const ImageReport* general = nullptr;
  for (const ImageReport& image : report.images) {
    if (image.processorId == processorId) return &image;
    if (!image.mcuId) general = &image;
  }
  return general;
}

std::optional<Failure> Misfit(const PackageReport& report, const DeviceFacts& device,
                              const UpdateFlags& flags) {
  if (device.processorId == -1) return std::nullopt;
  const auto processorId = static_cast<std::uint32_t>(device.processorId);
  const ImageReport* const image = ImageFor(report, processorId);
  if (image == nullptr) {
    const std::uint32_t swapped =
        std::uint32_t{Swapped(device.processorId >> 8)} | (processorId & 0xFF) << 16;
    return NotForThisDevice(
        ErrorCode::Firmware,
        "the file is for processor " + ProcessorsOf(report) + ", the device has " +
            ProcessorText(processorId),
        ImageFor(report, swapped) == nullptr
            ? nullptr
            : "The bytes are swapped: a bootloader answers PROCESSOR high byte first.");
  }
  if (device.applicationKiB != -1) {
    if (auto misfit = SizeMisfit(*image, device)) return misfit;
  }
  return device.hardwareId == -1 || !flags.checkIdentity ? std::nullopt
                                                         : HardwareMisfit(*image, device);
}

TunnelRoute RouteOf(const PackageReport& report) {
  return report.images.empty() ? TunnelRoute{-1, -1} : report.images.front().route;
}

bool NeedsTunnel(const PackageReport& report) { return RouteOf(report).master != -1; }

bool SetsLabel(const PackageReport& report) {
  return std::ranges::count(report.images, kLabellingAdbType, &ImageReport::adbType) > 0;
}

std::optional<Failure> Misfit(const PackageReport& report, const Place& place,
                              const DeviceReport& device) {
  const TunnelRoute route = report.images.front().route;
  const bool behind = place.behind || device.IsMaster() || device.tunnel.value_or(0) != 0;
  if (device.AnythingAnswered() && behind != (route.master != -1)) return WrongRoad(route);
  return Misfit(report, FactsOf(device), UpdateFlags{});
}

Failure WrongRoad(const TunnelRoute& fileIsFor) {
  const bool direct = fileIsFor.master == -1;
  return {
      .name = "wrong-place",
      .code = 0,
      .text = direct ? "the file is for a device that is connected directly; the device here is "
                       "behind a master module"
                     : "the file is for a device behind " + RouteText(fileIsFor) +
                           "; the device here is connected directly",
      .hint = direct
                  ? "Use the update file for the device behind the master, or connect the device "
                    "that the file is for."
                  : "Use the update file for this device, or connect the master."};
}

std::string RouteText(const TunnelRoute& route) {
  return "master " + std::to_string(route.master) + ", slave " + std::to_string(route.slave);
}

}  // namespace tavo::tool
