#include "simulator/firmware_builder.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <fstream>
#include <memory>
#include <stdexcept>

#include "miniz.h"

namespace tavosim {
namespace {

// The trailer: MCU-ID marker, MCU-ID, ADB address, two unused bytes, CRC-32. The third byte of the
// address is 0xFF when addresses have only two.
constexpr std::size_t kTrailerSize = 1 + 2 + 3 + 2 + 4;
constexpr std::uint32_t kNarrowAddress = 0xFF0000;

constexpr std::size_t kAdbSize = 16;
constexpr std::uint8_t kMcuIdFollows = 0x01;

// Which blocks of each run of 16 are blank: one alone, and two next to each other.
constexpr std::size_t kBlankCycle = 16;
constexpr std::array<std::size_t, 3> kBlankInCycle{3, 8, 9};

[[noreturn]] void Refuse(const std::string& why) { throw std::invalid_argument(why); }

// Writes little-endian values one after the other, within the image that it was given.
class Writer {
 public:
  Writer(std::span<std::uint8_t> image, std::size_t offset) : m_image(image), m_offset(offset) {}

  Writer& Put(std::uint64_t value, std::size_t bytes) {
    if (m_offset + bytes > m_image.size()) Refuse("the image is too small");
    for (; bytes > 0; --bytes, value >>= 8) m_image[m_offset++] = static_cast<std::uint8_t>(value);
    return *this;
  }
  Writer& Zeros(std::size_t bytes) { return Put(0, bytes); }

  std::size_t Offset() const { return m_offset; }

 private:
  std::span<std::uint8_t> m_image;
  std::size_t m_offset;
};

// A small generator with the same values on every platform (splitmix64).
class Random {
 public:
  explicit Random(std::uint64_t seed) : m_state(seed) {}

  std::uint64_t Next() {
    m_state += 0x9E3779B97F4A7C15u;
    std::uint64_t value = m_state;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9u;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBu;
    return value ^ (value >> 31);
  }

