// An image with damage at any address: everything that can be asked of it.
#include <limits>

#include "fuzz/input.h"
#include "package/hardware_identity.h"

namespace tavo::fuzz {
namespace {

void AskForEntry(const AdbView& view, std::int32_t index) {
  std::vector<std::uint16_t> list;
  const std::int32_t length = view.HardwareIdList(index, list);
  Expect(list.size() == static_cast<std::size_t>(length < 0 ? 0 : length), "the length is right");
  Expect(view.HasEntryTable() || view.EntryAddress(index) == 0xFFFFFFFF, "no table, no entry");
  const std::int32_t key = view.EntryKey(index);
  Expect(key >= -1 && key <= 0xFFFF, "a key has 16 bits");
  if (key < 0) return;
  const std::int32_t found = view.EntryIndexForDevice(static_cast<std::uint16_t>(key));
  Expect(found >= 0 && found <= index, "the first entry of a key is found");
}

void AskForAll(const FirmwareImage& image) {
  using Limits = std::numeric_limits<std::int32_t>;
  const AdbView view(image);
  Expect(view.AdbType() <= 7, "the type is known");
  Expect(view.EntryCount() >= -1 && view.EntryCount() <= 0xFF, "the count is a byte");
  view.McuId();
  for (std::int32_t index = -2; index <= 0x101; ++index) AskForEntry(view, index);
  for (const std::int32_t index : {Limits::min(), Limits::max()}) AskForEntry(view, index);
  for (const std::int64_t end :
       {std::int64_t{0}, std::int64_t{image.startAddress}, view.EndAddress()}) {
    for (std::int64_t address = end - 4; address <= end + 4; ++address) {
      view.ReadByte(address);
      view.ReadWord(address);
      view.ReadAddress(address);
    }
  }
  FindTunnelRoute(image);
  FindBootloaderMessageKind(image);
}

}  // namespace
}  // namespace tavo::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  tavo::fuzz::Input input(bytes, size);
  const tavosim::Firmware firmware = tavo::fuzz::TakeFirmware(input);
  const std::uint32_t moved = tavo::fuzz::TakeNumber(input, 4);
  tavo::FirmwareImage image{firmware.data, firmware.startAddress ^ moved};
  tavo::fuzz::Damage(image.data, input);
  tavo::fuzz::AskForAll(image);
  return 0;
}
