// A text file to which several processes append at the same time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tavo::tool {

class SharedFile {
 public:
  // Creates the file when it is missing.
  explicit SharedFile(const std::string& path);
  ~SharedFile();
  SharedFile(const SharedFile&) = delete;
  SharedFile& operator=(const SharedFile&) = delete;

  // Whether it is open for appending: like a log, a regular file or a character device. The rest is only for
  // one that is.
  bool IsUsable() const;

  // True: no other process has the lock until Unlock, or until this one ends. False: another one has it.
  bool Lock();
  void Unlock();

  // Whether the last line lacks its end.
  bool EndsInMidLine() const;

  // All of the text at once, at the end of the file. False: it may be there in part.
  bool Append(std::string_view text);

  // Waits until the disk has what was written.
  bool Flush();

 private:
  std::intptr_t m_handle;
};

}  // namespace tavo::tool
