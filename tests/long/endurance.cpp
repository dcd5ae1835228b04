// endurance: many updates in one process, on the virtual clock, and what a host may count on however
// often it updates: stops from other threads hinder no later update, nothing is used up, and a log
// that cannot be written costs the log only. Prints what it did and every promise that was broken;
// exit code 1 if there is one.
//
//   endurance [UPDATES]     of each kind; 1,000 if not given
#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <thread>

#include "tests/support/station.h"

namespace tavo::test {
namespace {

using namespace std::chrono_literals;
using tavosim::DeviceOptions;
using tavosim::DeviceState;

constexpr const char* kModuleName = "ABC";
constexpr std::uint16_t kModuleCode = 0x0443;
constexpr const char* kStopped = "Firmwareupdate Error: 15\n";

DeviceOptions SmallDevice() {
  tavosim::Family family = *tavosim::FindFamily("plain");
  family.applicationKiB = 1;  // a few blocks say as much as many
  DeviceOptions options = tavosim::OptionsFor(family);
  options.resetModules.assign(3, kModuleCode);
  return options;
}

unsigned brokenPromises = 0;

void Promise(bool kept, const char* part, unsigned update, const std::string& promise) {
  constexpr unsigned kPrinted = 20;  // more of them say nothing new
  if (kept || ++brokenPromises > kPrinted) return;
  std::printf("BROKEN %s, update %u: %s\n", part, update, promise.c_str());
}

// The flags that the device's state calls for.
UpdateFlags RevivingFlags(const Station& station) {
  return {.bootloaderOnly = !station.device.ApplicationFlash().Intact()};
}

bool NewFirmwareRuns(Station& station) {
  return station.FlashHoldsFirmware() && station.ApplicationRuns();
}

// What would pile up outside of the library.
void ForgetPast(Station& station) {
  station.platform.ClearConsole();
  station.ForgetRequests();
  std::error_code ignored;  // there may be no log
  std::filesystem::resize_file(station.platform.Folder() + "FirmwareUpdater.log", 0, ignored);
}

// --- Threads ---

// One thread updates, one stops at random moments, two look on.
class StoppedUpdates : private TransportObserver {
 public:
  void Execute(unsigned updates) {
    std::thread stopper([this] { StopNowAndThen(); });
    std::thread first([this] { LookOn(); });
    std::thread second([this] { LookOn(); });
    for (unsigned update = 1; update <= updates; ++update) Update(update);
    m_ended = true;
    for (std::thread* thread : {&stopper, &first, &second}) thread->join();
    FinalUpdate(updates + 1);
    Print(updates);
  }

 private:
  static constexpr const char* kPart = "threads";
  static constexpr unsigned kSeed = 1;
  static constexpr unsigned kEventsOfUpdate = 35;
  static constexpr unsigned kLongestPause = 300;  // yields, between an event and the stop

  void Polled(PollResult result, const TavoMessage& /*answer*/) override {
    if (result != PollResult::Nothing) ++m_events;
    std::this_thread::yield();  // virtual time leaves the other threads no pauses
  }

  void Update(unsigned update) {
    const UpdateFlags flags = RevivingFlags(m_station);
    Begin(update);
    // However busy the machine is, the stopper has its chance at every update.
    while (m_armedFor != update) std::this_thread::yield();
    const bool succeeded =
        update % 2 == 0 ? m_station.UpdateOverFtdi(flags) : m_station.UpdateOverUsb(flags);
    Judge(update, succeeded);
  }

  void Begin(unsigned update) {
    const std::lock_guard lock(m_stopping);
    ForgetPast(m_station);
    m_events = 0;
    m_eventsAtStop.reset();
    m_update = update;
  }

