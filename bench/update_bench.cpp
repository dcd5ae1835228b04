// bench-update: the course of an update against the clock. Results go to standard error as one
// line of JSON; standard output is the library's console.
//
//   bench-update null                  an update over a line that takes no time
//   bench-update write PORT BAUD FILE  an update over the adapter, and how long writing takes
//   bench-update silence usb|ftdi      a request that nobody answers
//
// The last two need a simulator: TAVO_SIMULATORS and the substitute libusb.
#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>

#include "api/update_commands.h"
#include "bench/null_line.h"
#include "engine/update_observer.h"
#include "simulator/device.h"
#include "simulator/firmware_builder.h"
#include "transport/comm_ftdi.h"
#include "transport/comm_win_usb.h"
#include "transport/transport_factory.h"

namespace tavo::bench {
namespace {

using Seconds = std::chrono::duration<double>;
using Microseconds = std::chrono::duration<double, std::micro>;

// Of all threads, in the kernel too.
Seconds ProcessorTime() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
  };
  return Seconds(seconds(usage.ru_utime) + seconds(usage.ru_stime));
}

struct Moment {
  Clock::time_point time = Clock::now();
  Seconds processor = ProcessorTime();
};

// When writing began and ended.
class WritePhase : public UpdateObserver {
 public:
  WritePhase(std::function<void()> atBegin, std::function<void()> atEnd)
      : m_atBegin(std::move(atBegin)), m_atEnd(std::move(atEnd)) {}

  void StepCalled(const Step&, StepPhase) override {}
  void StatusReported(const StatusMessage& message) override {
    if (message.kind == StatusKind::TransferBegins) {
      m_atBegin();
      m_begin = Moment();
    } else if (message.kind == StatusKind::TransferEnded) {
      m_end = Moment();
      m_atEnd();
    }
  }

  Seconds Time() const { return m_end.time - m_begin.time; }
  Seconds Processor() const { return m_end.processor - m_begin.processor; }

 private:
  std::function<void()> m_atBegin;
  std::function<void()> m_atEnd;
  Moment m_begin;
  Moment m_end;
};

// --- an update over a line that takes no time ---

tavosim::DeviceOptions InstantDevice(std::uint16_t applicationKiB) {
  tavosim::Family family = *tavosim::FindFamily("plain");
  family.applicationKiB = applicationKiB;
  tavosim::DeviceOptions options = tavosim::OptionsFor(family);
  options.answerDelay = options.eraseTime = options.blockWriteTime = {};
  return options;
}

tavosim::SimTime Now() {
  static const Clock::time_point start = Clock::now();
  return std::chrono::duration_cast<tavosim::SimTime>(Clock::now() - start);
}

std::string FirmwareFileFor(const tavosim::Family& family) {
  tavosim::FirmwareRecipe recipe = tavosim::RecipeFor(family);
  recipe.fill = tavosim::FirmwareFill::NoBlank;
  std::string path = SystemPlatform().ExecutablePath() + "-firmware.hex";
  tavosim::WriteFile(path, tavosim::HexText(tavosim::BuildFirmware(recipe)));
  return path;
}

double Percentile(std::vector<Clock::duration>& times, double share) {
  const auto at =
      times.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(times.size() - 1));
  std::nth_element(times.begin(), at, times.end());
  return Microseconds(*at).count();
}

int MeasureNullLine() {
  constexpr std::uint16_t kApplicationKiB = 1024;
  const tavosim::DeviceOptions options = InstantDevice(kApplicationKiB);
  tavosim::Device device(options);
  const std::string path = FirmwareFileFor(options.family);

  Logger log(SystemPlatform());
  TavoLink link;
  const auto answer = [&device](std::span<const std::uint8_t> request) {
    device.Receive(request, Now());
    return device.Take(kMaxFrame, Now());
  };
  TransportHolder holder(SystemPlatform(), [&](TransportKind) {
    return std::make_unique<NullLine>(link, SystemPlatform(), log, answer);
  });
  FirmwareUpdater engine(SystemPlatform(), log, holder);
  // The device has not been written to, so the steps after writing would show nothing.
  WritePhase phase([] {}, [&engine] { engine.RequestStop(); });
  engine.SetObserver(&phase);
  const FirmwareUpdater::Run run(engine);
  holder.SelectTransport(TransportKind::Usb);
  engine.Start(run, path);
  std::remove(path.c_str());

  auto& line = static_cast<NullLine&>(*holder.Transport());
  std::vector<Clock::duration>& times = line.Turnarounds();
  const unsigned positioned = line.Requests(NullLine::kPosition);
  const unsigned written = line.Requests(NullLine::kWrite);
  if (written == 0) return 1;
  const double exchanges = positioned + written;
  std::fprintf(stderr,
               "{\"blocks\": %u, \"positioned\": %u, \"written\": %u, \"median\": %.3f, "
               "\"p99\": %.3f, \"max\": %.3f, \"cpuPerExchange\": %.3f}\n",
               kApplicationKiB * 1024U / options.family.blockSize, positioned, written,
               Percentile(times, 0.5), Percentile(times, 0.99), Percentile(times, 1),
               Microseconds(phase.Processor()).count() / exchanges);
  return 0;
}

