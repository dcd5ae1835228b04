// A report on an update file, from one reading of it: the fate of each member, the purpose of each
// image, and whether any device can accept it. `inspect` shows it, `update` and `pack` judge by it. It
// opens nothing but the file, writes nothing and prints nothing.
//
//   const PackageReport report = ReportOn(path);
//   if (!report.CouldBeWritten()) Complain(machine, report.path + ": " + report.problem, report.hint);
//
// The judgement is the engine's own: a file that it refuses for every device is refused here. Facts
// that depend on the device are not judged but reported, as the device that an image needs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "package/firmware_image.h"
#include "package/hardware_identity.h"
#include "package/update_file.h"

namespace tavo::tool {

enum class Verdict {
  Used,            // it gives an image
  Spoils,          // the same, but an image for which the engine refuses the whole file
  NeverChosen,     // the same, but an image that no device accepts
  Folder,          // this and the following are left out
  WrongExtension,  // it does not end in .hex
  Damaged,
  Unsupported,  // encrypted, or compressed by an unknown method
  TooLarge,
  Replaced,  // by a later member of the same name
  NotConverted,
};

// Stable, for scripts: "used", "wrong-extension", ...
std::string_view VerdictName(Verdict verdict);

struct MemberReport {
  std::string name{};  // a HEX file by itself is its own only member, by the name of its path
  Verdict verdict = Verdict::Used;
  std::string reason{};    // empty for Used
  std::size_t line = 0;    // where `reason` is about a place in a text; both count from 1, 0 = none
  std::size_t column = 0;  // in bytes
  bool isCutOff = false;   // a HEX text without an end record
  std::vector<std::string> warnings{};
  std::optional<std::size_t> image{};  // index into the images
};

// One row of an image's entry table.
struct EntryReport {
  std::optional<std::uint16_t> deviceId{};   // none when it cannot be read
  std::vector<std::uint16_t> hardwareIds{};  // of a very long list the first ones
  std::size_t listLength = 0;
  bool readable = true;  // whether the list of hardware ids is whole
};

struct ImageReport {
  std::string member{};  // name of the member that it comes from
  FirmwareImage image{};
  std::int64_t endAddress = 0;  // one past the last byte
  std::uint8_t adbType = 0;     // of the descriptor block; 0 = none that is valid
  std::uint32_t adbAddress = 0;
  std::uint32_t addressWidth = 0;            // bytes of a stored address
  std::vector<std::uint16_t> hardwareIds{};  // without an entry table
  bool hasEntryTable = false;
  std::vector<EntryReport> entries{};
  std::optional<std::int32_t> mcuId{};  // -1 when it should be there but cannot be read
  std::optional<std::uint32_t> processorId{};
  TunnelRoute route{-1, -1};    // {-1, -1}: no tunnel. The first image's route holds for the update
  std::uint16_t requestId = 0;  // of the requests to the application
  bool endsInCrc = false;       // the last four bytes are the CRC-32 of the others
  std::string obstacle{};       // why no device can accept this image, in one sentence; else empty
  std::string remedy{};         // the way around the obstacle
  std::vector<std::string> warnings{};

  bool NamesHardware() const;  // without, no device passes the hardware check
};

struct PackageReport {
  std::string path{};
  std::string sha256{};  // of the bytes that the images come from
  UpdateFileKind kind = UpdateFileKind::Neither;
  std::string problem{};                // one sentence; empty: some device can accept the file
  std::string hint{};                   // the way around the problem
  std::vector<MemberReport> members{};  // in the order of the archive
  std::vector<ImageReport> images{};    // in the order in which the engine holds them

  bool CouldBeWritten() const { return problem.empty(); }
  bool PassesHardwareCheck() const;  // on some device
  // In the order that the engine expects.
  std::vector<FirmwareImage> Firmware() const;
};

// Both throw std::bad_alloc when file and report do not fit into memory, nothing else.
PackageReport ReportOn(const std::string& path);
// The same for a file whose bytes have been read already.
PackageReport ReportOn(const std::string& path, std::span<const std::uint8_t> bytes);

}  // namespace tavo::tool
