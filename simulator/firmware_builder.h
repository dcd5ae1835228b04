// Builds firmware as its makers would: an image that describes itself, its Intel HEX text, and a
// ZIP archive of such texts. Tests, the demonstration and the simulated device use it. It shares no
// code with the update library, so that neither can hide a misreading of the format by the other.
//
//   FirmwareRecipe recipe = RecipeFor(family);
//   recipe.seed = 7;
//   const Firmware firmware = BuildFirmware(recipe);
//   WriteFile(path, ZipArchive({{"fw.hex", HexText(firmware)}}));
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/checksum.h"
#include "simulator/families.h"

namespace tavosim {

struct Firmware {
  std::vector<std::uint8_t> data;
  std::uint32_t startAddress = 0;
  std::uint32_t adbAddress = 0;  // where the descriptor block was put
};

// The firmware's entry for one device variant.
struct FirmwareEntry {
  std::uint16_t deviceId;
  std::vector<std::uint16_t> hardwareIds;
};

enum class FirmwareFill {
  Mixed,     // program-like content with blank blocks in between
  AllBlank,  // 0xFF except for trailer and descriptor block
  NoBlank,
};

struct FirmwareRecipe {
  std::uint64_t seed = 1;  // of the content; equal recipes give equal firmware
  std::uint32_t startAddress = 0;
  std::size_t size = 0;         // bytes
  std::size_t blockSize = 128;  // bytes; blank blocks are whole blocks
  FirmwareFill fill = FirmwareFill::Mixed;
  // Replaces the generated content at the start of the image; 0xFF follows.
  std::optional<std::vector<std::uint8_t>> content{};

  std::uint8_t adbType = 6;
  std::uint16_t mcuId = 0;  // in the ADB where its type has a place for it, else in the trailer
  std::uint16_t hardwareId = 0;          // ADB types other than 5 and 7
  std::vector<FirmwareEntry> entries{};  // ADB types 5 and 7
  bool validTrailer = true;              // false: the trailer points to no ADB
};

// The firmware that a device of the family takes. With an entry table its device is in the last of
// three entries, and only that entry allows its hardware id.
FirmwareRecipe RecipeFor(const Family& family);

// The bytes at the end of the image that describe it. The recipe's size plays no part in them, but
// whether the image ends above 0xFFFF does.
std::size_t DescriptionSize(const FirmwareRecipe& recipe);

// Throws std::invalid_argument when the recipe does not fit into `size` bytes or, with its address,
// into what the format can express. The last four bytes are the CRC-32 of all bytes before them,
// low byte first, for every recipe.
Firmware BuildFirmware(const FirmwareRecipe& recipe);

// Records of `recordSize` (1 to 255) data bytes that never cross a 64 KiB boundary, with an address
// record wherever the upper address changes.
std::string HexText(const Firmware& firmware, std::size_t recordSize = 16,
                    std::string_view lineEnd = "\r\n");

struct ZipMember {
  std::string name;  // ends in '/' for a folder
  std::string text;
};

// The bytes of an archive with the members in this order. Equal members give equal bytes. Throws
// std::runtime_error for members that do not make an archive.
std::string ZipArchive(const std::vector<ZipMember>& members);

// Throws std::runtime_error when the file cannot be written whole.
void WriteFile(const std::filesystem::path& path, std::string_view bytes);

}  // namespace tavosim
