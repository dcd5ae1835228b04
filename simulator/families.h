// The device families that the simulator can be and that the firmware builder can build for. One
// row holds everything in which a device and the firmware made for it must agree.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace tavosim {

struct Family {
  std::string_view name;
  std::uint16_t hardwareId;   // Serie, Type, Module, Variant, four bits each
  std::uint8_t adbType;       // type of the firmware's descriptor block
  std::uint16_t mcuId;        // 0 = the firmware names no MCU
  std::uint32_t processorId;  // what the bootloader reports
  std::uint16_t deviceId;     // what the application reports
  std::uint16_t softwareId;   // what the application reports
  std::uint8_t bootloaderVersion;
  std::uint8_t blockSize;              // bytes
  std::uint16_t applicationKiB;        // size of the application section
  std::uint32_t flashStart;            // device address of the application section
  std::uint16_t route;                 // tunnel: master * 256 + slave; 0 = no tunnel
  std::uint16_t applicationRequestId;  // 0x180 for the family with the alternative message type
};

// clang-format off
inline constexpr std::array kFamilies{
  //     name        hwid    adb  mcu    processor  device  software bl  block KiB  flash start route   request id
  Family{"plain",    0x8410, 6, 0x100, 0x1E9748, 0x0101, 0x1234, 3, 128, 16, 0x00004000, 0x0000, 0x100},
  Family{"legacy",   0x8420, 2, 0x000, 0x1E9502, 0x0102, 0x1234, 1,  64,  8, 0x00002000, 0x0000, 0x100},
  Family{"tunnel",   0x8150, 2, 0x105, 0x1E9842, 0x0201, 0x2345, 3, 128, 16, 0x00004000, 0x0401, 0x100},
  Family{"gateway",  0x82E0, 6, 0x101, 0x1E9749, 0x0301, 0x3456, 3, 128, 16, 0x00004000, 0x0400, 0x180},
  Family{"drive",    0x8320, 6, 0x102, 0x1E9844, 0x0401, 0x4567, 2,  64, 16, 0x00004000, 0x0402, 0x100},
  Family{"labelled", 0x8430, 5, 0x000, 0x1E9748, 0x0503, 0x5678, 3, 128, 16, 0x00004000, 0x0000, 0x100},
  Family{"variant",  0x8440, 7, 0x103, 0x1E9847, 0x0602, 0x6789, 4, 128, 16, 0x00014000, 0x0000, 0x100},
};
// clang-format on

}  // namespace tavosim
