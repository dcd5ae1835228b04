// Files in folders where other accounts may write: nothing here follows a link in the last part of a
// path, and no name can be guessed before the file has it.
#pragma once

#include <filesystem>
#include <string_view>

#include "simulator/open_file.h"

namespace tavosim {

// A file that appears under its name only when it is complete. Until then it has a random name in the
// same folder; without Name it is removed at the end.
//
//   NewFile file(path, Existing::Keep);
//   file.Write(bytes);
//   file.Name();
class NewFile {
 public:
  // Keep or replace a file, or a link, that has the name at construction. Throws std::runtime_error,
  // with a text for the user, when the folder cannot be written.
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
  Existing m_existing;
  OpenFile m_file{};
};

// A regular file that grows at its end, created if needed.
class GrowingFile {
 public:
  // Throws std::runtime_error for a link or anything else that is not a regular file.
  explicit GrowingFile(std::filesystem::path path);

  // Throws std::runtime_error when not all of it can be written.
  void Append(std::string_view bytes) const;

 private:
  std::filesystem::path m_path;
  OpenFile m_file{};
};

}  // namespace tavosim
