// Files in folders where other accounts may write: nothing here follows a link in the last part of a
// path, and no name can be guessed before the file has it.
#pragma once

#include <filesystem>
#include <string_view>

#include "simulator/usbip/socket.h"

namespace tavosim {

// A file that appears under its name only when it is complete. Until then it has a random name in the
// same folder; without Name it is removed at the end. Linux only.
//
//   NewFile file(path, NewFile::Existing::Keep);
//   file.Write(bytes);
//   file.Name();
class NewFile {
 public:
  enum class Existing { Keep, Replace };  // a file, or a link, that has the name at construction

  // Throws std::runtime_error, with a text for the user, when the folder cannot be written.
  NewFile(std::filesystem::path path, Existing existing);
  NewFile(NewFile&& other) noexcept;
  NewFile& operator=(NewFile&&) = delete;
  ~NewFile();

  // Throws std::runtime_error when not all of it can be written.
  void Write(std::string_view bytes);

  // Throws std::runtime_error when a file to keep, or one that appeared after construction, has it.
  void Name();

  // The temporary name; it has the extension of the final one.
  const std::filesystem::path& Temporary() const { return m_temporary; }

 private:
  std::filesystem::path m_path;
  std::filesystem::path m_temporary{};
  bool m_replaces = false;
  usbip::Socket m_file{};
};

// Opens a regular file to append to, and creates it if needed. Throws std::runtime_error for a link or
// anything else that is not a regular file.
usbip::Socket OpenToAppend(const std::filesystem::path& path);

// Throws std::runtime_error, naming `path`, when not all of it can be written.
void WriteAll(const usbip::Socket& file, std::string_view bytes, const std::filesystem::path& path);

}  // namespace tavosim
