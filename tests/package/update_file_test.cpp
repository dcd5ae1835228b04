#include "package/update_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/firmware_builder.h"

namespace tavo {
namespace {

using tavosim::ZipArchive;

// HEX text of the one byte `value`.
std::string OneByte(std::uint8_t value) { return tavosim::HexText({{value}, 0, 0}); }

class UpdateFileTest : public testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(m_folder); }
  void TearDown() override { std::filesystem::remove_all(m_folder); }

  std::string Path(std::string_view name) const { return (m_folder / name).string(); }

  // The first byte of each image of a file of that name and content; -1 for an image without bytes.
  std::vector<int> Load(std::string_view name, std::string_view content) const {
    tavosim::WriteFile(Path(name), content);
    std::vector<int> firstBytes;
    for (const FirmwareImage& image : LoadUpdateFile(Path(name))) {
      firstBytes.push_back(image.data.empty() ? -1 : image.data.front());
    }
    return firstBytes;
  }

  const std::filesystem::path m_folder =
      std::filesystem::path(testing::TempDir()) /
      testing::UnitTest::GetInstance()->current_test_info()->name();
};

using Firsts = std::vector<int>;

TEST_F(UpdateFileTest, ExtensionTellsTheKindOfFile) {
  const std::string zip = ZipArchive({{"fw.hex", OneByte(7)}});
  EXPECT_EQ(Load("a.hex", OneByte(7)), Firsts{7});
  EXPECT_EQ(Load("a.v2.HeX", OneByte(7)), Firsts{7});
  EXPECT_EQ(Load("a.ZIP", zip), Firsts{7});
  for (const char* name : {"a.bin", "a.hex ", "a.hex.bak", "hex."}) {
    EXPECT_EQ(Load(name, OneByte(7)), Firsts{}) << name;
  }
  EXPECT_EQ(Load("b.zip", OneByte(7)), Firsts{});
  std::filesystem::create_directories(m_folder / "old.hex");
  EXPECT_EQ(Load("old.hex/fw", OneByte(7)), Firsts{});
}

TEST_F(UpdateFileTest, UnreadableHexFileGivesOneEmptyImage) {
  std::filesystem::create_directories(m_folder / "folder.hex");
  for (const char* name : {"absent.hex", "folder.hex"}) {
    const auto images = LoadUpdateFile(Path(name));
    ASSERT_EQ(images.size(), 1u) << name;
    EXPECT_TRUE(images[0].data.empty());
    EXPECT_EQ(images[0].startAddress, 0xFFFFFFFFu);
  }
  std::filesystem::create_directories(m_folder / "folder.zip");
  for (const char* name : {"absent.zip", "folder.zip"}) {
    EXPECT_TRUE(LoadUpdateFile(Path(name)).empty()) << name;
  }
  EXPECT_TRUE(LoadUpdateFile("").empty());
  EXPECT_EQ(Load("bad.hex", "no record"), Firsts{});
}

TEST_F(UpdateFileTest, ArchiveGivesItsHexMembersInOrderOfName) {
  const std::string archive = ZipArchive({{"b.hex", OneByte(2)},
                                          {"a.HEX", OneByte(1)},
                                          {"readme.txt", OneByte(3)},
                                          {"folder.hex/", ""},
                                          {"sub/c.hex", OneByte(4)},
                                          {"Z.hex", OneByte(5)},
                                          {"bad.hex", ":0100000042BE\n"},
                                          {"empty.hex", ""}});
  EXPECT_EQ(Load("fw.zip", archive), (Firsts{5, 1, 2, -1, 4}));
}

TEST_F(UpdateFileTest, LaterMemberOfTheSameNameStays) {
  std::string archive = ZipArchive({{"d/a.hex", OneByte(1)}, {"d!a.hex", OneByte(2)}});
  for (std::size_t at; (at = archive.find('!')) != std::string::npos;) archive[at] = '\\';
  EXPECT_EQ(Load("fw.zip", archive), Firsts{2});
}

// Changes the bytes at an offset in the directory record of the archive's first member.
std::string WithDirectoryBytes(std::string archive, std::size_t offset, std::string_view bytes) {
  return archive.replace(archive.find("PK\1\2") + offset, bytes.size(), bytes);
}

TEST_F(UpdateFileTest, FoldersAndDamagedMembersAreLeftOut) {
  constexpr std::size_t kMethod = 10;
  constexpr std::size_t kCrc = 16;
  constexpr std::size_t kUnpackedSize = 24;
  constexpr std::size_t kAttributes = 38;
  const std::string archive = ZipArchive({{"a.hex", OneByte(1)}, {"b.hex", OneByte(2)}});
  EXPECT_EQ(Load("crc.zip", WithDirectoryBytes(archive, kCrc, "\1\2\3\4")), Firsts{2});
  const std::string folder = ZipArchive({{"a.hex", ""}, {"b.hex", OneByte(2)}});
  EXPECT_EQ(Load("folder.zip", WithDirectoryBytes(folder, kAttributes, "\x10")), Firsts{2});
  EXPECT_EQ(Load("method.zip", WithDirectoryBytes(archive, kMethod, "\x63")), Firsts{2});
  EXPECT_EQ(Load("huge.zip", WithDirectoryBytes(archive, kUnpackedSize, "\xFF\xFF\xFF\x7F")),
            Firsts{2});
}

TEST_F(UpdateFileTest, SurvivesDamagedArchives) {
  const std::string archive = ZipArchive({{"a.hex", OneByte(1)}, {"b.hex", OneByte(2)}});
  for (std::size_t size = 0; size < archive.size(); ++size) {
    EXPECT_EQ(Load("short.zip", archive.substr(0, size)), Firsts{}) << size;
  }
  for (std::size_t at = 0; at < archive.size(); ++at) {
    for (const char value : {'\0', '\xFF'}) {
      std::string damaged = archive;
      damaged[at] = value;
      EXPECT_LE(Load("damaged.zip", damaged).size(), 2u) << at;
    }
  }
}

// The extra field of such a member is looked for far behind the end of the directory.
TEST_F(UpdateFileTest, NameBeyondTheDirectoryIsNotFollowed) {
  std::string archive = ZipArchive({{"a.hex", OneByte(1)}});
  archive =
      WithDirectoryBytes(archive, 20, std::string_view("\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 8));
  archive = WithDirectoryBytes(archive, 28, std::string_view("\xFF\xFF\xFF\xFF", 4));
  EXPECT_EQ(Load("name.zip", archive), Firsts{});
}

}  // namespace
}  // namespace tavo
