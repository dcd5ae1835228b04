#include "update/fit.h"

#include <algorithm>
#include <set>
#include <vector>

#include "engine/error_code.h"
#include "package/hardware_identity.h"
#include "text/text_format.h"

namespace tavo::tool {
namespace {

constexpr const char* kTakeAnother =
    "Use the update file for this device: `firmware-updater inspect FILE` shows which devices a "
    "file is "
    "for.";

Failure NotForThisDevice(ErrorCode code, const std::string& text) {
  return {.name = std::string(kErrorTable[static_cast<std::size_t>(code)].name),
          .code = static_cast<int>(code),
          .text = text,
          .hint = kTakeAnother};
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
    return NotForThisDevice(ErrorCode::HardwareId,
                            "the file is not for devices with the id " +
                                Hex(static_cast<std::uint32_t>(device.deviceId)) +
                                ", which this device has");
  }
  const auto hardwareId = static_cast<std::uint16_t>(device.hardwareId);
  const auto fits = [&](std::uint16_t id) {
    return Accepts(SplitHardwareId(id), SplitHardwareId(hardwareId));
  };
  if (std::ranges::any_of(accepted, fits)) return std::nullopt;
  std::set<std::string> names;
  for (const std::uint16_t id : accepted) names.insert(HardwareIdText(id));
  return NotForThisDevice(ErrorCode::HardwareId, "the file is for hardware " + Listed(names) +
                                                     ", the device is " +
                                                     HardwareIdText(hardwareId));
}

std::optional<Failure> SizeMisfit(const ImageReport& image, const DeviceFacts& device) {
  constexpr std::size_t kUnit = 1024;
  const std::size_t size = image.image.data.size();
  const auto room = static_cast<std::size_t>(device.applicationKiB) * kUnit;
  if (size != room) {
    return NotForThisDevice(
        ErrorCode::ApplicationSize,
        Format("the firmware has %zu bytes, the device takes exactly %zu", size, room));
  }
  if (device.blockSize > 0 && size % static_cast<std::size_t>(device.blockSize) == 0) {
    return std::nullopt;
  }
  return NotForThisDevice(ErrorCode::ApplicationSize,
                          Format("the firmware has %zu bytes, which is no whole number of the "
                                 "device's blocks of %d bytes",
                                 size, device.blockSize));
}

}  // namespace

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
    return NotForThisDevice(ErrorCode::Firmware, "the file is for processor " +
                                                     ProcessorsOf(report) + ", the device has " +
                                                     ProcessorText(processorId));
  }
  if (device.applicationKiB != -1) {
    if (auto misfit = SizeMisfit(*image, device)) return misfit;
  }
  return device.hardwareId == -1 || !flags.checkIdentity ? std::nullopt
                                                         : HardwareMisfit(*image, device);
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
