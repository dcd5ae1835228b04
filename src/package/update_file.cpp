#include "package/update_file.h"

#include <exception>
#include <string_view>
#include <utility>

#include "package/file_reading.h"

namespace tavo {
namespace {

char LowerCase(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// What stands behind the last '.' of the whole name, folders included; all of a name without one.
std::string LowerCaseExtension(std::string_view name) {
  std::string extension(name.substr(name.rfind('.') + 1));
  for (char& c : extension) c = LowerCase(c);
  return extension;
}

bool IsHexName(std::string_view name) { return KindByName(name) == UpdateFileKind::Hex; }

ZipMembers ReadHexFiles(const std::string& path, UpdateFileObserver* observer) {
  switch (KindByName(path)) {
    case UpdateFileKind::Hex: return {{path, ReadWholeFile(path)}};
    case UpdateFileKind::Zip: return ExtractZipMembers(path, IsHexName, observer);
    case UpdateFileKind::Neither: break;
  }
  return {};
}

}  // namespace

UpdateFileKind KindByName(std::string_view name) {
  const std::string extension = LowerCaseExtension(name);
  if (extension == "hex") return UpdateFileKind::Hex;
  return extension == "zip" ? UpdateFileKind::Zip : UpdateFileKind::Neither;
}

std::vector<FirmwareImage> LoadUpdateFile(std::string path, UpdateFileObserver* observer) try {
  ZipMembers files = ReadHexFiles(path, observer);
  std::vector<FirmwareImage> images;
  images.reserve(files.size());
  for (auto& [name, text] : files) {
    CIntelHexConverter converter;
    const HexResult result = converter.Convert(text);
    if (observer != nullptr) observer->OnConverted(name, text, result);
    text = {};  // so that all texts and all images are never in memory together
    if (result != HexResult::Ok) continue;
    const std::uint32_t startAddress = converter.StartAddress();
    images.push_back({std::move(converter).Data(), startAddress});
  }
  return images;
} catch (const std::exception&) {
  return {};
}

}  // namespace tavo
