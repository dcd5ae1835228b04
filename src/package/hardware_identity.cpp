#include "package/hardware_identity.h"

#include <algorithm>

namespace tavo {
namespace {

static_assert(std::adjacent_find(McuTable.begin(), McuTable.end(),
                                 [](const McuRow& a, const McuRow& b) {
                                   return a.mcuId >= b.mcuId;
                                 }) == McuTable.end(),
              "each MCU-ID stands once, in ascending order");

template <typename Table>
constexpr bool HasUniquePatterns(const Table& table) {
  for (std::size_t i = 0; i < table.size(); ++i) {
    for (std::size_t j = 0; j < i; ++j) {
      if (table[i].pattern == table[j].pattern) return false;
    }
  }
  return true;
}

static_assert(HasUniquePatterns(TunnelRouteTable));
static_assert(HasUniquePatterns(BootloaderMessageKindTable));

// How well a pattern fits: 0 not at all, else 1 and one more for each field that is the same.
constexpr int Score(const HardwareIdPattern& pattern, const HardwareIdRecord& probe) {
  struct Field {
    std::uint8_t wanted;
    std::uint8_t found;
  };
  const Field fields[] = {{pattern.serie, probe.serie},
                          {pattern.type, probe.type},
                          {pattern.module, probe.module},
                          {pattern.variant, probe.variant}};
  int score = 1;
  for (const Field& field : fields) {
    if (field.wanted == kAnyField) continue;
    if (field.wanted != field.found) return 0;
    ++score;
  }
  return score;
}

// The first id of the first entry that has any. Only that one list is read: in a file that is made to
// harm, all of them together may not fit into memory.
std::optional<HardwareIdRecord> FirstHardwareId(const AdbView& view) {
  const std::int32_t count = view.HasEntryTable() ? view.EntryCount() : 1;
  std::vector<std::uint16_t> list;
  for (std::int32_t index = 0; index < count; ++index) {
    if (view.HardwareIdList(index, list) > 0) return SplitHardwareId(list.front());
  }
  return std::nullopt;
}

// The value of the row that fits the image best; of rows that fit equally well, the first.
template <typename Value, std::size_t Rows>
Value FindBestMatch(const std::array<PatternRow<Value>, Rows>& table, const FirmwareImage& image,
                    Value none) {
  const std::optional<HardwareIdRecord> first = FirstHardwareId(AdbView(image));
  if (!first) return none;
  const HardwareIdRecord probe = *first;
  const auto best = std::max_element(table.begin(), table.end(), [&](const auto& a, const auto& b) {
    return Score(a.pattern, probe) < Score(b.pattern, probe);
  });
  return Score(best->pattern, probe) > 0 ? best->value : none;
}

}  // namespace

std::optional<std::uint32_t> FindProcessorId(std::int32_t mcuId) {
  const auto row = std::find_if(McuTable.begin(), McuTable.end(),
                                [mcuId](const McuRow& mcu) { return mcu.mcuId == mcuId; });
  if (row == McuTable.end()) return std::nullopt;
  return row->processorId;
}

TunnelRoute FindTunnelRoute(const FirmwareImage& image) {
  return FindBestMatch(TunnelRouteTable, image, TunnelRoute{-1, -1});
}

std::uint32_t FindBootloaderMessageKind(const FirmwareImage& image) {
  return FindBestMatch(BootloaderMessageKindTable, image, std::uint32_t{0});
}

}  // namespace tavo
