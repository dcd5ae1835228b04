// Opens files of the machine this process runs on, which differ from system to system in how a path
// is written. For the update file reader and, through the Platform, the log.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

namespace tavo {

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using FileHandle = std::unique_ptr<std::FILE, CloseFile>;

// Opens the file at `path` for reading bytes, without shutting out other readers and writers. Null
// when it cannot be opened, and for what is no file, such as a folder or a pipe. Never waits.
//
// The path is what a host has passed. On Windows that is UTF-8 where it is valid UTF-8, otherwise
// text in the machine's code page; elsewhere the bytes are the path.
FileHandle OpenForReading(const std::string& path);

}  // namespace tavo
