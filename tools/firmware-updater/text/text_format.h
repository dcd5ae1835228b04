// Small texts of facts, for screens and messages.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "log/printf_like.h"

namespace tavo::tool {

// As std::snprintf, cut off after 255 characters.
TAVO_PRINTF_LIKE(1, 2) std::string Format(const char* format, ...);

// "0x08A0".
std::string Hex(std::uint32_t value, int digits = 4);

double Seconds(std::chrono::milliseconds time);

// "A3 83 04 F9"; of many bytes the first ones, and how many they are.
std::string HexBytes(std::span<const std::uint8_t> bytes);

// A text from outside, such as a name in an archive, as a terminal may show it; one of more than
// `maxLength` bytes ends in "...".
std::string Displayable(std::string_view text, std::size_t maxLength = 200);

// The text in lines of at most `width` characters, broken at blanks. What is there to be pasted stays in
// one piece, however long: a command in backquotes, and all from ": firmware-updater " on.
std::string Wrapped(std::string_view text, std::size_t width);

// "8.4.1.0": Serie, Type, Module and Variant.
std::string HardwareIdText(std::uint16_t hardwareId);

// "8.4.1.0, 8.4.2.0", "none"; of many, the first ones and the number of the others.
std::string HardwareIdsText(const std::vector<std::uint16_t>& ids);

}  // namespace tavo::tool
