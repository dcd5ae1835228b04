// The files in page/, which the build puts into the program.
#pragma once

#include <span>
#include <string_view>

namespace tavo::tool {

struct PageFile {
  const char* path;  // in the address
  const char* type;
  std::string_view text;
};

std::span<const PageFile> PageFiles();

}  // namespace tavo::tool
