// bench-library: the parts of the library that run without a device, as Google Benchmark measures
// them. scripts/bench compares them with each other by their names.
#include <benchmark/benchmark.h>

#include <map>
#include <random>
#include <stdexcept>

#include "bench/null_line.h"
#include "log/logger.h"
#include "miniz.h"
#include "package/update_file.h"
#include "simulator/firmware_builder.h"
#include "tests/support/temporary_folder.h"

namespace tavo::bench {
namespace {

constexpr std::size_t kMiB = std::size_t{1} << 20;

void Require(bool good, const char* text) {
  if (!good) throw std::runtime_error(text);
}

// In a folder that goes with the process.
std::string FilePath(const std::string& name) {
  static const test::TemporaryFolder folder;
  return folder.Path() / name;
}

// --- growth: HEX files, archives and the log, small and large ---

// Firmware of so many MiB, in records of 16 bytes that end in CR LF.
std::string HexFileOf(std::size_t mebibytes) {
  std::string path = FilePath(std::to_string(mebibytes) + ".hex");
  if (!std::filesystem::exists(path)) {
    tavosim::Firmware firmware{std::vector<std::uint8_t>(mebibytes * kMiB), 0, 0};
    std::minstd_rand random(1);
    for (std::uint8_t& byte : firmware.data) byte = static_cast<std::uint8_t>(random() >> 8);
    tavosim::WriteFile(path, tavosim::HexText(firmware));
  }
  return path;
}

void LoadHexFile(benchmark::State& state) {
  const auto mebibytes = static_cast<std::size_t>(state.range(0));
  const std::string path = HexFileOf(mebibytes);
  for (auto _ : state) {
    const std::vector<FirmwareImage> images = LoadUpdateFile(path);
    Require(images.size() == 1 && images[0].data.size() == mebibytes * kMiB, "a wrong image");
  }
}
BENCHMARK(LoadHexFile)->Arg(1)->Arg(16)->Arg(64);

// As many images as asked for, and as many members that cannot be images.
std::string ArchiveOf(std::size_t images, std::size_t imageBytes) {
  std::string path = FilePath(std::to_string(images) + ".zip");
  if (std::filesystem::exists(path)) return path;
  std::vector<tavosim::ZipMember> members;
  for (std::size_t i = 0; i < images; ++i) {
    const tavosim::FirmwareRecipe recipe{.seed = i + 1, .startAddress = 0x4000, .size = imageBytes};
    std::string text = tavosim::HexText(tavosim::BuildFirmware(recipe));
    members.push_back({"notes/" + std::to_string(i) + ".txt", text});
    members.push_back({"firmware/" + std::to_string(i) + ".hex", std::move(text)});
  }
  tavosim::WriteFile(path, tavosim::ZipArchive(members));
  return path;
}

void LoadSmallMembers(benchmark::State& state) {
  const auto images = static_cast<std::size_t>(state.range(0));
  const std::string path = ArchiveOf(images, 1024);
  for (auto _ : state) Require(LoadUpdateFile(path).size() == images, "images are missing");
}
BENCHMARK(LoadSmallMembers)->Arg(10)->Arg(1000)->Arg(10000);

// The machine, with a console that nobody reads and a log in the folder of the update files.
class LoggingPlatform : public Platform {
 public:
  std::chrono::milliseconds MonotonicNow() override { return m_machine.MonotonicNow(); }
  std::uint32_t TickCount() override { return m_machine.TickCount(); }
  std::tm LocalTime() override { return m_machine.LocalTime(); }
  void Sleep(std::chrono::milliseconds duration) override { m_machine.Sleep(duration); }
  std::string ExecutablePath() override { return FilePath("host"); }
  void Print(std::string_view) override {}
  FileHandle OpenLog(const std::string& path, Links links) override {
    return m_machine.OpenLog(path, links);
  }

 private:
  Platform& m_machine = SystemPlatform();
};

// The log begins as long as asked for, in MiB, as a file with a hole, which costs no disk.
void LogLine(benchmark::State& state) {
  LoggingPlatform platform;
  Logger log(platform);
  const std::string path = FilePath("FirmwareUpdater.log");
  tavosim::WriteFile(path, "");
  std::filesystem::resize_file(path, static_cast<std::uintmax_t>(state.range(0)) << 20);
  for (auto _ : state) log.LogInfo("FirmwareUpdater: Device-ID received: 0x%.4X", 0x101);
  std::filesystem::remove(path);
}
BENCHMARK(LogLine)->Arg(0)->Arg(1)->Arg(1024);

// --- an archive, and miniz alone ---

constexpr std::size_t kLargeMembers = 4;
constexpr std::size_t kLargeImage = 2 * kMiB;

void LoadArchive(benchmark::State& state) {
  const std::string path = ArchiveOf(kLargeMembers, kLargeImage);
  for (auto _ : state) Require(LoadUpdateFile(path).size() == kLargeMembers, "images are missing");
}
BENCHMARK(LoadArchive);

void ExtractArchive(benchmark::State& state) {
  const std::string path = ArchiveOf(kLargeMembers, kLargeImage);
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

// --- the line: processor time of an exchange, over a line that takes and gives at once ---

void Crc8Of131Bytes(benchmark::State& state) {
  std::array<std::uint8_t, kMaxFrame - kCrcSize> bytes;
  std::uint8_t value = 1;
  for (std::uint8_t& byte : bytes) byte = value += 37;
  for (auto _ : state) {
    benchmark::DoNotOptimize(bytes.data());
    benchmark::DoNotOptimize(Crc8(bytes));
  }
}
BENCHMARK(Crc8Of131Bytes);

// A block is written: the largest request, an empty answer.
void Exchange(benchmark::State& state) {
  Logger log(SystemPlatform());
  TavoLink link;
  NullLine line(link, SystemPlatform(), log, [](auto) { return Bytes(); });
  const std::array<std::uint8_t, kMaxPayload> block{};
  for (auto _ : state) {
    TavoMessage answer;
    bool timedOut = false;
    line.SendTavoMessage(1, 0, NullLine::kWrite, block.data(), kMaxPayload);
    while (!line.ReceiveTavoMessage(&answer, &timedOut)) continue;
    line.Turnarounds().clear();
  }
}
BENCHMARK(Exchange);

}  // namespace
}  // namespace tavo::bench

BENCHMARK_MAIN();