  void Judge(unsigned update, bool succeeded) {
    const std::lock_guard lock(m_stopping);
    const auto promise = [update](bool kept, const char* text) {
      Promise(kept, kPart, update, text);
    };
    ++(succeeded ? m_succeeded : m_stopped);
    promise(!m_station.platform.ConsoleHas("Another update is running."), "no update is refused");
    promise(m_station.platform.ConsoleHas(kStopped) != succeeded,
            "an update succeeds, or is stopped and says so");
    promise(m_station.engine.LastError() == ErrorCode::None, "a stop stores no error code");
    promise(m_station.usb.OpenHandles() == 0, "the device is closed again");
    if (succeeded)
      promise(NewFirmwareRuns(m_station), "true means that the firmware is in and runs");
    // One answer may have been on its way to the step in hand.
    if (m_eventsAtStop)
      promise(m_events <= *m_eventsAtStop + 1, "a stop ends before the next step");
    if (m_eventsAtStop && succeeded) ++m_nothingLeft;
    if (!succeeded) CountState();
  }

  void CountState() {
    const bool intact = m_station.device.ApplicationFlash().Intact();
    ++(m_station.ApplicationRuns() ? m_inApplication : intact ? m_inBootloader : m_erased);
  }

  void FinalUpdate(unsigned update) {
    const bool succeeded = m_station.UpdateOverUsb(RevivingFlags(m_station));
    Promise(succeeded && NewFirmwareRuns(m_station), kPart, update, "unhindered, it succeeds");
    Promise(m_stopped > 0 && m_succeeded > 0, kPart, update, "some are stopped and some are not");
  }

  void StopNowAndThen() {
    std::minstd_rand random(kSeed);
    for (unsigned seen = 0; !m_ended;) {
      const unsigned update = m_update;
      if (update == seen) {
        std::this_thread::yield();
        continue;
      }
      seen = update;
      m_armedFor = update;
      // Most of them within the update, the others between it and the next, or not at all.
      const auto event = random() % (2 * kEventsOfUpdate);
      while (m_events < event && m_update == update && !m_ended) std::this_thread::yield();
      for (auto pause = random() % kLongestPause; pause > 0; --pause) std::this_thread::yield();
      if (m_update == update || random() % 4 == 0) Stop();
    }
  }

  void Stop() {
    // Not while an update is judged: that reads the console.
    const std::lock_guard lock(m_stopping);
    const bool begun = m_events > 0;  // before that the stop may be one of an update to come
    m_station.engine.RequestStop();
    ++m_stops;
    if (begun && !m_eventsAtStop) m_eventsAtStop = m_events;
  }

  void LookOn() {
    while (!m_ended) {
      const float progress = m_station.engine.Progress();
      if (progress < 0 && progress != -1.0F) m_seenNonsense = true;
      if (m_station.engine.LastError() != ErrorCode::None) m_seenNonsense = true;
      for (std::uint32_t i = 0; const auto name = m_station.engine.ResettedModule(i); ++i) {
        if (*name != kModuleName) m_seenNonsense = true;
      }
      std::this_thread::yield();
    }
  }

  void Print(unsigned updates) const {
    Promise(!m_seenNonsense, kPart, updates, "other threads see only what is true");
    std::printf(
        "threads: %u updates, %u stop requests: %u updates succeeded, %u with a stop when "
        "no step was left;\n  %u were stopped, %u of them in the application, %u in the "
        "bootloader before the erasure, %u after it\n",
        updates, m_stops, m_succeeded, m_nothingLeft, m_stopped, m_inApplication, m_inBootloader,
        m_erased);
  }

  // Answers and timeouts that the update has taken: the moments after which it looks for a stop.
  std::atomic<unsigned> m_events = 0;
  Station m_station{SmallDevice(), false, {}, this};
  std::atomic<bool> m_ended = false;
  std::atomic<bool> m_seenNonsense = false;
  std::atomic<unsigned> m_update = 0;
  std::atomic<unsigned> m_armedFor = 0;
  std::mutex m_stopping;
  std::optional<unsigned> m_eventsAtStop;  // guarded by m_stopping, as m_stops
  unsigned m_stops = 0;
  unsigned m_succeeded = 0;
  unsigned m_nothingLeft = 0;
  unsigned m_stopped = 0;
  unsigned m_inApplication = 0;
  unsigned m_inBootloader = 0;
  unsigned m_erased = 0;
};

// --- Resources ---

std::size_t OpenDescriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

long ResidentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) return std::stol(line.substr(line.find(':') + 1));
  }
  return 0;
}

