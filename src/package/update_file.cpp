#include "package/update_file.h"

#include <exception>
#include <map>
#include <string_view>
#include <utility>

namespace tavo {
namespace {

char LowerCase(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// What stands behind the last '.' of the whole name, folders included; all of a name without one.
std::string LowerCaseExtension(std::string_view name) {
  std::string extension(name.substr(name.rfind('.') + 1));
  for (char& c : extension) c = LowerCase(c);
  return extension;
}

// Makes an image of every text that it is given.
class Loader final : public ZipVisitor {
 public:
  explicit Loader(UpdateFileObserver* observer) : m_observer(observer) {}

  void LoadHexFile(const std::string& path) {
    ReadFile(path, *this);
    EndText(path);
  }

  // Afterwards there are none.
  std::vector<FirmwareImage> TakeImages() {
    std::vector<FirmwareImage> images;
    images.reserve(m_images.size());
    for (auto& [name, image] : m_images) images.push_back(std::move(image));
    m_images.clear();
    return images;
  }

  void OnNoArchive() override {
    if (m_observer != nullptr) m_observer->OnNoArchive();
  }

  bool Wants(const std::string& name) override { return KindByName(name) == UpdateFileKind::Hex; }

  void OnBegin(std::size_t size) override { m_converter.Begin(size); }

  void OnBytes(std::span<const std::uint8_t> piece) override {
    if (m_observer != nullptr) m_observer->OnText(piece);
    m_converter.Add(piece);
  }

  void OnMember(const std::string& name, MemberFate fate, std::string_view detail) override {
    if (m_observer != nullptr) m_observer->OnMember(name, fate, detail);
    if (fate == MemberFate::Unpacked) EndText(name);
  }

 private:
  // Of two texts of one name the later one counts, even if it gives no image.
  void EndText(const std::string& name) {
    const HexResult result = m_converter.Finish();
    if (m_observer != nullptr) m_observer->OnConverted(name, result);
    m_images.erase(name);
    if (result != HexResult::Ok) return;
    const std::uint32_t startAddress = m_converter.StartAddress();
    m_images[name] = {std::move(m_converter).Data(), startAddress};
  }

  UpdateFileObserver* m_observer;
  CIntelHexConverter m_converter;
  std::map<std::string, FirmwareImage> m_images;  // in the order of the bytes of the names
};

}  // namespace

UpdateFileKind KindByName(std::string_view name) {
  const std::string extension = LowerCaseExtension(name);
  if (extension == "hex") return UpdateFileKind::Hex;
  return extension == "zip" ? UpdateFileKind::Zip : UpdateFileKind::Neither;
}

std::vector<FirmwareImage> LoadUpdateFile(std::string path, UpdateFileObserver* observer) try {
  Loader loader(observer);
  switch (KindByName(path)) {
    case UpdateFileKind::Hex: loader.LoadHexFile(path); break;
    case UpdateFileKind::Zip: VisitZipMembers(path, loader); break;
    case UpdateFileKind::Neither: break;
  }
  return loader.TakeImages();
} catch (const std::exception&) {
  return {};
}

}  // namespace tavo
