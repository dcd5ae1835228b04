// From the update file to the images. scripts/bench compares these with each other by their names.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>

#include "bench/bench_files.h"
#include "bench/literal_conversion.h"
#include "miniz.h"
#include "package/intel_hex_converter.h"
#include "package/update_file.h"
#include "simulator/firmware_builder.h"

namespace tavo::bench {
namespace {

constexpr std::size_t kMiB = std::size_t{1} << 20;

void Require(bool good, const char* what) {
  if (!good) throw std::runtime_error(what);
}

void CountBytes(benchmark::State& state, std::size_t bytes) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
}

// --- text in memory ---

void ConvertText(benchmark::State& state) {
  const std::vector<std::uint8_t>& text = HexTextOf(16);
  for (auto _ : state) {
    CIntelHexConverter converter;
    Require(converter.Convert(text) == HexResult::Ok, "the text does not convert");
    benchmark::DoNotOptimize(converter.Data().data());
  }
  CountBytes(state, text.size());
}
BENCHMARK(ConvertText);

void ConvertTextLiterally(benchmark::State& state) {
  const std::vector<std::uint8_t>& text = HexTextOf(16);
  for (auto _ : state) {
    LiteralConversion conversion;
    Require(conversion.Convert(text) && conversion.Data().size() == 16 * kMiB, "a wrong literal");
  }
  CountBytes(state, text.size());
}
BENCHMARK(ConvertTextLiterally);

void CopyText(benchmark::State& state) {
  const std::vector<std::uint8_t>& text = HexTextOf(16);
  std::vector<std::uint8_t> copy(text.size());
  for (auto _ : state) {
    std::memcpy(copy.data(), text.data(), text.size());
    benchmark::ClobberMemory();
  }
  CountBytes(state, text.size());
}
BENCHMARK(CopyText);

// --- a HEX file in the page cache ---

void LoadHexFile(benchmark::State& state) {
  const auto mebibytes = static_cast<std::size_t>(state.range(0));
  const std::string path = HexFileOf(mebibytes);
  for (auto _ : state) {
    const std::vector<FirmwareImage> images = LoadUpdateFile(path);
    Require(images.size() == 1 && images[0].data.size() == mebibytes * kMiB, "a wrong image");
  }
  CountBytes(state, HexTextOf(mebibytes).size());
}
BENCHMARK(LoadHexFile)->Arg(1)->Arg(16)->Arg(64);

void ReadFileBarely(benchmark::State& state) {
  const std::string path = HexFileOf(16);
  std::size_t size = 0;
  for (auto _ : state) {
    const int file = open(path.c_str(), O_RDONLY);
    struct stat status {};
    fstat(file, &status);
    size = static_cast<std::size_t>(status.st_size);
    const auto text = std::make_unique_for_overwrite<std::uint8_t[]>(size);
    Require(read(file, text.get(), size) == status.st_size, "the file is not read");
    close(file);
  }
  CountBytes(state, size);
}
BENCHMARK(ReadFileBarely);

// --- archives ---

// As many firmwares as asked for, and as many members that cannot be images.
std::string MakeArchive(std::size_t members, std::size_t imageBytes) {
  std::vector<tavosim::ZipMember> all;
  for (std::size_t i = 0; i < members; ++i) {
    const tavosim::FirmwareRecipe recipe{.seed = i + 1, .startAddress = 0x4000, .size = imageBytes};
    std::string text = tavosim::HexText(tavosim::BuildFirmware(recipe));
    all.push_back({"notes/" + std::to_string(i) + ".txt", text});
    all.push_back({"firmware/" + std::to_string(i) + ".hex", std::move(text)});
  }
  const std::string path = FilePath(std::to_string(members) + ".zip");
  tavosim::WriteFile(path, tavosim::ZipArchive(all));
  return path;
}

const std::string& Archive(std::size_t members, std::size_t imageBytes) {
  static std::map<std::size_t, std::string> paths;
  std::string& path = paths[members];
  if (path.empty()) path = MakeArchive(members, imageBytes);
  return path;
}

constexpr std::size_t kLargeMembers = 4;
constexpr std::size_t kLargeImage = 2 * kMiB;

void LoadArchive(benchmark::State& state) {
  const std::string& path = Archive(kLargeMembers, kLargeImage);
  for (auto _ : state) Require(LoadUpdateFile(path).size() == kLargeMembers, "images are missing");
}
BENCHMARK(LoadArchive);

void ExtractArchive(benchmark::State& state) {
  const std::string& path = Archive(kLargeMembers, kLargeImage);
  for (auto _ : state) {
    mz_zip_archive archive{};
    Require(mz_zip_reader_init_file(&archive, path.c_str(),
                                    MZ_ZIP_FLAG_DO_NOT_SORT_CENTRAL_DIRECTORY) != 0,
            "no archive");
    for (mz_uint i = 1; i < mz_zip_reader_get_num_files(&archive); i += 2) {
      std::size_t size = 0;
      void* const member = mz_zip_reader_extract_to_heap(&archive, i, &size, 0);
      Require(member != nullptr, "no member");
      mz_free(member);
    }
    mz_zip_reader_end(&archive);
  }
}
BENCHMARK(ExtractArchive);

void LoadSmallMembers(benchmark::State& state) {
  const auto members = static_cast<std::size_t>(state.range(0));
  const std::string& path = Archive(members, 1024);
  for (auto _ : state) Require(LoadUpdateFile(path).size() == members, "images are missing");
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(LoadSmallMembers)->Arg(10)->Arg(1000)->Arg(10000);

}  // namespace
}  // namespace tavo::bench
