#include "file/block_map.h"

#include <algorithm>
#include <span>

#include "transport/frame_codec.h"

namespace tavo::tool {
namespace {

constexpr std::size_t kRows = 16;
constexpr std::size_t kColumns = 64;

constexpr std::uint8_t kAddressBytes = 4;  // of a positioning request
constexpr double kBitsPerByte = 10;        // start, eight data bits, stop

std::uint64_t FrameBytes(std::uint8_t payload) {
  FrameBuffer frame{};
  TavoMessage message;
  message.length = payload;
  const FrameCodec& codec = kFrameCodecs[0];
  std::uint8_t frameEnd = 0;
  bool acceptable = false;
  if (!codec.Encode(message, frame)) return 0;
  codec.ParseHeader(frame[0], &frameEnd, &acceptable);
  return std::uint64_t{frameEnd} + 1;
}

bool IsBlank(std::span<const std::uint8_t> block) {
  return std::ranges::all_of(block, [](std::uint8_t byte) { return byte == 0xFF; });
}

// The first block and each that follows a written one that holds data are written, blank or not;
// from a written blank one on the blank ones are skipped.
std::vector<BlockUse> UseOf(const FirmwareImage& image, std::uint32_t blockSize) {
  std::vector<BlockUse> uses;
  std::span<const std::uint8_t> rest = image.data;
  bool skipsBlank = false;
  while (!rest.empty()) {
    const auto block = rest.first(std::min<std::size_t>(blockSize, rest.size()));
    rest = rest.subspan(block.size());
    if (!IsBlank(block)) {
      uses.push_back(BlockUse::Data);
      skipsBlank = false;
    } else {
      uses.push_back(skipsBlank ? BlockUse::BlankSkipped : BlockUse::BlankWritten);
      skipsBlank = true;
    }
  }
  return uses;
}

char CharacterFor(std::span<const BlockUse> blocks) {
  const auto isUsed = [](BlockUse wanted) { return [=](BlockUse use) { return use == wanted; }; };
  if (std::ranges::all_of(blocks, isUsed(BlockUse::Data))) return kAllData;
  if (std::ranges::any_of(blocks, isUsed(BlockUse::Data))) return kSomeData;
  return std::ranges::any_of(blocks, isUsed(BlockUse::BlankWritten)) ? kBlankWritten
                                                                     : kBlankSkipped;
}

}  // namespace

double BlockMap::Seconds(std::uint32_t baud) const {
  return static_cast<double>(BytesOnLine()) * kBitsPerByte / baud;
}

BlockMap MapBlocks(const FirmwareImage& image, std::uint32_t blockSize) {
  BlockMap map{.blockSize = blockSize, .blocks = UseOf(image, blockSize)};
  for (const BlockUse use : map.blocks) ++map.counts[static_cast<std::size_t>(use)];
  const std::uint64_t written = map.Count(BlockUse::Data) + map.Count(BlockUse::BlankWritten);
  // The positioning request just past the image ends the phase.
  const std::uint64_t positionings = written + 1;
  map.requests = positionings + written;
  map.bytesSent = positionings * FrameBytes(kAddressBytes) +
                  written * FrameBytes(static_cast<std::uint8_t>(blockSize));
  map.bytesReceived = map.requests * FrameBytes(0);
  return map;
}

ScaledMap ScaleMap(const BlockMap& map) {
  ScaledMap scaled{.charactersPerRow = kColumns};
  while (map.blocks.size() > scaled.blocksPerCharacter * kColumns * kRows) {
    scaled.blocksPerCharacter *= 2;
  }
  std::span<const BlockUse> rest = map.blocks;
  while (!rest.empty()) {
    const auto group = rest.first(std::min(scaled.blocksPerCharacter, rest.size()));
    rest = rest.subspan(group.size());
    if (scaled.rows.empty() || scaled.rows.back().size() == kColumns) scaled.rows.emplace_back();
    scaled.rows.back() += CharacterFor(group);
  }
  return scaled;
}

}  // namespace tavo::tool
