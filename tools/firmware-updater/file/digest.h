// The SHA-256 of a file, by which a record names what was written.
#pragma once

#include <string>

namespace tavo::tool {

// In lower-case hexadecimal; empty when the file cannot be read.
std::string Sha256OfFile(const std::string& path);

}  // namespace tavo::tool
