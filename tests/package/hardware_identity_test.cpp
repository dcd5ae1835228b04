#include "package/hardware_identity.h"

#include <gtest/gtest.h>

#include "simulator/firmware_builder.h"

namespace tavo {
namespace {

FirmwareImage Build(const tavosim::FirmwareRecipe& recipe) {
  const tavosim::Firmware firmware = tavosim::BuildFirmware(recipe);
  return {firmware.data, firmware.startAddress};
}

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
