// The error codes stand in three places that people read: the header, the README and the table that
// tools print from. None may forget one.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "engine/error_code.h"

namespace tavo::test {
namespace {

std::string ReadDocument(const char* name) {
  std::ifstream file(std::string(TAVO_SOURCE_DIR) + "/" + name);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(Documents, NameEveryErrorCodeAndNoReservedOne) {
  const std::string header = ReadDocument("include/firmware_updater.h");
  const std::string readme = ReadDocument("README.md");
  for (const ErrorDescription& row : kErrorTable) {
    const std::string code = std::to_string(static_cast<unsigned>(row.code));
    const std::string headerRow = "\n *   " + std::string(2 - code.size(), ' ') + code + "  ";
    const std::string readmeRow = "\n| " + code + " | ";
    const bool documented = !row.name.empty();
    EXPECT_EQ(header.find(headerRow) != std::string::npos, documented) << code;
    EXPECT_EQ(readme.find(readmeRow) != std::string::npos, documented) << code;
  }
}

}  // namespace
}  // namespace tavo::test
