// bench-load: loads an update file as an update does, once, and reports the memory that it took.
//
//   bench-load FILE [OUTPUT]    OUTPUT: the first image, flat
//
// Prints the process's resident memory before, its peak, and the bytes of all images.
#include <cstdio>
#include <fstream>
#include <string>

#include "package/update_file.h"
#include "platform/file.h"

namespace {

// In KiB, from the kernel.
long Memory(const std::string& key) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(key + ":")) return std::stol(line.substr(key.size() + 1));
  }
  return 0;
}

bool Write(const char* path, const std::vector<std::uint8_t>& bytes) {
  const tavo::FileHandle file(std::fopen(path, "wb"));
  return file && std::fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::fprintf(stderr, "usage: bench-load FILE [OUTPUT]\n");
    return 2;
  }
  const long before = Memory("VmHWM");
  const std::vector<tavo::FirmwareImage> images = tavo::LoadUpdateFile(argv[1]);
  if (images.empty()) return 1;
  if (argc == 3) return Write(argv[2], images.front().data) ? 0 : 1;
  std::size_t bytes = 0;
  for (const tavo::FirmwareImage& image : images) bytes += image.data.size();
  std::printf("{\"beforeKiB\": %ld, \"peakKiB\": %ld, \"imageBytes\": %zu}\n", before,
              Memory("VmHWM"), bytes);
  return 0;
}
