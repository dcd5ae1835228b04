// The update files that are measured: made once, in a folder that goes with the process.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace tavo::bench {

// HEX text of firmware of so many MiB, in records of 16 bytes that end in CR LF.
const std::vector<std::uint8_t>& HexTextOf(std::size_t mebibytes);

// A path in the folder.
std::string FilePath(const std::string& name);

// That text as a file.
std::string HexFileOf(std::size_t mebibytes);

}  // namespace tavo::bench