struct Trouble {
  const char* fault;    // for the simulated device, or null
  const char* badFile;  // takes the place of the update file, or null
};

// Between two of them comes an update without any.
constexpr std::array kTroubles{
    Trouble{"unplug:9:2s", nullptr}, Trouble{nullptr, "bad.hex"},  Trouble{"unplug:20", nullptr},
    Trouble{nullptr, "bad.zip"},     Trouble{"unplug:1", nullptr}, Trouble{"powercut:20", nullptr},
    Trouble{nullptr, "missing.zip"}, Trouble{"lose:20", nullptr},
};

// The station's platform without its records of sleeps and console text, which only grow.
class ForgetfulPlatform : public Platform {
 public:
  explicit ForgetfulPlatform(VirtualPlatform& machine) : m_machine(machine) {}
  std::chrono::milliseconds MonotonicNow() override { return m_machine.MonotonicNow(); }
  std::uint32_t TickCount() override { return m_machine.TickCount(); }
  std::tm LocalTime() override { return m_machine.LocalTime(); }
  void Sleep(std::chrono::milliseconds duration) override { m_machine.Advance(duration); }
  std::string ExecutablePath() override { return m_machine.ExecutablePath(); }
  void Print(std::string_view /*text*/) override {}
  FileHandle OpenFile(const std::string& path, const char* mode) override {
    return m_machine.OpenFile(path, mode);
  }

 private:
  VirtualPlatform& m_machine;
};

class ManyUpdates {
 public:
  ManyUpdates() {
    const std::string hex =
        tavosim::HexText(tavosim::BuildFirmware(tavosim::RecipeFor(SmallDevice().family)));
    const std::string zip = tavosim::ZipArchive({{"folder/", ""}, {"folder/plain.hex", hex}});
    tavosim::WriteFile(Path("good.hex"), hex);
    tavosim::WriteFile(Path("good.zip"), zip);
    tavosim::WriteFile(Path("bad.hex"), hex.substr(0, hex.size() / 2) + "x");
    tavosim::WriteFile(Path("bad.zip"), zip.substr(0, zip.size() / 2));
  }

  void Execute(unsigned updates) {
    const unsigned warmUp = std::min(kWarmUp, updates / 2);
    for (unsigned update = 0; update < updates; ++update) {
      if (update == warmUp) m_descriptors = OpenDescriptors(), m_residentKiB = ResidentKiB();
      Update(update);
      if (update < warmUp) continue;
      Promise(OpenDescriptors() == m_descriptors, kPart, update, "no descriptor stays open");
    }
    const long grownKiB = ResidentKiB() - m_residentKiB;
    // A sanitizer keeps what was freed.
    Promise(TAVO_SANITIZED || grownKiB <= kMayGrowKiB, kPart, updates, "memory does not grow");
    std::printf(
        "resources: %u updates, %u of them succeeded; %zu open descriptors; resident memory "
        "%ld KiB, %+ld KiB since update %u (%s %ld)\n",
        updates, m_succeeded, m_descriptors, m_residentKiB + grownKiB, grownKiB, warmUp,
        TAVO_SANITIZED ? "not judged under a sanitizer, else at most" : "at most", kMayGrowKiB);
  }

 private:
  static constexpr const char* kPart = "resources";
  static constexpr unsigned kWarmUp = 100;
  static constexpr long kMayGrowKiB = 256;

  std::string Path(const char* name) const { return m_station.platform.Folder() + name; }

