#include "package/zip_members.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "miniz.h"
#include "package/file_reading.h"
#include "platform/file.h"

namespace tavo {
namespace {

// While miniz reads the directory of an archive it looks for the extra field of a member, behind a
// name of up to 64 KiB, before it has checked that name and field, up to 64 KiB too, lie within the
// directory. Every block is therefore longer than asked for, and zero there: a field of zeros means
// nothing, and the check that follows turns the archive down. Once the directory has been read, blocks
// are what they are asked for: thousands of small members would take their time for the zeros.
constexpr std::size_t kZeroTail = 2 * 0x10000;

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

// Hands on what miniz unpacks, up to a bound.
struct Unpacking {
  TextSink& sink;
  std::size_t maxSize;
  std::size_t size = 0;  // so far
};

// Returns fewer than `size` to stop the unpacking. miniz is C: nothing may be thrown through it.
std::size_t TakeBytes(void* opaque, mz_uint64 /*offset*/, const void* data, std::size_t size) try {
  auto& unpacking = *static_cast<Unpacking*>(opaque);
  if (size > unpacking.maxSize - unpacking.size) return 0;
  unpacking.sink.OnBytes({static_cast<const std::uint8_t*>(data), size});
  unpacking.size += size;
  return size;
} catch (...) {
  return 0;
}

class ZipReader {
 public:
  explicit ZipReader(const std::string& path) : m_file(OpenForReading(path)) {
    m_archive.m_pAlloc = AllocateBlock;
    m_archive.m_pRealloc = ResizeBlock;
    m_archive.m_pFree = FreeBlock;
    m_isOpen = m_file != nullptr &&
               mz_zip_reader_init_cfile(&m_archive, m_file.get(), 0,
                                        MZ_ZIP_FLAG_DO_NOT_SORT_CENTRAL_DIRECTORY) != 0;
    m_archive.m_pAlloc = AllocatePlainBlock;
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

  // The sink has got the whole member when its fate is Unpacked. If not, it has got what came before
  // the failure.
  MemberFate Unpack(mz_uint index, Unpacking& unpacking) {
    mz_zip_archive_file_stat status;
    if (mz_zip_reader_file_stat(&m_archive, index, &status) == 0) return MemberFate::Damaged;
    if (status.m_uncomp_size > unpacking.maxSize) return MemberFate::TooLarge;
    unpacking.sink.OnBegin(static_cast<std::size_t>(status.m_uncomp_size));
    if (mz_zip_reader_extract_to_callback(&m_archive, index, TakeBytes, &unpacking, 0) != 0) {
      return MemberFate::Unpacked;
    }
    switch (mz_zip_peek_last_error(&m_archive)) {
      case MZ_ZIP_UNSUPPORTED_ENCRYPTION: return MemberFate::Encrypted;
      case MZ_ZIP_UNSUPPORTED_METHOD: return MemberFate::UnknownMethod;
      case MZ_ZIP_ALLOC_FAILED:
      case MZ_ZIP_WRITE_CALLBACK_FAILED: return MemberFate::TooLarge;
      case MZ_ZIP_DECOMPRESSION_FAILED:
      case MZ_ZIP_CRC_CHECK_FAILED:
        return unpacking.size == status.m_uncomp_size ? MemberFate::BadChecksum
                                                      : MemberFate::Damaged;
      default: return MemberFate::Damaged;
    }
  }

  std::string_view LastError() {
    return mz_zip_get_error_string(mz_zip_peek_last_error(&m_archive));
  }

 private:
  FileHandle m_file;
  mz_zip_archive m_archive{};
  bool m_isOpen = false;
};

// What unpacking an archive may still cost, in bytes. Damaged members are of no use, but take their
// time: without a bound on it, thousands of members that share the same packed bytes and fail at the
// end would take hours.
struct Budget {
  std::size_t kept = kMaxUpdateTextBytes;
  std::size_t unpacked = 2 * kMaxUpdateTextBytes;
};

MemberFate VisitMember(ZipReader& reader, mz_uint index, const std::string& name, Budget& budget,
                       ZipVisitor& visitor) {
  if (reader.IsFolder(index)) return MemberFate::Folder;
  if (!visitor.Wants(name)) return MemberFate::NotWanted;
  Unpacking unpacking{visitor, std::min(budget.kept, budget.unpacked)};
  const MemberFate fate = reader.Unpack(index, unpacking);
  budget.unpacked -= unpacking.size;
  if (fate == MemberFate::Unpacked) budget.kept -= unpacking.size;
  return fate;
}

void VisitMember(ZipReader& reader, mz_uint index, Budget& budget, ZipVisitor& visitor) {
  std::string name;
  MemberFate fate = MemberFate::TooLarge;
  try {
    name = reader.Name(index);
    fate = VisitMember(reader, index, name, budget, visitor);
  } catch (const std::bad_alloc&) {
    // A smaller member may still fit.
  }
  visitor.OnMember(name, fate, fate == MemberFate::Damaged ? reader.LastError() : "");
}

}  // namespace

void VisitZipMembers(const std::string& path, ZipVisitor& visitor) {
  ZipReader reader(path);
  if (!reader.IsOpen()) return visitor.OnNoArchive();
  Budget budget;
  const mz_uint count = reader.MemberCount();
  for (mz_uint index = 0; index < count; ++index) VisitMember(reader, index, budget, visitor);
}

}  // namespace tavo
