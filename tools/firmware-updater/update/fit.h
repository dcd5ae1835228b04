// Whether an update file is for a device, said in numbers: what the file is for, and what the device is.
// The engine judges the same by the same rules, but keeps the numbers to its log.
#pragma once

#include <optional>

#include "device/inquiry.h"
#include "device/place.h"
#include "file/package_report.h"
#include "update/record.h"

namespace tavo::tool {

// A value as DeviceFacts has it.
std::int32_t OrUnknown(std::optional<std::uint32_t> value);
DeviceFacts FactsOf(const DeviceReport& report);

// None: nothing that the device has reported speaks against the file. `flags` leave checks out as they
// do in an update.
std::optional<Failure> Misfit(const PackageReport& report, const DeviceFacts& device,
                              const UpdateFlags& flags);

// The same for a device that was asked at this place: also whether the file is for a device in such a place.
std::optional<Failure> Misfit(const PackageReport& report, const Place& place,
                              const DeviceReport& device);

// The image that the engine selects for this processor; null when it selects none.
const ImageReport* ImageFor(const PackageReport& report, std::uint32_t processorId);

// The tunnel to the device that the file is for; {-1, -1}: none. As the engine does, this goes by the first
// image.
TunnelRoute RouteOf(const PackageReport& report);
bool NeedsTunnel(const PackageReport& report);

bool SetsLabel(const PackageReport& report);

// The file is for a device behind this master, or for one that is connected directly; the device on
// the line is not.
Failure WrongRoad(const TunnelRoute& fileIsFor);

// "master 4, slave 1"
std::string RouteText(const TunnelRoute& route);

}  // namespace tavo::tool