  // All troubles over both transports with both kinds of file.
  void Update(unsigned update) {
    const unsigned round = update / 4;
    const Trouble trouble = round % 2 == 0 ? Trouble{} : kTroubles[round / 2 % kTroubles.size()];
    const char* good = update / 2 % 2 == 0 ? "good.hex" : "good.zip";
    const UpdateFlags flags = RevivingFlags(m_station);
    ForgetPast(m_station);
    Prepare(trouble);
    const bool succeeded =
        Run(update % 2 == 0, Path(trouble.badFile ? trouble.badFile : good), flags);
    m_succeeded += succeeded;
    const auto promise = [update](bool kept, const char* text) {
      Promise(kept, kPart, update, text);
    };
    promise(succeeded || trouble.fault || trouble.badFile, "no earlier update hinders it");
    promise(!succeeded || NewFirmwareRuns(m_station),
            "true means that the firmware is in and runs");
    promise(!succeeded || !trouble.badFile, "a bad file is refused");
    promise(m_station.usb.OpenHandles() == 0, "the device is closed again");
  }

  void Prepare(const Trouble& trouble) {
    tavosim::Device& device = m_station.device;
    if (!device.Connected(SimNow(m_station.platform)))
      device.Unplug(SimNow(m_station.platform), 0s);
    device.SetFaults({});
    if (trouble.fault) device.SetFaults({tavosim::ParseFault(trouble.fault).fault.value()});
  }

  bool Run(bool usb, const std::string& file, const UpdateFlags& flags) {
    const UpdateContext context{m_engine, m_holder, m_platform};
    const DeviceTarget target = usb ? DeviceTarget{TransportKind::Usb, Station::kPort}
                                    : DeviceTarget{TransportKind::Ftdi, Station::kSerialNumber};
    return UpdateDevice(context, target, file, flags);
  }

  Station m_station{SmallDevice()};
  ForgetfulPlatform m_platform{m_station.platform};
  Logger m_log{m_platform};
  TavoLink m_link;
  TransportHolder m_holder{
      m_platform, [this](TransportKind kind) {
        return MakeTransport(kind, {m_link, m_platform, m_log, m_station.usb, m_station.d2xx});
      }};
  FirmwareUpdater m_engine{m_platform, m_log, m_holder};
  std::size_t m_descriptors = 0;
  long m_residentKiB = 0;
  unsigned m_succeeded = 0;
};

// --- A log that cannot be written ---

void UpdateWithoutLog(const char* name, const std::string& executable, Station& station) {
  station.platform.SetExecutablePath(executable);
  const bool succeeded = station.UpdateOverUsb() && station.UpdateOverFtdi();
  Promise(succeeded && NewFirmwareRuns(station), "log", 1, std::string("succeeds with ") + name);
  Promise(station.platform.ConsoleHas(" INFO FirmwareUpdater: Verify: successful"), "log", 1,
          std::string("the console has every line, with ") + name);
  std::printf("log: %s: updates over USB and FTDI %s\n", name, succeeded ? "succeeded" : "failed");
}

void UpdatesWithoutLog() {
  Station station(SmallDevice());
  const std::string folder = station.platform.Folder();
  UpdateWithoutLog("a folder that is missing", folder + "missing/host", station);
  Promise(!std::filesystem::exists(folder + "missing"), "log", 1, "a missing folder stays missing");
  // Where not even an administrator can make a file.
  UpdateWithoutLog("a folder that cannot be written", "/proc/host", station);
  std::filesystem::create_directory(folder + "full");
  std::filesystem::create_symlink("/dev/full", folder + "full/FirmwareUpdater.log");
  UpdateWithoutLog("a full disk", folder + "full/host", station);
}

int Main(unsigned updates) {
  // First, since memory that other updates have freed would hide what these do not free.
  ManyUpdates().Execute(updates);
  StoppedUpdates().Execute(updates);
  UpdatesWithoutLog();
  std::printf("%u broken promises\n", brokenPromises);
  return brokenPromises == 0 ? 0 : 1;
}

}  // namespace
}  // namespace tavo::test

int main(int argc, char** argv) {
  unsigned updates = 1000;
  const std::string_view text = argc > 1 ? argv[1] : "1000";
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), updates);
  if (argc > 2 || error != std::errc{} || end != text.data() + text.size() || updates == 0) {
    std::fprintf(stderr, "usage: endurance [UPDATES]\n");
    return 2;
  }
  return tavo::test::Main(updates);
}
