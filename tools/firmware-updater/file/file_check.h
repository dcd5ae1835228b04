// A first look at a path, before anything of an update file is read: is there a file that may be
// read, and does it begin as a file of its name should? What people commonly hand over instead is
// called by its name. It reads a few bytes at most and so is quick whatever the path leads to.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace tavo::tool {

// What is wrong, in one sentence, and what to do about it; both empty when nothing is.
struct FileProblem {
  std::string text{};
  std::string hint{};

  bool Exists() const { return !text.empty(); }
};

// Whether there is an ordinary file at `path` that may be read, of at most `maxBytes` bytes.
FileProblem CheckReadable(const std::string& path, std::uintmax_t maxBytes);

// Whether a file could be Intel HEX text or an archive, as the extension of its path says. A file named
// like an archive always could: ExplainNoArchive judges one that cannot be opened.
FileProblem CheckUpdateFile(const std::string& path, std::span<const std::uint8_t> bytes);

// What a file that should be an archive and is none looks like instead.
FileProblem ExplainNoArchive(std::span<const std::uint8_t> bytes);

}  // namespace tavo::tool
