// A first check of an update file: whether the path leads to a readable file, and whether the content
// begins as its name promises. Common mistakes are named, such as a web page saved as firmware.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace tavo::tool {

// One sentence on the problem and one on the way around it; both empty without a problem.
struct FileProblem {
  std::string text{};
  std::string hint{};

  bool Exists() const { return !text.empty(); }
};

// Whether `path` leads to a regular file of at most `maxBytes` bytes that this user may read. Opens
// neither pipes nor devices, so it never waits.
FileProblem CheckReadable(const std::string& path, std::uintmax_t maxBytes);

// Whether a file could be Intel HEX text or an archive, as the extension of its path says. A file named
// like an archive always could: ExplainNoArchive judges one that cannot be opened.
FileProblem CheckUpdateFile(const std::string& path, std::span<const std::uint8_t> bytes);

// The problem of a file that should be an archive and is none.
FileProblem ExplainNoArchive(std::span<const std::uint8_t> bytes);

}  // namespace tavo::tool
