// Update files that are made to harm: nothing crashes, hangs or eats the machine's memory, and the
// good members of an archive are still there.
#include <gtest/gtest.h>
#ifndef _WIN32
#include <sys/stat.h>
#endif

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <new>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "package/file_reading.h"
#include "package/update_file.h"
#include "simulator/firmware_builder.h"

namespace {

// Allocations of more than this fail, as on a machine whose memory is used up.
std::atomic<std::size_t> largestAllocation{std::numeric_limits<std::size_t>::max()};

}  // namespace

// Not inlined: the compiler would take new and free for a mistake.
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* const block = size <= largestAllocation ? std::malloc(size) : nullptr;
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
[[gnu::noinline]] void operator delete(void* block) noexcept { std::free(block); }
[[gnu::noinline]] void operator delete(void* block, std::size_t /*size*/) noexcept {
  std::free(block);
}

namespace tavo {
namespace {

using tavosim::ZipArchive;
using Firsts = std::vector<int>;

constexpr std::size_t kMiB = 1 << 20;

// HEX text of the one byte `value`, and behind its end as many blanks as make it `size` long.
std::string OneByte(std::uint8_t value, std::size_t size = 0) {
  std::string text = tavosim::HexText({{value}, 0, 0});
  text.resize(std::max(text.size(), size), ' ');
  return text;
}

// Where things stand in the directory record of a member, and in the record at an archive's end.
constexpr std::string_view kMember("PK\1\2");
constexpr std::size_t kCrc = 16;
constexpr std::size_t kPackedSize = 20;
constexpr std::size_t kUnpackedSize = 24;
constexpr std::size_t kLocalHeader = 42;
constexpr std::size_t kName = 46;
constexpr std::string_view kEnd("PK\5\6");
constexpr std::size_t kMembersOnDisk = 8;
constexpr std::size_t kMembers = 10;
constexpr std::size_t kDirectorySize = 12;
constexpr std::size_t kDirectoryPlace = 16;

// Puts a number of `bytes` bytes at an offset in the first record of a kind.
std::string With(std::string archive, std::string_view record, std::size_t offset,
                 std::size_t value, std::size_t bytes = 4) {
  const std::size_t at = archive.find(record) + offset;
  for (std::size_t i = 0; i < bytes; ++i) archive[at + i] = static_cast<char>(value >> (8 * i));
  return archive;
}

std::string WithMemberCount(const std::string& archive, std::size_t count) {
  return With(With(archive, kEnd, kMembersOnDisk, count, 2), kEnd, kMembers, count, 2);
}

// An archive whose directory names its one member `count` times: all of them share their bytes.
std::string Repeated(std::string archive, std::size_t count) {
  const std::size_t at = archive.find(kMember);
  const std::string record = archive.substr(at, archive.find(kEnd) - at);
  archive = WithMemberCount(With(archive, kEnd, kDirectorySize, record.size() * count), count);
  std::string records;
  for (std::size_t i = 1; i < count; ++i) records += record;
  return archive.insert(at, records);
}

class HarmfulFiles : public testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(m_folder); }
  void TearDown() override { std::filesystem::remove_all(m_folder); }

  std::string Path(std::string_view name) const { return (m_folder / name).string(); }

  // The first byte of each image; -1 for an image without bytes.
  Firsts Load(std::string_view name, std::size_t memory = 4 * kMiB) const {
    const std::string path = Path(name);
    largestAllocation = memory;
    const std::vector<FirmwareImage> images = LoadUpdateFile(path);
    largestAllocation = std::numeric_limits<std::size_t>::max();
    Firsts firsts;
    for (const FirmwareImage& image : images) {
      firsts.push_back(image.data.empty() ? -1 : image.data.front());
    }
    return firsts;
  }

  const std::filesystem::path m_folder =
      std::filesystem::path(testing::TempDir()) / "tavo_harmful_files" /
      testing::UnitTest::GetInstance()->current_test_info()->name();
};

struct Row {
  const char* what;
  std::string archive;
  Firsts firsts;
};