 private:
  std::uint64_t m_state;
};

bool IsBlankBlock(FirmwareFill fill, std::size_t block) {
  if (fill != FirmwareFill::Mixed) return fill == FirmwareFill::AllBlank;
  return std::find(kBlankInCycle.begin(), kBlankInCycle.end(), block % kBlankCycle) !=
         kBlankInCycle.end();
}

std::vector<std::uint8_t> GeneratedContent(const FirmwareRecipe& recipe) {
  if (recipe.blockSize == 0) Refuse("the block size is 0");
  std::vector<std::uint8_t> content(recipe.size, 0xFF);
  Random random(recipe.seed);
  for (std::size_t offset = 0; offset < content.size(); ++offset) {
    const auto byte = static_cast<std::uint8_t>(random.Next());
    if (IsBlankBlock(recipe.fill, offset / recipe.blockSize)) continue;
    // No filled block is blank by chance.
    content[offset] = offset % recipe.blockSize == 0 ? byte & 0x7F : byte;
  }
  return content;
}

bool HasEntryTable(const FirmwareRecipe& recipe) {
  return recipe.adbType == 5 || recipe.adbType == 7;
}

bool HasMcuIdInAdb(const FirmwareRecipe& recipe) {
  return recipe.adbType == 6 || recipe.adbType == 7;
}

std::size_t AddressWidth(const FirmwareRecipe& recipe) {
  return recipe.startAddress + std::uint64_t{recipe.size} <= 0x10000 ? 2 : 3;
}

std::size_t EntryStride(const FirmwareRecipe& recipe) { return AddressWidth(recipe) == 2 ? 8 : 10; }

// The bytes of the ADB, the entry table and the lists behind it.
std::size_t DescriptorSize(const FirmwareRecipe& recipe) {
  std::size_t size = kAdbSize;
  if (!HasEntryTable(recipe)) return size;
  for (const FirmwareEntry& entry : recipe.entries) {
    size += EntryStride(recipe) + 2 * (entry.hardwareIds.size() + 1);
  }
  return size;
}

// All bytes of the image, with room for its description at the end.
std::vector<std::uint8_t> Content(const FirmwareRecipe& recipe) {
  if (!recipe.content) return GeneratedContent(recipe);
  std::vector<std::uint8_t> content = *recipe.content;
  const std::size_t room = recipe.size - kTrailerSize - DescriptorSize(recipe);
  if (content.size() > room) {
    Refuse("the content is " + std::to_string(content.size()) + " bytes long, but only " +
           std::to_string(room) + " of the image's " + std::to_string(recipe.size) +
           " bytes are left for it");
  }
  content.resize(recipe.size, 0xFF);
  return content;
}

void PutAdb(std::span<std::uint8_t> image, const FirmwareRecipe& recipe, std::size_t offset) {
  const std::size_t width = AddressWidth(recipe);
  const std::uint32_t table = recipe.startAddress + static_cast<std::uint32_t>(offset + kAdbSize);
  Writer(image, offset).Zeros(kAdbSize);
  Writer adb(image, offset);
  adb.Put(kAdbSize, 1).Put(recipe.adbType, 1);
  switch (recipe.adbType) {
    case 5: adb.Zeros(5).Put(recipe.entries.size(), 1).Put(table, width); break;
    case 6: adb.Put(recipe.hardwareId, 2).Zeros(6).Put(recipe.mcuId, 2); break;
    case 7:
      adb.Zeros(5).Put(recipe.entries.size(), 1).Put(recipe.mcuId, 2).Put(table, width);
      break;
    default: adb.Put(recipe.hardwareId, 2); break;
  }
}

// The entry table, which begins at `offset`, and behind it the list of each entry.
void PutEntries(std::span<std::uint8_t> image, const FirmwareRecipe& recipe, std::size_t offset) {
  const std::size_t width = AddressWidth(recipe);
  const std::size_t stride = EntryStride(recipe);
  Writer lists(image, offset + recipe.entries.size() * stride);
  for (const FirmwareEntry& entry : recipe.entries) {
    const std::size_t list = recipe.startAddress + lists.Offset();
    Writer(image, offset)
        .Put(entry.deviceId, 2)
        .Zeros(2)
        .Put(list, width)
        .Zeros(stride - 4 - width);
    offset += stride;
    for (const std::uint16_t hardwareId : entry.hardwareIds) lists.Put(hardwareId, 2);
    lists.Zeros(2);
  }
}

void PutTrailer(Firmware& firmware, const FirmwareRecipe& recipe) {
  const std::span<std::uint8_t> image = firmware.data;
  const bool namesMcu = recipe.mcuId != 0 && !HasMcuIdInAdb(recipe);
  const std::uint32_t adbAddress = recipe.validTrailer ? firmware.adbAddress : 0;
  Writer trailer(image, image.size() - kTrailerSize);
  trailer.Put(namesMcu ? kMcuIdFollows : 0xFF, 1)
      .Put(namesMcu ? recipe.mcuId : 0xFFFF, 2)
      .Put(AddressWidth(recipe) == 2 ? adbAddress | kNarrowAddress : adbAddress, 3)
      .Put(0xFFFF, 2);
  trailer.Put(Crc32(image.first(trailer.Offset())), 4);
}

void CheckRecipe(const FirmwareRecipe& recipe) {
  if (recipe.entries.size() > 0xFF) Refuse("more than 255 entries");
  if (recipe.size < kTrailerSize + DescriptorSize(recipe)) Refuse("the image is too small");
  // A third address byte of 0xFF would mean that addresses have only two bytes.
  if (recipe.startAddress + std::uint64_t{recipe.size} > kNarrowAddress) {
    Refuse("the image ends above 0xFF0000");
  }
}

void PutRecord(std::string& text, std::uint8_t type, std::uint16_t address,
               std::span<const std::uint8_t> data, std::string_view lineEnd) {
  unsigned sum = 0;
  const auto put = [&](std::size_t byte) {
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    text += kDigits[byte >> 4 & 0xF];
    text += kDigits[byte & 0xF];
    sum += static_cast<unsigned>(byte & 0xFF);
  };
  text += ':';
  put(data.size());
  put(address >> 8u);
  put(address);
  put(type);
  for (const std::uint8_t byte : data) put(byte);
  put(0x100 - (sum & 0xFF));
  text += lineEnd;
}

struct ZipWriter {
  mz_zip_archive archive{};

  ZipWriter() { Check(mz_zip_writer_init_heap(&archive, 0, 0)); }
  ~ZipWriter() { mz_zip_writer_end(&archive); }
  ZipWriter(const ZipWriter&) = delete;
  ZipWriter& operator=(const ZipWriter&) = delete;

