#include "package/update_file.h"

#include <exception>
#include <map>
#include <utility>

#include "package/intel_hex_converter.h"

namespace tavo {
namespace {

char LowerCase(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// The part behind the last '.' of the whole name, folders included; all of a name without one.
std::string LowerCaseExtension(std::string_view name) {
  std::string extension(name.substr(name.rfind('.') + 1));
  for (char& c : extension) c = LowerCase(c);
  return extension;
}

bool IsHexName(std::string_view name) { return KindByName(name) == UpdateFileKind::Hex; }

// Makes an image of every text.
class ImageMaker {
 public:
  explicit ImageMaker(const MemberVisitor& visit) : m_visit(visit) {}

  void Add(UpdateMember member) {
    if (member.fate == MemberFate::Unpacked) member.fate = Convert(member);
    if (m_visit) m_visit(member);
  }

  // `archive` is its path or its bytes.
  void AddArchive(const std::string& name, const auto& archive) {
    const auto add = [this](const UpdateMember& member) { Add(member); };
    if (!VisitZipMembers(archive, {.wants = IsHexName}, add)) {
      Add({.name = name, .fate = MemberFate::NoArchive});
    }
  }

  // Afterwards there are none.
  std::vector<FirmwareImage> TakeImages() {
    std::vector<FirmwareImage> images;
    images.reserve(m_images.size());
    for (auto& [name, image] : m_images) images.push_back(std::move(image));
    return images;
  }

 private:
  MemberFate Convert(const UpdateMember& member) {
    CIntelHexConverter converter;
    switch (converter.Convert(member.text)) {
      case HexResult::Ok: {
        const std::uint32_t startAddress = converter.StartAddress();
        m_images[member.name] = {std::move(converter).Data(), startAddress};
        return MemberFate::Unpacked;
      }
      case HexResult::OutOfMemory: return MemberFate::TooLarge;
      case HexResult::ChecksumError:
      case HexResult::FormatError: break;
    }
    m_images.erase(member.name);
    return MemberFate::NotConverted;
  }

  const MemberVisitor& m_visit;
  std::map<std::string, FirmwareImage> m_images;  // in the order of the bytes of the names
};

}  // namespace

UpdateFileKind KindByName(std::string_view name) {
  const std::string extension = LowerCaseExtension(name);
  if (extension == "hex") return UpdateFileKind::Hex;
  return extension == "zip" ? UpdateFileKind::Zip : UpdateFileKind::Neither;
}

std::vector<FirmwareImage> MakeImages(const std::string& name, std::span<const std::uint8_t> bytes,
                                      const MemberVisitor& visit) {
  ImageMaker maker(visit);
  switch (KindByName(name)) {
    case UpdateFileKind::Hex: maker.Add({.name = name, .text = bytes}); break;
    case UpdateFileKind::Zip: maker.AddArchive(name, bytes); break;
    case UpdateFileKind::Neither: break;
  }
  return maker.TakeImages();
}

// Reads an archive as it unpacks it: its packed bytes need no memory beside text and images.
std::vector<FirmwareImage> LoadUpdateFile(std::string path) try {
  if (KindByName(path) != UpdateFileKind::Zip) {
    return MakeImages(path, IsHexName(path) ? ReadWholeFile(path) : std::vector<std::uint8_t>());
  }
  const MemberVisitor nobody;
  ImageMaker maker(nobody);
  maker.AddArchive(path, path);
  return maker.TakeImages();
} catch (const std::exception&) {
  return {};
}

}  // namespace tavo
