// Files open for writing, and their names: one implementation for POSIX, one for Windows. Nothing here
// follows a link in the last part of a path, and no child process inherits a file. Failures throw
// std::system_error with an error of the generic category.
#pragma once

#include <filesystem>
#include <string_view>
#include <utility>

namespace tavosim {

// The path that a UTF-8 text names.
inline std::filesystem::path PathOf(std::string_view utf8) {
  return std::u8string(utf8.begin(), utf8.end());
}

// By its descriptor in the C runtime.
class OpenFile {
 public:
  OpenFile() = default;
  // Creates the file; fails if anything has the name.
  static OpenFile Create(const std::filesystem::path& path);
  // Opens a regular file, or creates it.
  static OpenFile ToAppend(const std::filesystem::path& path);
  OpenFile(OpenFile&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
  OpenFile& operator=(OpenFile&& other) noexcept {
    std::swap(m_descriptor, other.m_descriptor);
    return *this;
  }
  ~OpenFile();

  void Write(std::string_view bytes) const;

 private:
  explicit OpenFile(int descriptor) : m_descriptor(descriptor) {}

  int m_descriptor = -1;
};

// In one step. Keep fails if anything has the new name, Replace replaces a file or a link.
enum class Existing { Keep, Replace };
void Rename(const std::filesystem::path& from, const std::filesystem::path& to, Existing existing);

}  // namespace tavosim
