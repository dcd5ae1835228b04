#include "package/adb_view.h"

#include <array>
#include <cassert>
#include <cstddef>
#include <limits>

namespace tavo {
namespace {

// Places in the trailer, counted back from the end of the image.
constexpr std::int64_t kTrailerMcuMarker = 12;
constexpr std::int64_t kTrailerMcuId = 11;
constexpr std::int64_t kTrailerAdbAddress = 9;
constexpr std::int64_t kTrailerWidth = 7;
constexpr std::size_t kMinBytesForTrailerMcuId = 13;

// 0xFF at the place of the third address byte says that addresses have only two.
constexpr std::uint8_t kNarrowAddresses = 0xFF;

constexpr std::int64_t kAdbTypeOffset = 1;
constexpr std::int64_t kHardwareIdOffset = 2;
constexpr std::int64_t kEntryCountOffset = 7;
constexpr std::int64_t kEntryListOffset = 4;

constexpr std::uint32_t kNoEntryAddress = 0xFFFFFFFF;
constexpr std::int64_t kNowhere = 0;

// The fields that only some types of ADB have, as offsets from its start; 0 = no such field.
struct AdbLayout {
  std::uint8_t entryTable;
  std::uint8_t mcuId;
};

constexpr std::array<AdbLayout, 8> kLayouts{{
    // entry table, MCU-ID
    {0, 0},   // 0: no valid ADB
    {0, 0},   // 1
    {0, 0},   // 2
    {0, 0},   // 3
    {0, 0},   // 4
    {8, 0},   // 5
    {0, 10},  // 6
    {10, 8},  // 7
}};

}  // namespace

AdbView::AdbView(const FirmwareImage& image)
    : m_data(image.data), m_startAddress(image.startAddress), m_addressWidth(3) {
  if (ReadByte(EndAddress() - kTrailerWidth) == kNarrowAddresses) m_addressWidth = 2;
  m_adbAddress = ReadAddress(EndAddress() - kTrailerAdbAddress);
}

std::int64_t AdbView::EndAddress() const {
  return m_startAddress + static_cast<std::int64_t>(m_data.size());
}

bool AdbView::Contains(std::int64_t address, std::int64_t bytes) const {
  return address != kNowhere && address >= m_startAddress && address + bytes <= EndAddress();
}

std::uint8_t AdbView::ByteAt(std::int64_t address) const {
  assert(Contains(address, 1));
  return m_data[static_cast<std::size_t>(address - m_startAddress)];
}

std::optional<std::uint8_t> AdbView::ReadByte(std::int64_t address) const {
  if (!Contains(address, 1)) return std::nullopt;
  return ByteAt(address);
}

std::optional<std::uint16_t> AdbView::ReadWord(std::int64_t address) const {
  if (!Contains(address, 2)) return std::nullopt;
  return static_cast<std::uint16_t>(ByteAt(address) | ByteAt(address + 1) << 8);
}

std::uint32_t AdbView::ReadAddress(std::int64_t address) const {
  if (!Contains(address, m_addressWidth)) return 0;
  std::uint32_t value = 0;
  for (std::uint32_t i = 0; i < m_addressWidth; ++i) {
    value |= std::uint32_t{ByteAt(address + i)} << (8 * i);
  }
  return value;
}

std::uint8_t AdbView::AdbType() const {
  // The address itself is checked because the byte after an ADB at 0 would be readable.
  if (!Contains(m_adbAddress, 2)) return 0;
  const std::uint8_t type = ByteAt(Adb(kAdbTypeOffset));
  return type < kLayouts.size() ? type : std::uint8_t{0};
}

bool AdbView::HasEntryTable() const { return kLayouts[AdbType()].entryTable != 0; }

std::int32_t AdbView::EntryCount() const {
  if (!HasEntryTable()) return -1;
  const auto count = ReadByte(Adb(kEntryCountOffset));
  return count ? *count : -1;
}

std::optional<std::int64_t> AdbView::EntryPosition(std::int32_t index) const {
  const std::uint8_t table = kLayouts[AdbType()].entryTable;
  if (table == 0) return std::nullopt;
  return ReadAddress(Adb(table)) + std::int64_t{index} * EntryStride();
}

std::uint32_t AdbView::EntryAddress(std::int32_t index) const {
  const auto position = EntryPosition(index).value_or(-1);
  if (position < 0 || position > std::numeric_limits<std::uint32_t>::max()) return kNoEntryAddress;
  return static_cast<std::uint32_t>(position);
}

std::int32_t AdbView::EntryKey(std::int32_t index) const {
  if (index < 0 || index >= EntryCount()) return -1;
  const auto key = ReadWord(EntryPosition(index).value_or(kNowhere));
  return key ? *key : -1;
}

std::int32_t AdbView::EntryIndexForDevice(std::uint16_t deviceId) const {
  if (!HasEntryTable()) return -1;
  const std::int32_t count = EntryCount();
  if (count == -1) return 0;
  for (std::int32_t index = 0; index < count; ++index) {
    if (EntryKey(index) == deviceId) return index;
  }
  return -1;
}

std::int32_t AdbView::HardwareIdList(std::int32_t index, std::vector<std::uint16_t>& list) const {
  list.clear();
  if (AdbType() == 0) return 0;
  if (!HasEntryTable()) {
    const auto hardwareId = ReadWord(Adb(kHardwareIdOffset));
    if (!hardwareId) return -1;
    list.push_back(*hardwareId);
    return 1;
  }
  if (index == -1) return -1;
  const std::int64_t entry = EntryPosition(index).value_or(kNowhere);
  // The end of the image bounds the walk.
  for (std::int64_t at = ReadAddress(entry + kEntryListOffset);; at += 2) {
    const auto hardwareId = ReadWord(at);
    if (!hardwareId) {
      list.clear();
      return -1;
    }
    if (*hardwareId == 0) return static_cast<std::int32_t>(list.size());
    list.push_back(*hardwareId);
  }
}

std::optional<std::int32_t> AdbView::McuId() const {
  const std::uint8_t offset = kLayouts[AdbType()].mcuId;
  if (offset == 0) return TrailerMcuId();
  const auto mcuId = ReadWord(Adb(offset));
  return mcuId ? std::int32_t{*mcuId} : -1;
}

std::optional<std::int32_t> AdbView::TrailerMcuId() const {
  if (m_data.size() < kMinBytesForTrailerMcuId) return std::nullopt;
  const std::uint8_t marker = ByteAt(EndAddress() - kTrailerMcuMarker);
  if (marker == 0x00 || marker == 0xFF) return std::nullopt;
  const auto mcuId = ReadWord(EndAddress() - kTrailerMcuId);
  if (!mcuId || *mcuId <= 1) return std::nullopt;
  return *mcuId;
}

}  // namespace tavo