// --- against a simulator ---

struct Traffic {
  std::uint64_t requests = 0;
  std::uint64_t bytes = 0;  // both ways
};

class CountingFtdi : public CCommFTDI {
 public:
  using CCommFTDI::CCommFTDI;

  bool SendRawData(const std::uint8_t* data, std::int32_t length) override {
    ++traffic.requests;
    traffic.bytes += static_cast<std::uint64_t>(length);
    return CCommFTDI::SendRawData(data, length);
  }
  bool ReceiveRawData(std::uint8_t* buffer, std::int32_t* length) override {
    const bool received = CCommFTDI::ReceiveRawData(buffer, length);
    if (received) traffic.bytes += static_cast<std::uint64_t>(*length);
    return received;
  }

  Traffic traffic;
};

int MeasureWriting(const std::string& port, std::uint32_t baud, const std::string& file) {
  Logger log(SystemPlatform());
  TavoLink link;
  const std::unique_ptr<D2xx> d2xx = MakeSystemD2xx();
  CountingFtdi* line = nullptr;
  TransportHolder holder(SystemPlatform(), [&](TransportKind) {
    auto made = std::make_unique<CountingFtdi>(link, SystemPlatform(), log, *d2xx);
    line = made.get();
    return made;
  });
  FirmwareUpdater engine(SystemPlatform(), log, holder);
  Traffic written;
  WritePhase phase([&] { line->traffic = {}; }, [&] { written = line->traffic; });
  engine.SetObserver(&phase);
  const bool succeeded =
      UpdateDevice({engine, holder, SystemPlatform()}, {TransportKind::Ftdi, port, baud}, file, {});
  if (!succeeded) return 1;
  std::fprintf(stderr, "{\"seconds\": %.6f, \"cpu\": %.6f, \"requests\": %llu, \"bytes\": %llu}\n",
               phase.Time().count(), phase.Processor().count(),
               static_cast<unsigned long long>(written.requests),
               static_cast<unsigned long long>(written.bytes));
  return 0;
}

bool OpenFirst(ICommInterface& transport) {
  const std::vector<CCommDevDesc>& devices = *transport.EnumerateDevices();
  return !devices.empty() && transport.Open(devices.front().deviceRef);
}

int MeasureSilence(TransportKind kind) {
  Logger log(SystemPlatform());
  TavoLink link;
  const std::unique_ptr<D2xx> d2xx = MakeSystemD2xx();
  const auto transport = MakeTransport(kind, {link, SystemPlatform(), log, SystemLibUsb(), *d2xx});
  if (!OpenFirst(*transport)) return 1;
  const Moment begin;
  bool timedOut = false;
  TavoMessage answer;
  if (!transport->SendTavoMessage(1, 0, NullLine::kPosition, nullptr, 4)) return 1;
  while (!transport->ReceiveTavoMessage(&answer, &timedOut)) continue;
  const Moment end;
  transport->EndSession();
  if (!timedOut) return 1;
  std::fprintf(stderr, "{\"seconds\": %.6f, \"cpu\": %.6f}\n",
               Seconds(end.time - begin.time).count(), (end.processor - begin.processor).count());
  return 0;
}

int Main(const std::vector<std::string>& words) {
  const std::string mode = words.empty() ? "" : words[0];
  if (mode == "null" && words.size() == 1) return MeasureNullLine();
  if (mode == "write" && words.size() == 4) {
    return MeasureWriting(words[1], static_cast<std::uint32_t>(std::stoul(words[2])), words[3]);
  }
  if (mode == "silence" && words.size() == 2) {
    return MeasureSilence(words[1] == "ftdi" ? TransportKind::Ftdi : TransportKind::Usb);
  }
  std::fprintf(stderr, "usage: bench-update null | write PORT BAUD FILE | silence usb|ftdi\n");
  return 2;
}

}  // namespace
}  // namespace tavo::bench

int main(int argc, char** argv) {
  return tavo::bench::Main(std::vector<std::string>(argv + 1, argv + argc));
}
