// The cost of writing an image for a chosen block size: which of its blocks are written, and how many
// requests and bytes that takes on the line.
//
//   const BlockMap map = MapBlocks(image, 128);
//   map.Seconds(19200)
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "package/firmware_image.h"

namespace tavo::tool {

enum class BlockUse : std::uint8_t {
  Data,
  BlankWritten,  // only 0xFF, but written all the same
  BlankSkipped,
};

// The block sizes that a device can report and an update can write.
inline constexpr std::uint32_t kMinBlockSize = 1;
inline constexpr std::uint32_t kMaxWritableBlockSize = 128;

inline constexpr std::array<std::uint32_t, 3> kLineRates{19200, 115200, 921600};  // baud

struct BlockMap {
  std::uint32_t blockSize = 0;  // bytes
  std::vector<BlockUse> blocks{};
  std::array<std::size_t, 3> counts{};  // by BlockUse
  std::uint64_t requests = 0;           // of the writing phase; each is answered
  std::uint64_t bytesSent = 0;          // in frames, to the device
  std::uint64_t bytesReceived = 0;      // in answers, if they are as short as can be

  std::size_t Count(BlockUse use) const { return counts[static_cast<std::size_t>(use)]; }
  std::uint64_t BytesOnLine() const { return bytesSent + bytesReceived; }

  // The time that the bytes alone take, at ten bits each.
  double Seconds(std::uint32_t baud) const;
};

// `blockSize` is kMinBlockSize to kMaxWritableBlockSize.
BlockMap MapBlocks(const FirmwareImage& image, std::uint32_t blockSize);

struct ScaledMap {
  std::size_t blocksPerCharacter = 1;
  std::size_t charactersPerRow = 0;
  std::vector<std::string> rows{};
};

// The characters of a scaled map: all data, some data, blank and some of it written, all skipped.
inline constexpr char kAllData = '#';
inline constexpr char kSomeData = '+';
inline constexpr char kBlankWritten = '.';
inline constexpr char kBlankSkipped = '-';

// The map in at most 16 rows.
inline constexpr std::size_t kMostCharacters = 64;
ScaledMap ScaleMap(const BlockMap& map, std::size_t charactersPerRow = kMostCharacters);

}  // namespace tavo::tool
