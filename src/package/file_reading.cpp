#include "package/file_reading.h"

#include <algorithm>
#include <cstdio>
#include <new>

#include "platform/file.h"

namespace tavo {
namespace {

// Large enough that a call of the system costs nothing beside the copying, small enough to stay in
// the processor's cache until the text has been converted.
constexpr std::size_t kPieceBytes = 64 * 1024;

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

class Collector : public TextSink {
 public:
  std::vector<std::uint8_t> bytes;

  void OnBegin(std::size_t size) override { bytes.reserve(size); }
  void OnBytes(std::span<const std::uint8_t> piece) override {
    bytes.insert(bytes.end(), piece.begin(), piece.end());
  }
};

}  // namespace

void ReadFile(const std::string& path, TextSink& sink) {
  const FileHandle file = OpenForReading(path);
  std::size_t left = file == nullptr ? 0 : RewoundSize(file.get());
  sink.OnBegin(left);
  std::vector<std::uint8_t> buffer(std::min(left, kPieceBytes));
  while (left > 0) {
    const std::size_t wanted = std::min(left, buffer.size());
    const std::size_t read = std::fread(buffer.data(), 1, wanted, file.get());
    sink.OnBytes(std::span(buffer).first(read));
    if (read < wanted) return;
    left -= read;
  }
}

std::vector<std::uint8_t> ReadWholeFile(const std::string& path) try {
  Collector collector;
  ReadFile(path, collector);
  return std::move(collector.bytes);
} catch (const std::bad_alloc&) {
  return {};
}

}  // namespace tavo
