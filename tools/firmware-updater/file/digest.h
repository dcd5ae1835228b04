// The SHA-256 by which a record names the file that was written.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace tavo::tool {

// In lower-case hexadecimal; empty without bytes, and when the system's cryptography refuses.
std::string Sha256(std::span<const std::uint8_t> bytes);

}  // namespace tavo::tool
