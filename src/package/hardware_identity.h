// The fixed facts about the hardware that can be updated: which processor an MCU-ID stands for, which
// device families are reached through a tunnel, and which take requests under another message id. The
// last two follow from the hardware ids that an image lists. The tables are
// constant data; nothing runs when the library is loaded and nothing needs a lock.
//
//   const TunnelRoute route = FindTunnelRoute(images.front());
//   if (route.master != -1) ...  // the family is updated through a tunnel
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "package/adb_view.h"
#include "package/firmware_image.h"

namespace tavo {

// A hardware id taken apart; each field is 0 to 15.
struct HardwareIdRecord {
  std::uint8_t serie;
  std::uint8_t type;
  std::uint8_t module;
  std::uint8_t variant;
};

constexpr HardwareIdRecord SplitHardwareId(std::uint16_t id) {
  const auto field = [id](int shift) { return static_cast<std::uint8_t>(id >> shift & 0xF); };
  return {field(12), field(8), field(4), field(0)};
}

// A pattern with this value in a field matches every value there.
inline constexpr std::uint8_t kAnyField = 15;

// Whether firmware for `accepted` may be written to `device`. A device that reports 15 in a field takes
// any value there.
constexpr bool Accepts(const HardwareIdRecord& accepted, const HardwareIdRecord& device) {
  const auto fits = [](std::uint8_t of, std::uint8_t value) { return of == value || of == 15; };
  return fits(device.serie, accepted.serie) && fits(device.type, accepted.type) &&
         fits(device.module, accepted.module) && fits(device.variant, accepted.variant);
}

struct HardwareIdPattern {
  std::uint8_t serie;
  std::uint8_t type;
  std::uint8_t module;
  std::uint8_t variant;

  constexpr HardwareIdPattern(std::uint8_t serieId, std::uint8_t typeId, std::uint8_t moduleId,
                              std::uint8_t variantId)
      : serie(serieId), type(typeId), module(moduleId), variant(variantId) {}

  // One module of the series in use, in any variant. Throws std::invalid_argument for an id that
  // does not fit its field; in a constant that is an error at compile time. Braces make the type the
  // first to be judged.
  constexpr HardwareIdPattern(unsigned typeId, unsigned moduleId)
      : HardwareIdPattern{kSerieInUse, Field(typeId, "type ID"), Field(moduleId, "module ID"),
                          kAnyField} {}

  constexpr bool operator==(const HardwareIdPattern&) const = default;

 private:
  static constexpr std::uint8_t kSerieInUse = 8;
  static constexpr unsigned kMaxField = 15;

  static constexpr std::uint8_t Field(unsigned value, const char* name) {
    if (value > kMaxField) {
      throw std::invalid_argument(std::string(name) + " must not be greater than " +
                                  std::to_string(kMaxField));
    }
    return static_cast<std::uint8_t>(value);
  }
};

// The channel of a tunnel; both -1 where no tunnel is needed.
struct TunnelRoute {
  std::int32_t master;
  std::int32_t slave;

  bool operator==(const TunnelRoute&) const = default;
};

template <typename Value>
struct PatternRow {
  HardwareIdPattern pattern;
  Value value;
};

struct McuRow {
  std::int32_t mcuId;
  std::uint32_t processorId;  // as the bootloader reports it
};

// clang-format off
inline constexpr std::array McuTable{
    McuRow{0x100, 0x1E9748},
    McuRow{0x101, 0x1E9749},
    McuRow{0x102, 0x1E9844},
    McuRow{0x103, 0x1E9847},
    McuRow{0x104, 0x1E9742},
    McuRow{0x105, 0x1E9842},
    McuRow{0x106, 0x1E954C},
    McuRow{0x107, 0x1E9315},
    McuRow{0x108, 0x1E9412},
    McuRow{0x109, 0x1E9508},
    McuRow{0x10A, 0x1E9752},
    McuRow{0x10B, 0x1E9751},
    McuRow{0x10C, 0x1E9846},
    McuRow{0x10D, 0x1E970A},
    McuRow{0x10E, 0x1E9709},
    McuRow{0x10F, 0x1E9708},
    McuRow{0x110, 0x1E9707},
    McuRow{0x111, 0x1E9744},
    McuRow{0x112, 0x1E9615},
    McuRow{0x113, 0x1E9614},
    McuRow{0x114, 0x1E9613},
    McuRow{0x115, 0x1E9612},
};

inline constexpr std::array TunnelRouteTable{
    //                      serie, type, module, variant    master, slave
    PatternRow<TunnelRoute>{{8, 1, kAnyField, kAnyField},   {4, 1}},
    PatternRow<TunnelRoute>{{2, 14},                        {4, 0}},
    PatternRow<TunnelRoute>{{8, 3, kAnyField, kAnyField},   {4, 2}},
    PatternRow<TunnelRoute>{{3, 1},                         {4, 0}},
};

inline constexpr std::array BootloaderMessageKindTable{
    PatternRow<std::uint32_t>{{2, 14}, 1},
};
// clang-format on

// The processor id of an MCU-ID; none for an unknown one, -1 among them.
std::optional<std::uint32_t> FindProcessorId(std::int32_t mcuId);

// Both go by the first hardware id of the image's first entry that has any, and by the row that
// fits it in the most fields. {-1, -1} and 0 when no row fits or the image lists no hardware id.
TunnelRoute FindTunnelRoute(const FirmwareImage& image);
std::uint32_t FindBootloaderMessageKind(const FirmwareImage& image);

}  // namespace tavo
