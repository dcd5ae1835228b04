#include "package/zip_members.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

#include "miniz.h"
#include "package/file_reading.h"

namespace tavo {
namespace {

// While miniz reads the directory of an archive it looks for the extra field of a member, behind a
// name of up to 64 KiB, before it has checked that name and field, up to 64 KiB too, lie within the
// directory. Every block is therefore longer than asked for, and zero there: a field of zeros means
// nothing, and the check that follows turns the archive down.
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

struct BlockFreer {
  void operator()(void* block) const { std::free(block); }
};

class ZipReader {
 public:
  explicit ZipReader(const std::string& path) : m_file(OpenForReading(path)) {
    m_archive.m_pAlloc = AllocateBlock;
    m_archive.m_pRealloc = ResizeBlock;
    m_archive.m_pFree = FreeBlock;
    m_isOpen = m_file != nullptr &&
               mz_zip_reader_init_cfile(&m_archive, m_file.get(), 0,
                                        MZ_ZIP_FLAG_DO_NOT_SORT_CENTRAL_DIRECTORY) != 0;
  }

  ~ZipReader() {
    if (m_isOpen) mz_zip_reader_end(&m_archive);
  }

  ZipReader(const ZipReader&) = delete;
  ZipReader& operator=(const ZipReader&) = delete;

  mz_uint MemberCount() { return m_isOpen ? mz_zip_reader_get_num_files(&m_archive) : 0; }

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

  // The bytes of a member of at most `maxSize` bytes.
  std::optional<std::vector<std::uint8_t>> Extract(mz_uint index, std::size_t maxSize) {
    mz_zip_archive_file_stat status;
    if (!mz_zip_reader_file_stat(&m_archive, index, &status)) return std::nullopt;
    if (status.m_uncomp_size > maxSize) return std::nullopt;
    std::size_t size = 0;
    const std::unique_ptr<void, BlockFreer> block(
        mz_zip_reader_extract_to_heap(&m_archive, index, &size, 0));
    if (block == nullptr) return std::nullopt;
    const auto* bytes = static_cast<const std::uint8_t*>(block.get());
    return std::vector<std::uint8_t>(bytes, bytes + size);
  }

 private:
  FileHandle m_file;
  mz_zip_archive m_archive{};
  bool m_isOpen = false;
};

}  // namespace

ZipMembers ExtractZipMembers(const std::string& path, bool (*wanted)(std::string_view name)) {
  ZipMembers members;
  ZipReader reader(path);
  std::size_t bytesLeft = kMaxUpdateTextBytes;
  const mz_uint count = reader.MemberCount();
  for (mz_uint index = 0; index < count; ++index) {
    std::string name = reader.Name(index);
    if (reader.IsFolder(index) || !wanted(name)) continue;
    auto bytes = reader.Extract(index, bytesLeft);
    if (!bytes) continue;
    bytesLeft -= bytes->size();
    members.insert_or_assign(std::move(name), *std::move(bytes));
  }
  return members;
}

}  // namespace tavo
