// A read-only view of a firmware image's description of itself: the trailer at its end and the
// descriptor block (ADB) that the trailer points to. Image selection, the hardware tables and the
// bootloader steps read the image through it. It changes nothing, does no I/O and never reads
// outside the image.
//
//   AdbView view(image);
//   if (view.AdbType() == 0) ...                   // the image does not describe itself
//   std::vector<std::uint16_t> hardwareIds;
//   if (view.HardwareIdList(view.EntryIndexForDevice(deviceId), hardwareIds) < 0) ...
//
// Addresses are device addresses in the image's own address space; address 0 always means none.
// They are taken as 64-bit values, so that an offset past the top of the address space is simply
// outside the image. Values are little-endian. A missing value is reported as -1, a missing address
// as 0.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "package/firmware_image.h"

namespace tavo {

class AdbView {
 public:
  // The image must stay unchanged for as long as the view is used.
  explicit AdbView(const FirmwareImage& image);
  explicit AdbView(FirmwareImage&&) = delete;

  std::int64_t EndAddress() const;  // one past the last byte
  // The size of a stored address, 2 or 3 bytes.
  std::uint32_t AddressWidth() const { return m_addressWidth; }
  std::uint32_t EntryStride() const { return m_addressWidth == 2 ? 8 : 10; }

  // The value at an address; none when it does not lie wholly in the image.
  std::optional<std::uint8_t> ReadByte(std::int64_t address) const;
  std::optional<std::uint16_t> ReadWord(std::int64_t address) const;
  std::uint32_t ReadAddress(std::int64_t address) const;

  // The address of the descriptor block, as the trailer says.
  std::uint32_t AdbAddress() const { return m_adbAddress; }

  // 1 to 7; 0 when the image has no valid ADB. An ADB of type 5 or 7 has a table with one entry for
  // each device variant; the others describe one device.
  std::uint8_t AdbType() const;
  bool HasEntryTable() const;

  // The number of entries; -1 without an entry table, and when the count lies outside the image.
  std::int32_t EntryCount() const;

  // Where an entry begins, whether or not the table is that long; 0xFFFFFFFF without a table.
  std::uint32_t EntryAddress(std::int32_t index) const;

  // The device id that an entry of the table is for; -1 when there is no such entry.
  std::int32_t EntryKey(std::int32_t index) const;

  // The first entry for a device, which is its label too; -1 when there is none or no table. A
  // table whose length cannot be read counts as one that begins with the device's entry.
  std::int32_t EntryIndexForDevice(std::uint16_t deviceId) const;

  // Fills `list` with the hardware ids that an entry allows and returns their number; -1 and an
  // empty list when they cannot be read. `index` counts only with an entry table.
  // Without a valid ADB there are 0.
  std::int32_t HardwareIdList(std::int32_t index, std::vector<std::uint16_t>& list) const;

  // The kind of processor that the image is built for, as its MCU-ID. None when the image names
  // none; -1 when it should but the id lies outside the image.
  std::optional<std::int32_t> McuId() const;

 private:
  bool Contains(std::int64_t address, std::int64_t bytes) const;
  std::uint8_t ByteAt(std::int64_t address) const;
  std::int64_t Adb(std::int64_t offset) const { return m_adbAddress + offset; }
  std::optional<std::int64_t> EntryPosition(std::int32_t index) const;
  std::optional<std::int32_t> TrailerMcuId() const;

  std::span<const std::uint8_t> m_data;
  std::uint32_t m_startAddress;
  std::uint32_t m_addressWidth;
  std::uint32_t m_adbAddress;
};

}  // namespace tavo
