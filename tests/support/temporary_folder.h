// A folder of a test's own, empty at first and gone with the object, and what files hold.
#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace tavo::test {

// With every end of line as a line feed, whatever the system's files have. Empty when there is no
// such file.
inline std::string FileText(const std::filesystem::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

class TemporaryFolder {
 public:
  TemporaryFolder() : m_path(Make()) {}
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }

  const std::filesystem::path& Path() const { return m_path; }

 private:
  // Unique among all test programs: several may run at the same time.
  static std::filesystem::path Make() {
    static int made = 0;
    const auto moment = std::chrono::steady_clock::now().time_since_epoch().count();
    const std::filesystem::path path =
        std::filesystem::temp_directory_path() /
        ("tavo_" + std::to_string(moment) + "_" + std::to_string(made++));
    std::filesystem::create_directories(path);
    return path;
  }

  std::filesystem::path m_path;
};

}  // namespace tavo::test
