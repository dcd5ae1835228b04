#include "package/file_reading.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "platform/file.h"
#include "platform/memory.h"

namespace tavo {
namespace {

// Large enough that the system calls cost nothing beside the copying.
constexpr std::size_t kPieceBytes = 16 * 1024;

// The number of bytes in the file, which is at its start again afterwards; 0 also for a file that is
// too long.
std::size_t RewoundSize(std::FILE* file) {
  if (std::fseek(file, 0, SEEK_END) != 0) return 0;
  const long size = std::ftell(file);
  std::rewind(file);
  if (size <= 0) return 0;
  const auto bytes = static_cast<std::size_t>(size);
  return bytes <= kMaxUpdateTextBytes ? bytes : 0;
}

}  // namespace

std::vector<std::uint8_t> ReadWholeFile(const std::string& path) {
  std::vector<std::uint8_t> bytes;
  const FileHandle file = OpenForReading(path);
  if (file == nullptr) return bytes;
  const std::size_t size = RewoundSize(file.get());
  bytes.reserve(size);
  WillBeFilled(bytes.data(), size);
  std::array<std::uint8_t, kPieceBytes> piece;
  while (bytes.size() < size) {
    const std::size_t wanted = std::min(size - bytes.size(), piece.size());
    const std::size_t read = std::fread(piece.data(), 1, wanted, file.get());
    if (read == 0) break;
    bytes.insert(bytes.end(), piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(read));
  }
  return bytes;
}

}  // namespace tavo
