#include "file/block_map.h"

#include <algorithm>
#include <span>

#include "package/image_blocks.h"
#include "transport/frame_codec.h"

namespace tavo::tool {
namespace {

constexpr std::size_t kRows = 16;

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

std::vector<BlockUse> UseOf(const FirmwareImage& image, std::uint32_t blockSize) {
  const ImageBlocks blocks(image.data, blockSize);
  std::vector<BlockUse> uses((blocks.ImageSize() + blockSize - 1) / blockSize,
                             BlockUse::BlankSkipped);
  for (std::uint32_t at = 0; at < blocks.ImageSize(); at = blocks.NextToWrite(at)) {
    uses[at / blockSize] = blocks.IsBlank(at) ? BlockUse::BlankWritten : BlockUse::Data;
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

ScaledMap ScaleMap(const BlockMap& map, std::size_t charactersPerRow) {
  ScaledMap scaled{.charactersPerRow = charactersPerRow};
  while (map.blocks.size() > scaled.blocksPerCharacter * charactersPerRow * kRows) {
    scaled.blocksPerCharacter *= 2;
  }
  std::span<const BlockUse> rest = map.blocks;
  while (!rest.empty()) {
    const auto group = rest.first(std::min(scaled.blocksPerCharacter, rest.size()));
    rest = rest.subspan(group.size());
    if (scaled.rows.empty() || scaled.rows.back().size() == charactersPerRow)
      scaled.rows.emplace_back();
    scaled.rows.back() += CharacterFor(group);
  }
  return scaled;
}

}  // namespace tavo::tool
