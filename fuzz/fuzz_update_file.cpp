// Any file: by its first byte a HEX file or an archive, which is what stands behind.
#include "fuzz/expect.h"
#include "package/update_file.h"
#include "simulator/firmware_builder.h"
#include "tests/support/virtual_platform.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
  static const tavo::test::VirtualPlatform platform;  // for its folder
  if (size == 0) return 0;
  const bool isArchive = input[0] % 2 != 0;
  const std::string path = platform.Folder() + (isArchive ? "fw.zip" : "fw.hex");
  tavosim::WriteFile(path, {reinterpret_cast<const char*>(input) + 1, size - 1});
  const std::vector<tavo::FirmwareImage> images = tavo::LoadUpdateFile(path);
  tavo::fuzz::Expect(isArchive || images.size() <= 1, "a HEX file holds one image");
  return 0;
}