  void Check(mz_bool done) {
    if (done) return;
    throw std::runtime_error(std::string("ZIP archive: ") +
                             mz_zip_get_error_string(mz_zip_get_last_error(&archive)));
  }
};

// One date for all members, so that equal members give equal archives.
std::time_t MemberTime() {
  std::tm day{};
  day.tm_year = 2020 - 1900;
  day.tm_mday = 1;
  day.tm_isdst = -1;
  return std::mktime(&day);
}

}  // namespace

FirmwareRecipe RecipeFor(const Family& family) {
  FirmwareRecipe recipe;
  recipe.startAddress = family.flashStart;
  recipe.size = std::size_t{family.applicationKiB} * 1024;
  recipe.blockSize = family.blockSize;
  recipe.adbType = family.adbType;
  recipe.mcuId = family.mcuId;
  recipe.hardwareId = family.hardwareId;
  const auto deviceId = [&](int below) {
    return static_cast<std::uint16_t>(family.deviceId - below);
  };
  const auto otherVariant = [&](unsigned variant) {
    return static_cast<std::uint16_t>(family.hardwareId ^ variant);
  };
  recipe.entries = {{deviceId(2), {otherVariant(1)}},
                    {deviceId(1), {otherVariant(2)}},
                    {deviceId(0), {otherVariant(3), family.hardwareId}}};
  return recipe;
}

std::size_t DescriptionSize(const FirmwareRecipe& recipe) {
  return DescriptorSize(recipe) + kTrailerSize;
}

Firmware BuildFirmware(const FirmwareRecipe& recipe) {
  CheckRecipe(recipe);
  Firmware firmware{Content(recipe), recipe.startAddress, 0};
  const std::size_t offset = recipe.size - kTrailerSize - DescriptorSize(recipe);
  firmware.adbAddress = recipe.startAddress + static_cast<std::uint32_t>(offset);
  PutAdb(firmware.data, recipe, offset);
  if (HasEntryTable(recipe)) PutEntries(firmware.data, recipe, offset + kAdbSize);
  PutTrailer(firmware, recipe);
  return firmware;
}

std::string HexText(const Firmware& firmware, std::size_t recordSize, std::string_view lineEnd) {
  if (recordSize == 0 || recordSize > 0xFF) Refuse("a record holds 1 to 255 bytes");
  std::string text;
  std::span<const std::uint8_t> rest = firmware.data;
  std::uint32_t address = firmware.startAddress;
  std::uint32_t upper = 0;
  while (!rest.empty()) {
    if (address >> 16 != upper) {
      upper = address >> 16;
      const std::array<std::uint8_t, 2> value{static_cast<std::uint8_t>(upper >> 8),
                                              static_cast<std::uint8_t>(upper)};
      PutRecord(text, 4, 0, value, lineEnd);
    }
    const std::size_t size =
        std::min({recordSize, rest.size(), std::size_t{0x10000} - (address & 0xFFFF)});
    PutRecord(text, 0, static_cast<std::uint16_t>(address), rest.first(size), lineEnd);
    rest = rest.subspan(size);
    address += static_cast<std::uint32_t>(size);
  }
  PutRecord(text, 1, 0, {}, lineEnd);
  return text;
}

std::string ZipArchive(const std::vector<ZipMember>& members) {
  ZipWriter zip;
  std::time_t time = MemberTime();
  for (const ZipMember& member : members) {
    zip.Check(mz_zip_writer_add_mem_ex_v2(&zip.archive, member.name.c_str(), member.text.data(),
                                          member.text.size(), nullptr, 0, MZ_DEFAULT_LEVEL, 0, 0,
                                          &time, nullptr, 0, nullptr, 0));
  }
  void* bytes = nullptr;
  std::size_t size = 0;
  zip.Check(mz_zip_writer_finalize_heap_archive(&zip.archive, &bytes, &size));
  const std::unique_ptr<void, decltype(&mz_free)> owner(bytes, &mz_free);
  return std::string(static_cast<const char*>(bytes), size);
}

void WriteFile(const std::filesystem::path& path, std::string_view bytes) {
  std::ofstream file(path, std::ios::binary);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  if (!file) throw std::runtime_error("cannot write " + path.string());
}

}  // namespace tavosim
