// The parts of the library that run without a device, as Google Benchmark measures them.
#include <benchmark/benchmark.h>

#include <map>
#include <random>

#include "bench/bench_files.h"
#include "simulator/firmware_builder.h"
#include "tests/support/temporary_folder.h"

namespace tavo::bench {

const std::vector<std::uint8_t>& HexTextOf(std::size_t mebibytes) {
  static std::map<std::size_t, std::vector<std::uint8_t>> texts;
  std::vector<std::uint8_t>& text = texts[mebibytes];
  if (text.empty()) {
    tavosim::Firmware firmware{std::vector<std::uint8_t>(mebibytes << 20), 0, 0};
    std::minstd_rand random(1);
    for (std::uint8_t& byte : firmware.data) byte = static_cast<std::uint8_t>(random() >> 8);
    const std::string made = tavosim::HexText(firmware);
    text.assign(made.begin(), made.end());
  }
  return text;
}

std::string FilePath(const std::string& name) {
  static const test::TemporaryFolder folder;
  return folder.Path() / name;
}

std::string HexFileOf(std::size_t mebibytes) {
  const std::vector<std::uint8_t>& text = HexTextOf(mebibytes);
  std::string path = FilePath(std::to_string(mebibytes) + ".hex");
  if (!std::filesystem::exists(path)) {
    tavosim::WriteFile(path, {reinterpret_cast<const char*>(text.data()), text.size()});
  }
  return path;
}

}  // namespace tavo::bench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
