#include "package/zip_members.h"

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "miniz.h"
#include "platform/file.h"
#include "platform/memory.h"

namespace tavo {
namespace {

// While miniz reads the directory of an archive it looks for the extra field of a member, behind a
// name of up to 64 KiB, before it has checked that name and field, up to 64 KiB too, lie within the
// directory. Every block is therefore longer than asked for, and zero there: a field of zeros means
// nothing, and the check that follows turns the archive down. Once the directory has been read, blocks
// get no tail: zeroing it would cost thousands of small members their time.
constexpr std::size_t kZeroTail = 2 * 0x10000;

constexpr mz_uint kFlags = MZ_ZIP_FLAG_DO_NOT_SORT_CENTRAL_DIRECTORY;

// The size of a block of `items` times `itemSize` bytes and its tail; 0 when it is beyond all
// reason.
std::size_t BlockSize(std::size_t items, std::size_t itemSize) {
  if (itemSize != 0 && items > kMaxUpdateTextBytes / itemSize) return 0;
  return items * itemSize + kZeroTail;
}

void* AllocateBlock(void*, std::size_t items, std::size_t itemSize) {
  const std::size_t size = BlockSize(items, itemSize);
  return size == 0 ? nullptr : std::calloc(1, size);
}

void* ResizeBlock(void*, void* block, std::size_t items, std::size_t itemSize) {
  const std::size_t size = BlockSize(items, itemSize);
  if (size == 0) return nullptr;
  auto* resized = static_cast<std::uint8_t*>(std::realloc(block, size));
  if (resized != nullptr) std::memset(resized + size - kZeroTail, 0, kZeroTail);
  return resized;
}

void FreeBlock(void*, void* block) { std::free(block); }

void* AllocatePlainBlock(void*, std::size_t items, std::size_t itemSize) {
  return BlockSize(items, itemSize) == 0 ? nullptr : std::malloc(items * itemSize);
}

// Uninitialised, so that memory which a damaged member only claims is never touched.
struct Unpacked {
  std::unique_ptr<std::uint8_t[]> bytes;
  std::size_t size = 0;
};

class ZipReader {
 public:
  explicit ZipReader(std::FILE* file) : ZipReader() {
    if (file != nullptr) Opened(mz_zip_reader_init_cfile(&m_archive, file, 0, kFlags));
  }
  explicit ZipReader(std::span<const std::uint8_t> archive) : ZipReader() {
    Opened(mz_zip_reader_init_mem(&m_archive, archive.data(), archive.size(), kFlags));
  }
  ~ZipReader() {
    if (m_isOpen) mz_zip_reader_end(&m_archive);
  }
  ZipReader(const ZipReader&) = delete;
  ZipReader& operator=(const ZipReader&) = delete;

  bool IsOpen() const { return m_isOpen; }

  mz_uint MemberCount() { return mz_zip_reader_get_num_files(&m_archive); }

  bool IsFolder(mz_uint index) { return mz_zip_reader_is_file_a_directory(&m_archive, index) != 0; }

  std::string Name(mz_uint index) {
    // The length that miniz names includes a terminating NUL, which a string has room for.
    const mz_uint length = mz_zip_reader_get_filename(&m_archive, index, nullptr, 0);
    if (length == 0) return {};
    std::string name(length - 1, '\0');
    mz_zip_reader_get_filename(&m_archive, index, name.data(), length);
    std::replace(name.begin(), name.end(), '\\', '/');
    return name;
  }

  // The size that a member claims to have unpacked.
  std::size_t ClaimedSize(mz_uint index) {
    mz_zip_archive_file_stat status;
    if (mz_zip_reader_file_stat(&m_archive, index, &status) == 0) return 0;
    return static_cast<std::size_t>(status.m_uncomp_size);
  }

  MemberFate Unpack(mz_uint index, Unpacked& text) try {
    text.size = ClaimedSize(index);
    text.bytes = std::make_unique_for_overwrite<std::uint8_t[]>(text.size);
    WillBeFilled(text.bytes.get(), text.size);
    // The unpacker itself leaves unsaid that the packed bytes make no sense.
    mz_zip_set_last_error(&m_archive, MZ_ZIP_DECOMPRESSION_FAILED);
    if (mz_zip_reader_extract_to_mem(&m_archive, index, text.bytes.get(), text.size, 0) != 0) {
      return MemberFate::Unpacked;
    }
    switch (mz_zip_peek_last_error(&m_archive)) {
      case MZ_ZIP_UNSUPPORTED_ENCRYPTION: return MemberFate::Encrypted;
      case MZ_ZIP_UNSUPPORTED_METHOD: return MemberFate::UnknownMethod;
      case MZ_ZIP_ALLOC_FAILED: return MemberFate::TooLarge;
      case MZ_ZIP_CRC_CHECK_FAILED: return MemberFate::BadChecksum;
      default: return MemberFate::Damaged;
    }
  } catch (const std::bad_alloc&) {
    return MemberFate::TooLarge;  // a smaller member may still fit
  }

  std::string_view LastError() {
    return mz_zip_get_error_string(mz_zip_peek_last_error(&m_archive));
  }

 private:
  ZipReader() {
    m_archive.m_pAlloc = AllocateBlock;
    m_archive.m_pRealloc = ResizeBlock;
    m_archive.m_pFree = FreeBlock;
  }

  void Opened(mz_bool isOpen) {
    m_isOpen = isOpen != 0;
    m_archive.m_pAlloc = AllocatePlainBlock;
  }

  mz_zip_archive m_archive{};
  bool m_isOpen = false;
};

// Bytes that unpacking an archive may still cost. Damaged members are of no use, but take their time:
// without a bound on it, thousands of members that share the same packed bytes and fail at the end
// would take hours.
struct Budget {
  explicit Budget(std::size_t maxText) : kept(maxText), unpacked(2 * maxText) {}
  std::size_t kept;
  std::size_t unpacked;
};

MemberFate UnpackWithin(Budget& budget, ZipReader& reader, mz_uint index, Unpacked& text) {
  const std::size_t size = reader.ClaimedSize(index);
  if (size > std::min(budget.kept, budget.unpacked)) return MemberFate::TooLarge;
  budget.unpacked -= size;
  const MemberFate fate = reader.Unpack(index, text);
  if (fate == MemberFate::Unpacked) budget.kept -= size;
  return fate;
}

bool VisitMembers(ZipReader& reader, const ZipRules& rules, const MemberVisitor& visit) {
  Budget budget(rules.maxText);
  for (mz_uint index = 0; reader.IsOpen() && index < reader.MemberCount(); ++index) {
    UpdateMember member{.name = reader.Name(index)};
    Unpacked text;
    if (reader.IsFolder(index)) {
      member.fate = MemberFate::Folder;
    } else if (!rules.wants(member.name)) {
      member.fate = MemberFate::NotWanted;
    } else {
      member.fate = UnpackWithin(budget, reader, index, text);
    }
    if (member.fate == MemberFate::Unpacked) member.text = {text.bytes.get(), text.size};
    if (member.fate == MemberFate::Damaged) member.detail = reader.LastError();
    visit(member);
  }
  return reader.IsOpen();
}

}  // namespace

bool VisitZipMembers(const std::string& path, const ZipRules& rules, const MemberVisitor& visit) {
  const FileHandle file = OpenForReading(path);
  ZipReader reader(file.get());
  return VisitMembers(reader, rules, visit);
}

bool VisitZipMembers(std::span<const std::uint8_t> archive, const ZipRules& rules,
                     const MemberVisitor& visit) {
  ZipReader reader(archive);
  return VisitMembers(reader, rules, visit);
}

}  // namespace tavo
