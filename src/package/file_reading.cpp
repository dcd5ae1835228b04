#include "package/file_reading.h"

#include <cstdio>
#include <new>

#include "platform/file.h"

namespace tavo {
namespace {

// The number of bytes in the file, which is then at its start again; 0 also for one too
// long to be read whole.
std::size_t RewoundSize(std::FILE* file) {
  if (std::fseek(file, 0, SEEK_END) != 0) return 0;
  const long size = std::ftell(file);
  std::rewind(file);
  if (size <= 0) return 0;
  const auto bytes = static_cast<std::size_t>(size);
  return bytes <= kMaxUpdateTextBytes ? bytes : 0;
}

}  // namespace

std::vector<std::uint8_t> ReadWholeFile(const std::string& path) try {
  const FileHandle file = OpenForReading(path);
  if (file == nullptr) return {};
  std::vector<std::uint8_t> bytes(RewoundSize(file.get()));
  // A file that shrinks meanwhile has only what was read.
  bytes.resize(std::fread(bytes.data(), 1, bytes.size(), file.get()));
  return bytes;
} catch (const std::bad_alloc&) {
  return {};
}

}  // namespace tavo
