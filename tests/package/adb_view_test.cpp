#include "package/hardware_identity.h"

#include <gtest/gtest.h>

#include <vector>

#include "simulator/firmware_builder.h"

namespace tavo {
namespace {

using tavosim::FirmwareRecipe;
using Ids = std::vector<std::uint16_t>;

FirmwareRecipe Recipe(std::uint8_t adbType, std::uint32_t startAddress = 0x4000) {
  return {.startAddress = startAddress,
          .size = 512,
          .adbType = adbType,
          .mcuId = 0x105,
          .hardwareId = 0x8410,
          .entries = {{0x0101, {0x8411}}, {0x0102, {0x8412, 0x8422}}, {0x0103, {}}}};
}

FirmwareImage Build(const FirmwareRecipe& recipe) {
  const tavosim::Firmware firmware = tavosim::BuildFirmware(recipe);
  return {firmware.data, firmware.startAddress};
}

// An image of `size` bytes of 0xFF whose trailer points to `adbAddress` with two bytes.
FirmwareImage NarrowImage(std::uint32_t startAddress, std::size_t size, std::uint16_t adbAddress) {
  FirmwareImage image{std::vector<std::uint8_t>(size, 0xFF), startAddress};
  image.data[size - 9] = static_cast<std::uint8_t>(adbAddress);
  image.data[size - 8] = static_cast<std::uint8_t>(adbAddress >> 8);
  return image;
}

std::int32_t ListSize(const AdbView& view, std::int32_t index) {
  Ids list{1, 2, 3};
  const std::int32_t size = view.HardwareIdList(index, list);
  EXPECT_EQ(list.size(), size < 0 ? 0u : static_cast<std::size_t>(size));
  return size;
}

TEST(AdbView, ReadsEveryTypeInBothAddressWidths) {
  for (const std::uint32_t startAddress : {0x4000u, 0x14000u}) {
    for (std::uint8_t type = 1; type <= 7; ++type) {
      SCOPED_TRACE(testing::Message() << int{type} << " at " << startAddress);
      const FirmwareImage image = Build(Recipe(type, startAddress));
      const AdbView view(image);
      const bool hasTable = type == 5 || type == 7;
      EXPECT_EQ(view.AddressWidth(), startAddress == 0x4000 ? 2u : 3u);
      EXPECT_EQ(view.AdbType(), type);
      EXPECT_EQ(view.EntryCount(), hasTable ? 3 : -1);
      EXPECT_EQ(view.EntryKey(1), hasTable ? 0x0102 : -1);
      EXPECT_EQ(view.EntryAddress(1) == 0xFFFFFFFF, !hasTable);
      EXPECT_EQ(view.EntryIndexForDevice(0x0102), hasTable ? 1 : -1);
      EXPECT_EQ(view.EntryIndexForDevice(0x0104), -1);
      EXPECT_EQ(view.McuId(), 0x105);
      Ids list;
      EXPECT_EQ(view.HardwareIdList(1, list), hasTable ? 2 : 1);
      EXPECT_EQ(list, hasTable ? (Ids{0x8412, 0x8422}) : Ids{0x8410});
      EXPECT_EQ(ListSize(view, -1), hasTable ? -1 : 1);
    }
  }
}

TEST(AdbView, EntriesEndWithTheCountButNotTheirAddresses) {
  const FirmwareImage image = Build(Recipe(5));
  const AdbView view(image);
  EXPECT_EQ(view.EntryKey(-1), -1);
  EXPECT_EQ(view.EntryKey(3), -1);
  EXPECT_EQ(view.EntryAddress(3), view.EntryAddress(2) + 8);
  EXPECT_EQ(ListSize(view, 2), 0);
  for (const std::int32_t index : {-2, 1000, INT32_MIN, INT32_MAX}) {
    EXPECT_EQ(ListSize(view, index), -1) << index;
  }
}

TEST(AdbView, InvalidDescriptorDescribesNothing) {
  FirmwareRecipe noTrailer = Recipe(6);
  noTrailer.validTrailer = false;
  FirmwareImage atZero = NarrowImage(0, 64, 0);
  atZero.data[1] = 5;
  FirmwareImage lastByte = NarrowImage(0x100, 64, 0x100 + 63);
  const FirmwareImage images[] = {Build(Recipe(0)),
                                  Build(Recipe(8)),
                                  Build(noTrailer),
                                  atZero,
                                  lastByte,
                                  NarrowImage(0x100, 64, 0xFF),
                                  NarrowImage(0x100, 64, 0x140),
                                  {{}, 0xFFFFFFFF},
                                  {std::vector<std::uint8_t>(8, 0xFF), 0},
                                  {std::vector<std::uint8_t>(8, 1), 0xFFFFFFF8}};
  for (const FirmwareImage& image : images) {
    SCOPED_TRACE(&image - images);
    const AdbView view(image);
    EXPECT_EQ(view.AdbType(), 0);
    EXPECT_EQ(view.EntryCount(), -1);
    EXPECT_EQ(view.EntryIndexForDevice(0x0101), -1);
    EXPECT_EQ(ListSize(view, 0), 0);
  }
}

// An ADB whose fields are cut off by the end of the image, `kept` bytes long.
AdbView CutOff(FirmwareImage& image, std::uint8_t type, std::uint16_t kept) {
  image = NarrowImage(0x100, 64, static_cast<std::uint16_t>(0x140 - kept));
  image.data[64u - kept + 1] = type;
  return AdbView(image);
}

TEST(AdbView, FieldsOutsideTheImageAreMissing) {
  FirmwareImage image;
  EXPECT_EQ(ListSize(CutOff(image, 2, 3), 0), -1);
  EXPECT_EQ(CutOff(image, 5, 4).EntryCount(), -1);
  EXPECT_EQ(CutOff(image, 5, 4).EntryIndexForDevice(0x0101), 0);
  EXPECT_EQ(CutOff(image, 7, 4).McuId(), -1);
  EXPECT_EQ(CutOff(image, 2, 4).McuId(), std::nullopt);
}

TEST(AdbView, ListWithoutItsEndIsUnreadable) {
  FirmwareRecipe recipe = Recipe(5);
  recipe.entries = {{0x0101, {0x8411}}};
  FirmwareImage image = Build(recipe);
  EXPECT_EQ(ListSize(AdbView(image), 0), 1);
  // Nothing from the list's terminator to the end of the image is 0x0000 any more.
  for (std::size_t i = image.data.size() - 14; i < image.data.size() - 12; ++i) image.data[i] = 1;
  for (std::size_t i = image.data.size() - 4; i < image.data.size(); ++i) image.data[i] = 1;
  EXPECT_EQ(ListSize(AdbView(image), 0), -1);
}

TEST(AdbView, ReadsNothingPastTheTopOfTheAddressSpace) {
  FirmwareImage image{std::vector<std::uint8_t>(64, 0xFF), 0xFFFFFFC0};
  const AdbView view(image);
  EXPECT_EQ(view.EndAddress(), 0x100000000);
  EXPECT_EQ(view.ReadByte(0xFFFFFFFF), 0xFF);
  EXPECT_EQ(view.ReadWord(0xFFFFFFFF), std::nullopt);
  EXPECT_EQ(view.ReadAddress(0xFFFFFFFF), 0u);
}

TEST(AdbView, TrailerMcuIdNeedsMarkerAndMeaning) {
  struct Row {
    std::uint8_t marker;
    std::uint16_t mcuId;
    std::optional<std::int32_t> expected;
  };
  for (const Row& row : {Row{0x01, 0x105, 0x105}, Row{0xFE, 2, 2}, Row{0x00, 0x105, {}},
                         Row{0xFF, 0x105, {}}, Row{0x01, 0, {}}, Row{0x01, 1, {}}}) {
    FirmwareImage image = Build(Recipe(3));
    std::uint8_t* trailer = &image.data[image.data.size() - 12];
    trailer[0] = row.marker;
    trailer[1] = static_cast<std::uint8_t>(row.mcuId);
    trailer[2] = static_cast<std::uint8_t>(row.mcuId >> 8);
    EXPECT_EQ(AdbView(image).McuId(), row.expected) << row.mcuId;
  }
  const FirmwareImage tooShort{std::vector<std::uint8_t>(12, 0x01), 0x100};
  EXPECT_EQ(AdbView(tooShort).McuId(), std::nullopt);
}

// --- what the first hardware id says about the family ---

FirmwareImage ForHardware(std::uint16_t hardwareId) {
  return Build({.startAddress = 0x4000, .size = 256, .adbType = 2, .hardwareId = hardwareId});
}

FirmwareImage WithEntries(std::vector<tavosim::FirmwareEntry> entries) {
  return Build({.startAddress = 0x4000, .size = 256, .adbType = 5, .entries = std::move(entries)});
}

TEST(HardwareIdentity, BestRowDecidesForTheFamily) {
  constexpr TunnelRoute kNone{-1, -1};
  struct Row {
    std::uint16_t hardwareId;
    TunnelRoute route;
    std::uint32_t messageKind;
  };
  for (const Row& row : {Row{0x8150, {4, 1}, 0}, Row{0x8F1F, kNone, 0}, Row{0x82E0, {4, 0}, 1},
                         Row{0x82EF, {4, 0}, 1}, Row{0x82D0, kNone, 0}, Row{0x8315, {4, 0}, 0},
                         Row{0x8320, {4, 2}, 0}, Row{0x7310, kNone, 0}, Row{0x8410, kNone, 0}}) {
    SCOPED_TRACE(row.hardwareId);
    EXPECT_EQ(FindTunnelRoute(ForHardware(row.hardwareId)), row.route);
    EXPECT_EQ(FindBootloaderMessageKind(ForHardware(row.hardwareId)), row.messageKind);
  }
}

TEST(HardwareIdentity, FirstEntryWithHardwareIdsIsAsked) {
  const FirmwareImage image = WithEntries({{1, {}}, {2, {0x8150, 0x8320}}, {3, {0x82E0}}});
  EXPECT_EQ(FindTunnelRoute(image), (TunnelRoute{4, 1}));
}

TEST(HardwareIdentity, ImagesWithoutHardwareIdsGetTheDefaults) {
  for (const FirmwareImage& image : {FirmwareImage{}, WithEntries({}), WithEntries({{1, {}}})}) {
    EXPECT_EQ(FindTunnelRoute(image), (TunnelRoute{-1, -1}));
    EXPECT_EQ(FindBootloaderMessageKind(image), 0u);
  }
}

}  // namespace
}  // namespace tavo
