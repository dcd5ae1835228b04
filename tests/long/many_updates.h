// Many updates in one process, on the virtual clock: however often a host updates, nothing is used up,
// and stops from other threads hinder no later update.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>

#include "tests/support/station.h"

namespace tavo::test {

class UpdatesInOneProcess {
 public:
  unsigned Broken() const { return m_broken; }

 protected:
  void Promise(bool kept, unsigned update, const char* promise) {
    if (kept) return;
    ++m_broken;
    std::printf("BROKEN update %u: %s\n", update, promise);
  }

  // A few blocks show as much as many.
  static tavosim::DeviceOptions SmallDevice() {
    tavosim::Family family = *tavosim::FindFamily("plain");
    family.applicationKiB = 1;
    return tavosim::OptionsFor(family);
  }

  // Removes everything that piles up outside the library.
  static void Forget(Station& station) {
    station.platform.ClearRecords();
    station.ForgetRequests();
    std::filesystem::resize_file(station.platform.Folder() + "FirmwareUpdater.log", 0);
  }

  static bool Update(Station& station, unsigned update) {
    const UpdateFlags flags{.bootloaderOnly = !station.device.ApplicationFlash().Intact()};
    return update % 2 == 0 ? station.UpdateOverFtdi(flags) : station.UpdateOverUsb(flags);
  }

  void CheckUpdate(Station& station, unsigned update, bool succeeded) {
    Promise(station.usb.OpenHandles() == 0, update, "the device is closed again");
    Promise(!succeeded || (station.FlashHoldsFirmware() && station.ApplicationRuns()), update,
            "true means that the device holds the firmware and runs it");
  }

 private:
  unsigned m_broken = 0;
};

// Every second round of updates meets a fault.
class FaultyUpdates : public UpdatesInOneProcess {
 public:
  void Execute(unsigned updates) {
    const unsigned warmUp = std::min(100U, updates / 2);
    std::size_t descriptors = 0;
    long residentKiB = 0;
    unsigned succeeded = 0;
    for (unsigned update = 0; update < updates; ++update) {
      const bool faulty = update / 2 % 2 == 1;
      Prepare(faulty ? kFaults[update / 4 % kFaults.size()] : nullptr);
      const bool updated = Update(m_station, update);
      succeeded += updated;
      CheckUpdate(m_station, update, updated);
      Promise(updated || faulty, update, "no earlier update hinders it");
      Forget(m_station);
      if (update == warmUp) descriptors = OpenDescriptors(), residentKiB = ResidentKiB();
      Promise(update < warmUp || OpenDescriptors() == descriptors, update,
              "no descriptor stays open");
    }
    const long grownKiB = ResidentKiB() - residentKiB;
    // A sanitizer keeps freed memory.
    Promise(TAVO_SANITIZED || grownKiB <= kMayGrowKiB, updates, "memory does not grow");
    std::printf(
        "%u updates with faults: %u succeeded; %zu descriptors open, memory grew by %ld KiB\n",
        updates, succeeded, descriptors, grownKiB);
  }

 private:
  static constexpr long kMayGrowKiB = 256;
  static constexpr std::array kFaults{"unplug:9:2s", "unplug:20", "unplug:1", "powercut:20",
                                      "lose:20"};

  void Prepare(const char* fault) {
    tavosim::Device& device = m_station.device;
    const tavosim::SimTime now = SimNow(m_station.platform);
    if (!device.Connected(now)) device.Unplug(now, std::chrono::seconds(0));
    device.ClearFaults();
    if (fault != nullptr) device.SetFaults({tavosim::ParseFault(fault).fault.value()});
  }

  static std::size_t OpenDescriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
  }

  static long ResidentKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("VmRSS:")) return std::stol(line.substr(line.find(':') + 1));
    }
    return 0;
  }

  Station m_station{SmallDevice()};
};

// One thread updates, one stops at random moments, one looks on.
class StoppedUpdates : public UpdatesInOneProcess, private TransportObserver {
 public:
  void Execute(unsigned updates) {
    std::thread stopper([this] { StopAtRandom(); });
    std::thread onlooker([this] { LookOn(); });
    unsigned stopped = 0;
    for (unsigned update = 1; update <= updates; ++update) {
      m_events = 0;
      m_update = update;
      while (m_armedFor != update) std::this_thread::yield();  // however busy the machine is
      const bool succeeded = Update(m_station, update);
      m_update = 0;
      while (m_armedFor != 0) std::this_thread::yield();
      stopped += !succeeded;
      CheckUpdate(m_station, update, succeeded);
      Promise(m_station.platform.ConsoleHas("Firmwareupdate Error: 15\n") != succeeded, update,
              "an update succeeds, or is stopped and reports it");
      Promise(m_station.engine.LastError() == ErrorCode::None, update, "a stop stores no code");
      Forget(m_station);
    }
    m_ended = true;
    stopper.join();
    onlooker.join();
    const bool succeeded = Update(m_station, 0);
    CheckUpdate(m_station, 0, succeeded);
    Promise(succeeded, 0, "an update after all stops succeeds");
    Promise(!m_nonsense, 0, "other threads read valid values only");
    Promise(stopped > 0 && stopped < updates, 0, "some are stopped, some are not");
    std::printf("%u updates with stops from another thread: %u stopped\n", updates, stopped);
  }

 private:
  static constexpr unsigned kEventsOfUpdate = 35;

  // An answer or a timeout: the moments after which the runner checks for a stop.
  void Polled(PollResult result, const TavoMessage& /*answer*/) override {
    if (result != PollResult::Nothing) ++m_events;
    std::this_thread::yield();  // virtual time leaves the other threads no pauses
  }

  void StopAtRandom() {
    std::minstd_rand random(1);
    while (!m_ended) {
      const unsigned update = m_update;
      m_armedFor = update;
      if (update == 0) {
        std::this_thread::yield();
        continue;
      }
      const unsigned event = static_cast<unsigned>(1 + random() % (2 * kEventsOfUpdate));
      while (m_events < event && m_update == update) std::this_thread::yield();
      if (m_update == update) m_station.engine.RequestStop();
      while (m_update == update) std::this_thread::yield();
    }
  }

  void LookOn() {
    while (!m_ended) {
      const float progress = m_station.engine.Progress();
      if (progress < 0 && progress != -1.0F) m_nonsense = true;
      if (m_station.engine.ResettedModule(0).value_or("ABC") != "ABC") m_nonsense = true;
      std::this_thread::yield();
    }
  }

  static tavosim::DeviceOptions DeviceWithModules() {
    tavosim::DeviceOptions options = SmallDevice();
    options.resetModules = {0x0443};  // ABC
    return options;
  }

  std::atomic<unsigned> m_events = 0;
  std::atomic<unsigned> m_update = 0;    // the one that runs, 0: none
  std::atomic<unsigned> m_armedFor = 0;  // the one that the stopper watches
  std::atomic<bool> m_ended = false;
  std::atomic<bool> m_nonsense = false;
  Station m_station{DeviceWithModules(), false, {}, this};
};

inline int ManyUpdates(unsigned count) {
  // First, since memory that other updates have freed would hide a leak.
  FaultyUpdates faulty;
  faulty.Execute(count);
  StoppedUpdates stopped;
  stopped.Execute(count);
  const unsigned broken = faulty.Broken() + stopped.Broken();
  std::printf("%u broken promises\n", broken);
  return broken == 0 ? 0 : 1;
}

}  // namespace tavo::test
