// What a line costs in a log that is empty, or that has grown for years.
#include <benchmark/benchmark.h>

#include "bench/bench_files.h"
#include "log/logger.h"
#include "simulator/firmware_builder.h"

namespace tavo::bench {
namespace {

// The machine, with a console that nobody reads and a log in the folder of the update files.
class LoggingPlatform : public Platform {
 public:
  std::chrono::milliseconds MonotonicNow() override { return m_machine.MonotonicNow(); }
  std::uint32_t TickCount() override { return m_machine.TickCount(); }
  std::tm LocalTime() override { return m_machine.LocalTime(); }
  void Sleep(std::chrono::milliseconds duration) override { m_machine.Sleep(duration); }
  std::string ExecutablePath() override { return FilePath("host"); }
  void Print(std::string_view) override {}
  FileHandle OpenFile(const std::string& path, const char* mode) override {
    return m_machine.OpenFile(path, mode);
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

}  // namespace
}  // namespace tavo::bench