TEST_F(HarmfulFiles, GoodMembersOfAnArchiveAreStillThere) {
  const std::string good = ZipArchive({{"a.hex", OneByte(1)}, {"b.hex", OneByte(2)}});
  const std::string bomb = ZipArchive({{"a.hex", OneByte(1, 8 * kMiB)}, {"b.hex", OneByte(2)}});
  const std::string one = ZipArchive({{"a.hex", OneByte(1)}});
  const std::string longName(0xFFFF - 4, 'n');
  const Row rows[] = {
      {"nothing wrong", good, {1, 2}},
      {"claims too much", With(good, kMember, kUnpackedSize, kMaxUpdateTextBytes + 1), {2}},
      {"claims 4 GiB", With(good, kMember, kUnpackedSize, 0xFFFFFFFE), {2}},
      {"claims all it may", With(good, kMember, kUnpackedSize, kMaxUpdateTextBytes), {2}},
      {"claims one byte", With(good, kMember, kUnpackedSize, 1), {2}},
      {"8 MiB of blanks do not fit", bomb, {2}},
      {"8 MiB claim to be a line", With(bomb, kMember, kUnpackedSize, 32), {2}},
      {"packed size reaches over the next member", With(good, kMember, kPackedSize, 90), {1, 2}},
      {"packed size cuts off", With(good, kMember, kPackedSize, 5), {2}},
      {"packed size beyond the file", With(good, kMember, kPackedSize, 0x7FFFFFFF), {}},
      {"bytes of another place", With(good, kMember, kLocalHeader, 7), {2}},
      {"bytes beyond the file", With(good, kMember, kLocalHeader, 0xFFFFFFF0), {}},
      {"directory beyond the file", With(good, kEnd, kDirectoryPlace, 0xFFFFFFF0), {}},
      {"directory too long", With(good, kEnd, kDirectorySize, 0xFFFFFFF0), {}},
      {"directory too short", With(good, kEnd, kDirectorySize, 60), {}},
      {"more members than the directory has", WithMemberCount(good, 3), {}},
      {"as many members as there can be, all the same", Repeated(one, 0xFFFF - 1), {1}},
      {"the same, all damaged", Repeated(With(one, kMember, kCrc, 7), 0xFFFF - 1), {}},
      {"NUL where the dot was", With(good, kMember, kName + 1, 0, 1), {2}},
      {"NUL before the dot", With(good, kMember, kName, 0, 1), {1, 2}},
      {"longest name",
       ZipArchive({{longName + ".hex", OneByte(1)}, {"b.hex", OneByte(2)}}),
       {2, 1}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    tavosim::WriteFile(Path("fw.zip"), row.archive);
    EXPECT_EQ(Load("fw.zip"), row.firsts);
  }
}

TEST_F(HarmfulFiles, MemberThatDoesNotFitIntoMemoryIsLeftOutAlone) {
  const auto text = [](std::uint8_t value) { return OneByte(value, kMiB); };
  tavosim::WriteFile(
      Path("fw.zip"),
      ZipArchive({{"a.hex", OneByte(1)}, {"b.hex", text(2)}, {"c.hex", OneByte(3)}}));
  tavosim::WriteFile(Path("fw.hex"), text(2));
  EXPECT_EQ(Load("fw.zip"), (Firsts{1, 2, 3}));
  EXPECT_EQ(Load("fw.hex"), Firsts{2});
  EXPECT_EQ(Load("fw.zip", kMiB / 4), (Firsts{1, 3}));
  EXPECT_EQ(Load("fw.hex", kMiB / 4), Firsts{});
}

#ifndef _WIN32
TEST_F(HarmfulFiles, WhatIsNoFileIsNotWaitedFor) {
  for (const std::string kind : {".hex", ".zip"}) {
    ASSERT_EQ(mkfifo(Path("pipe" + kind).c_str(), 0600), 0);
    std::filesystem::create_symlink("/dev/zero", Path("endless" + kind));
    std::filesystem::create_directory(Path("folder" + kind));
    for (const std::string name : {"pipe", "endless", "folder", "missing"}) {
      EXPECT_EQ(Load(name + kind), kind == ".hex" ? Firsts{-1} : Firsts{}) << name << kind;
    }
  }
}
#endif

}  // namespace
}  // namespace tavo
