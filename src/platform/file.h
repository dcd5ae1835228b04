// Opens files by path, which is encoded differently on each system. For the update file reader and,
// through the Platform, the log.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

namespace tavo {

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using FileHandle = std::unique_ptr<std::FILE, CloseFile>;

// Opens the file at `path` for reading bytes and lets others read and write it. Null when it cannot
// be opened and when it is not a regular file but, for example, a folder or a pipe. Never waits.
//
// The path is the one that a host passes. On Windows that is UTF-8 where it is valid UTF-8, otherwise
// text in the machine's code page; elsewhere the bytes are the path.
FileHandle OpenForReading(const std::string& path);

// Whether the last part of a path may be a link. A default name must not be a link: another account that
// can write to the folder could plant one and so choose the file.
enum class Links { Follow, Refuse };

}  // namespace tavo
