#include "file/file_check.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "package/update_file.h"
#include "platform/file.h"
#include "system/system.h"
#include "text/by_system.h"
#include "text/text_format.h"

namespace tavo::tool {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kHeadBytes = 512;

struct KindOfNoFile {
  fs::file_type type;
  std::string_view text;
};

constexpr std::array kNoFiles{
    KindOfNoFile{fs::file_type::directory, "is a folder, not a file"},
    KindOfNoFile{fs::file_type::fifo, "is a pipe, not a file"},
    KindOfNoFile{fs::file_type::socket, "is a socket, not a file"},
    KindOfNoFile{fs::file_type::character, "is a device, not a file"},
    KindOfNoFile{fs::file_type::block, "is a device, not a file"},
};

// Contents often found under the name of an update file, by their first bytes in lower case.
struct Lookalike {
  std::string_view head;
  std::string_view content;
  std::string_view hint;
};

constexpr std::string_view kConvert = "convert it, with objcopy -O ihex for example";
constexpr std::string_view kDownload = "download the file itself, not the page that links to it";
constexpr std::string_view kNameZip = "give it a name that ends in .zip";

constexpr std::array kLookalikes{
    Lookalike{"<!doctype html", "an HTML page", kDownload},
    Lookalike{"<html", "an HTML page", kDownload},
    Lookalike{"<?xml", "an XML document", kDownload},
    Lookalike{"pk\x03\x04", "a ZIP archive", kNameZip},
    Lookalike{"pk\x05\x06", "an empty ZIP archive", "ask for an archive of HEX files"},
    Lookalike{"\x7f"
              "elf",
              "an ELF program", kConvert},
    Lookalike{"s0", "Motorola S-record text", kConvert},
    Lookalike{"\xef\xbb\xbf:", "Intel HEX text behind a byte order mark",
              "save it as plain ASCII, without the mark"},
    Lookalike{"7z\xbc\xaf", "a 7z archive", "unpack it and use the HEX file inside"},
    Lookalike{"rar!", "a RAR archive", "unpack it and use the HEX file inside"},
    Lookalike{"\x1f\x8b", "a gzip file", "unpack it and use the HEX file inside"},
    Lookalike{":", "Intel HEX text", "give it a name that ends in .hex"},
};

constexpr std::string_view kRightFile = "give a .hex file, or a .zip archive of .hex files";

std::string Head(std::span<const std::uint8_t> bytes) {
  const auto head = bytes.first(std::min(bytes.size(), kHeadBytes));
  return {head.begin(), head.end()};
}

const Lookalike* Recognise(std::string head) {
  for (char& c : head) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  // Web servers and editors put blanks before a page.
  const std::size_t text = std::min(head.find_first_not_of(" \t\r\n"), head.size());
  for (const Lookalike& row : kLookalikes) {
    if (head.starts_with(row.head)) return &row;
    if (row.head[0] == '<' && head.compare(text, row.head.size(), row.head) == 0) return &row;
  }
  return nullptr;
}

// A file that is not what it should be, by what it is instead.
FileProblem NotA(std::string_view wanted, const std::string& head) {
  if (head.empty()) return {"the file is empty", "ask for the file again"};
  if (const Lookalike* row = Recognise(head)) {
    return {"this is " + std::string(row->content) + ", not " + std::string(wanted),
            std::string(row->hint)};
  }
  return {"this is not " + std::string(wanted) +
              Format(": it begins with the byte 0x%02X", static_cast<unsigned char>(head[0])),
          "ask for the file again, or build one with firmware-updater pack"};
}

FileProblem WrongExtension(const std::string& head) {
  FileProblem problem{"its name ends in neither .hex nor .zip", std::string(kRightFile)};
  const Lookalike* row = Recognise(head);
  if (row == nullptr) return problem;
  problem.text += "; the content is " + std::string(row->content);
  problem.hint = row->hint;
  return problem;
}

}  // namespace

FileProblem CheckReadable(const std::string& path, std::uintmax_t maxBytes) {
  std::error_code error;
  const fs::file_status status = fs::status(PathOf(path), error);
  if (status.type() == fs::file_type::not_found) {
    return {"no such file", "check the path"};
  }
  for (const KindOfNoFile& row : kNoFiles) {
    if (row.type == status.type()) return {std::string(row.text), "give the path of a file"};
  }
  if (status.type() != fs::file_type::regular) {
    return {"the file cannot be examined: " + error.message(), "check the path and its folders"};
  }
  if (OpenForReading(path) == nullptr) {
    return {"permission denied: this user may not read it", kNotReadableHint.Here()};
  }
  const std::uintmax_t size = fs::file_size(PathOf(path), error);
  if (error || size <= maxBytes) return {};
  return {Format("the file has %ju bytes, but update files have at most %ju", size, maxBytes),
          "check that it is the right file"};
}

FileProblem CheckUpdateFile(const std::string& path, std::span<const std::uint8_t> bytes) {
  const std::string head = Head(bytes);
  switch (KindByName(path)) {
    case UpdateFileKind::Zip: return {};
    case UpdateFileKind::Neither: return WrongExtension(head);
    case UpdateFileKind::Hex: break;
  }
  return head.starts_with(':') ? FileProblem{} : NotA("Intel HEX", head);
}

FileProblem ExplainNoArchive(std::span<const std::uint8_t> bytes) {
  const std::string head = Head(bytes);
  if (head.starts_with("PK")) {
    return {"the archive is damaged or cut off", "ask for the file again"};
  }
  return NotA("a ZIP archive", head);
}

}  // namespace tavo::tool
