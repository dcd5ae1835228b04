// The blocks in which an image is written to the flash, and which of them can be left out because they
// hold nothing but what the erase has left there. The write step goes by it, and so does the tool's
// block map.
//
//   const ImageBlocks blocks(image.data, blockSize);
//   for (std::uint32_t at = 0; at < blocks.ImageSize(); at = blocks.NextToWrite(at)) Write(blocks.At(at));
//
// Offsets are in bytes from the start of the image. Of an image that is no whole number of blocks the
// last block is a short one.
#pragma once

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <span>

namespace tavo {

inline constexpr std::uint8_t kErasedByte = 0xFF;

class ImageBlocks {
 public:
  // The image must stay unchanged for as long as this is used; `blockSize` is not 0.
  ImageBlocks(std::span<const std::uint8_t> image, std::uint32_t blockSize)
      : m_image(image), m_blockSize(blockSize) {
    assert(blockSize != 0);
  }

  std::uint32_t ImageSize() const { return static_cast<std::uint32_t>(m_image.size()); }

  std::span<const std::uint8_t> At(std::uint32_t offset) const {
    assert(offset < m_image.size() && offset % m_blockSize == 0);
    const auto rest = m_image.subspan(offset);
    return rest.first(std::min<std::size_t>(m_blockSize, rest.size()));
  }

  bool IsBlank(std::uint32_t offset) const {
    return std::ranges::all_of(At(offset), [](std::uint8_t byte) { return byte == kErasedByte; });
  }

  // The block to write after the one at `offset`; the size of the image when that was the last. A
  // block after one with data is always written, so that a single blank block costs no look-ahead on
  // the device; from a blank block on, the following blank ones are skipped.
  std::uint32_t NextToWrite(std::uint32_t offset) const {
    std::uint64_t next = offset;
    while (next < m_image.size() && IsBlank(static_cast<std::uint32_t>(next))) next += m_blockSize;
    if (next == offset) next += m_blockSize;
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(next, m_image.size()));
  }

  // The bytes of all whole blocks that are not blank.
  std::uint32_t BytesWithData() const {
    std::uint32_t bytes = 0;
    for (std::uint32_t block = 0; block < ImageSize() / m_blockSize; ++block) {
      if (!IsBlank(block * m_blockSize)) bytes += m_blockSize;
    }
    return bytes;
  }

 private:
  std::span<const std::uint8_t> m_image;
  std::uint32_t m_blockSize;
};

}  // namespace tavo
