// A file with damage anywhere, HEX text or an archive of it; or any bytes under either name.
#include "fuzz/input.h"
#include "package/update_file.h"
#include "tests/support/virtual_platform.h"

namespace tavo::fuzz {
namespace {

bool Same(const FirmwareImage& one, const FirmwareImage& other) {
  return one.startAddress == other.startAddress && one.data == other.data;
}

void Load(const std::string& name, const std::string& content) {
  static const test::VirtualPlatform platform;  // for its folder
  const std::string path = platform.Folder() + name;
  tavosim::WriteFile(path, content);
  const std::vector<FirmwareImage> images = LoadUpdateFile(path);
  const Input bytes(reinterpret_cast<const std::uint8_t*>(content.data()), content.size());
  Expect(std::ranges::equal(images, MakeImages(path, bytes), Same),
         "its bytes give the same images");
  for (const FirmwareImage& image : images) {
    if (image.data.empty() || image.startAddress > UINT32_MAX - image.data.size()) continue;
    const std::string text = tavosim::HexText({image.data, image.startAddress, 0});
    const auto again =
        MakeImages("a.hex", {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
    Expect(again.size() == 1 && Same(again[0], image), "the text of an image gives that image");
  }
}

}  // namespace
}  // namespace tavo::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  tavo::fuzz::Input input(bytes, size);
  const std::uint32_t form = tavo::fuzz::TakeNumber(input, 1);
  const std::string name = form % 2 != 0 ? "fw.zip" : "fw.hex";
  std::string content(input.begin(), input.end());
  if (form / 2 % 2 == 0) {
    content = tavosim::HexText(tavo::fuzz::TakeFirmware(input));
    if (form % 2 != 0)
      content = tavosim::ZipArchive(
          {{"folder/", ""}, {"a.txt", ""}, {"a.hex", content}, {"folder/b.hex", content}});
    tavo::fuzz::Damage(content, input);
  }
  tavo::fuzz::Load(name, content);
  return 0;
}
