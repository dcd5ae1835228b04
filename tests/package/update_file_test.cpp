// Good update files give their images; files made to harm neither crash nor hang nor eat the machine's
// memory, and the good members of an archive still count.
#include <gtest/gtest.h>
#ifndef _WIN32
#include <sys/stat.h>
#endif

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "package/file_reading.h"
#include "package/update_file.h"
#include "simulator/firmware_builder.h"
#include "tests/support/temporary_folder.h"

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
// A sanitizer's own versions of these would not come by the ones above.
[[gnu::noinline]] void* operator new[](std::size_t size) { return operator new(size); }
[[gnu::noinline]] void operator delete[](void* block) noexcept { std::free(block); }
[[gnu::noinline]] void operator delete[](void* block, std::size_t /*size*/) noexcept {
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
constexpr std::size_t kMethod = 10;
constexpr std::size_t kCrc = 16;
constexpr std::size_t kPackedSize = 20;
constexpr std::size_t kUnpackedSize = 24;
constexpr std::size_t kNameLength = 28;
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

class UpdateFile : public testing::Test {
 protected:
  std::string Path(std::string_view name) const { return (m_folder.Path() / name).string(); }

  // The first byte of each image; -1 for an image without bytes.
  Firsts Load(std::string_view name, std::size_t memory = 4 * kMiB) const {
    const std::string path = Path(name);
    largestAllocation = memory;
    const std::vector<FirmwareImage> images = LoadUpdateFile(path);
    largestAllocation = std::numeric_limits<std::size_t>::max();
    return FirstsOf(images);
  }
  Firsts Load(std::string_view name, std::string_view content) const {
    tavosim::WriteFile(Path(name), content);
    return Load(name);
  }

  static Firsts FirstsOf(const std::vector<FirmwareImage>& images) {
    Firsts firsts;
    for (const FirmwareImage& image : images) {
      firsts.push_back(image.data.empty() ? -1 : image.data.front());
    }
    return firsts;
  }

  test::TemporaryFolder m_folder;
};

TEST_F(UpdateFile, IsReadByTheExtensionOfItsName) {
  const std::string zip = ZipArchive({{"fw.hex", OneByte(7)}});
  EXPECT_EQ(Load("a.v2.HeX", OneByte(7)), Firsts{7});
  EXPECT_EQ(Load("a.ZIP", zip), Firsts{7});
  EXPECT_EQ(Load("bad.hex", "no record"), Firsts{});
  for (const char* name : {"a.bin", "a.hex ", "a.hex.bak", "hex.", "b.zip"}) {
    EXPECT_EQ(Load(name, OneByte(7)), Firsts{}) << name;
  }
  std::filesystem::create_directories(Path("old.hex"));
  EXPECT_EQ(Load("old.hex/fw", OneByte(7)), Firsts{});
  EXPECT_TRUE(LoadUpdateFile("").empty());
}

TEST_F(UpdateFile, ThatCannotBeReadGivesOneEmptyImageOrNone) {
#ifndef _WIN32
  for (const std::string kind : {".hex", ".zip"}) {
    ASSERT_EQ(mkfifo(Path("pipe" + kind).c_str(), 0600), 0);
    std::filesystem::create_symlink("/dev/zero", Path("endless" + kind));
  }
#endif
  for (const std::string kind : {".hex", ".zip"}) {
    std::filesystem::create_directory(Path("folder" + kind));
    for (const std::string name : {"pipe", "endless", "folder", "missing"}) {
      EXPECT_EQ(Load(name + kind), kind == ".hex" ? Firsts{-1} : Firsts{}) << name << kind;
    }
  }
}

struct Row {
  const char* name;
  std::string archive;
  Firsts firsts;
};

TEST_F(UpdateFile, GoodMembersOfAnArchiveCountInTheOrderOfTheirNames) {
  const std::string good = ZipArchive({{"a.hex", OneByte(1)}, {"b.hex", OneByte(2)}});
  const std::string bomb = ZipArchive({{"a.hex", OneByte(1, 8 * kMiB)}, {"b.hex", OneByte(2)}});
  const std::string one = ZipArchive({{"a.hex", OneByte(1)}});
  const std::string longName(0xFFFF - 4, 'n');
  const auto twice = [](std::uint8_t value, const std::string& later) {
    return ZipArchive({{"a.hex", OneByte(value)}, {"b.hex", OneByte(2)}, {"a.hex", later}});
  };
  std::string slashes = ZipArchive({{"d/a.hex", OneByte(1)}, {"d!a.hex", OneByte(2)}});
  std::replace(slashes.begin(), slashes.end(), '!', '\\');
  const Row rows[] = {
      {"nothing wrong", good, {1, 2}},
      {"all kinds of members",
       ZipArchive({{"b.hex", OneByte(2)},
                   {"a.HEX", OneByte(1)},
                   {"readme.txt", OneByte(3)},
                   {"folder.hex/", ""},
                   {"sub/c.hex", OneByte(4)},
                   {"Z.hex", OneByte(5)},
                   {"bad.hex", ":0100000042BE\n"},
                   {"empty.hex", ""}}),
       {5, 1, 2, -1, 4}},
      {"later member of the same name", twice(1, OneByte(3)), {3, 2}},
      {"later bad member of the same name", twice(1, "no record"), {2}},
      {"the same name with a backslash", slashes, {2}},
      {"unknown method", With(good, kMember, kMethod, 99, 2), {2}},
      {"wrong CRC-32", With(good, kMember, kCrc, 7), {2}},
      {"claims 4 GiB", With(good, kMember, kUnpackedSize, 0xFFFFFFFE), {2}},
      {"claims all it may", With(good, kMember, kUnpackedSize, kMaxUpdateTextBytes), {2}},
      {"8 MiB of blanks do not fit", bomb, {2}},
      {"8 MiB claim to be a line", With(bomb, kMember, kUnpackedSize, 32), {2}},
      {"packed size beyond the file", With(good, kMember, kPackedSize, 0x7FFFFFFF), {}},
      {"directory beyond the file", With(good, kEnd, kDirectoryPlace, 0xFFFFFFF0), {}},
      {"name beyond the directory",
       With(With(With(one, kMember, kPackedSize, 0xFFFFFFFF), kMember, kUnpackedSize, 0xFFFFFFFF),
            kMember, kNameLength, 0xFFFFFFFF),
       {}},
      {"as many members as there can be, all the same", Repeated(one, 0xFFFF - 1), {1}},
      {"the same, all damaged", Repeated(With(one, kMember, kCrc, 7), 0xFFFF - 1), {}},
      {"NUL where the dot was", With(good, kMember, kName + 1, 0, 1), {2}},
      {"longest name",
       ZipArchive({{longName + ".hex", OneByte(1)}, {"b.hex", OneByte(2)}}),
       {2, 1}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(Load("fw.zip", row.archive), row.firsts);
  }
}

TEST_F(UpdateFile, SurvivesAnyDamage) {
  const std::string archive = ZipArchive({{"a.hex", OneByte(1)}, {"b.hex", OneByte(2)}});
  for (std::size_t at = 0; at < archive.size(); ++at) {
    EXPECT_EQ(Load("short.zip", archive.substr(0, at)), Firsts{}) << at;
    for (const std::size_t value : {0x00u, 0xFFu}) {
      EXPECT_LE(Load("damaged.zip", With(archive, "", at, value, 1)).size(), 2u) << at;
    }
  }
}

TEST_F(UpdateFile, MemberThatDoesNotFitIntoMemoryIsLeftOutAlone) {
  const auto text = [](std::uint8_t value) { return OneByte(value, kMiB); };
  const std::string archive =
      ZipArchive({{"a.hex", OneByte(1)}, {"b.hex", text(2)}, {"c.hex", OneByte(3)}});
  EXPECT_EQ(Load("fw.zip", archive), (Firsts{1, 2, 3}));
  EXPECT_EQ(Load("fw.hex", text(2)), Firsts{2});
  EXPECT_EQ(Load("fw.zip", kMiB / 4), (Firsts{1, 3}));
  EXPECT_EQ(Load("fw.hex", kMiB / 4), Firsts{});
}

// A letter for each fate, in the order of MemberFate: L is too large, C a bad checksum.
constexpr std::string_view kFateLetters = "UFNEMLCDXA";

// The fates of six members of 100 bytes each, of which the first `damaged` ones have a wrong checksum.
std::string FatesWithin(std::size_t maxText, int damaged) {
  std::vector<tavosim::ZipMember> members;
  for (const char name : std::string("abcdef")) members.push_back({{name}, OneByte(1, 100)});
  std::string archive = ZipArchive(members);
  for (std::size_t at = 0; damaged > 0; --damaged) {
    at = archive.find(kMember, at) + kCrc;
    archive[at] ^= 1;
  }
  std::string fates;
  VisitZipMembers({reinterpret_cast<const std::uint8_t*>(archive.data()), archive.size()},
                  {.wants = [](std::string_view name) { return name != "b"; }, .maxText = maxText},
                  [&](const UpdateMember& member) {
                    fates += kFateLetters[static_cast<std::size_t>(member.fate)];
                    EXPECT_EQ(member.text.size(), member.fate == MemberFate::Unpacked ? 100 : 0);
                  });
  return fates;
}

TEST(ZipMembers, AreUnpackedWithinABound) {
  EXPECT_EQ(FatesWithin(500, 0), "UNUUUU");
  EXPECT_EQ(FatesWithin(499, 0), "UNUUUL");
  EXPECT_EQ(FatesWithin(100, 0), "UNLLLL");
  EXPECT_EQ(FatesWithin(99, 0), "LNLLLL");
  EXPECT_EQ(FatesWithin(150, 4), "CNCCLL");
}

}  // namespace
}  // namespace tavo
