// Any file; the first byte of the input decides whether the rest is a HEX file or an archive.
#include <algorithm>
#include <span>

#include "fuzz/expect.h"
#include "package/update_file.h"
#include "simulator/firmware_builder.h"
#include "tests/support/virtual_platform.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
  static const tavo::test::VirtualPlatform platform;  // for its folder
  if (size == 0) return 0;
  const bool isArchive = input[0] % 2 != 0;
  const std::string path = platform.Folder() + (isArchive ? "fw.zip" : "fw.hex");
  const std::span bytes(input + 1, size - 1);
  tavosim::WriteFile(path, {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  const std::vector<tavo::FirmwareImage> images = tavo::LoadUpdateFile(path);
  tavo::fuzz::Expect(isArchive || images.size() <= 1, "a HEX file holds one image");
  const auto same = [](const tavo::FirmwareImage& one, const tavo::FirmwareImage& other) {
    return one.startAddress == other.startAddress && one.data == other.data;
  };
  tavo::fuzz::Expect(std::ranges::equal(images, tavo::MakeImages(path, bytes), same),
                     "the file's bytes give the same images");
  return 0;
}
