#include "package/update_file.h"

#include <exception>
#include <string_view>
#include <utility>

#include "package/file_reading.h"
#include "package/intel_hex_converter.h"
#include "package/zip_members.h"

namespace tavo {
namespace {

char LowerCase(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// What stands behind the last '.' of the whole name, folders included; all of a name without one.
std::string LowerCaseExtension(std::string_view name) {
  std::string extension(name.substr(name.rfind('.') + 1));
  for (char& c : extension) c = LowerCase(c);
  return extension;
}

bool IsHexName(std::string_view name) { return LowerCaseExtension(name) == "hex"; }

ZipMembers ReadHexFiles(const std::string& path) {
  if (IsHexName(path)) return {{path, ReadWholeFile(path)}};
  if (LowerCaseExtension(path) == "zip") return ExtractZipMembers(path, IsHexName);
  return {};
}

}  // namespace

std::vector<FirmwareImage> LoadUpdateFile(std::string path) try {
  ZipMembers files = ReadHexFiles(path);
  std::vector<FirmwareImage> images;
  images.reserve(files.size());
  for (auto& [name, text] : files) {
    CIntelHexConverter converter;
    const HexResult result = converter.Convert(text);
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
