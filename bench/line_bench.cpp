// What an exchange costs the processor: a request framed and handed over, its answer assembled,
// checked and handed out, over a line that takes and gives at once.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>

#include "bench/null_line.h"
#include "transport/frame_codec.h"

namespace tavo::bench {
namespace {

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
