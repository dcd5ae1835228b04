// Many updates in one process, on the virtual clock, some with a fault, some stopped by another thread that
// also reads all the while: nothing is used up, and no update hinders a later one.
#pragma once

#include <array>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "tests/support/station.h"

namespace tavo::test {

class ManyUpdates : private TransportObserver {
 public:
  // The number of broken promises.
  unsigned Execute(unsigned updates) {
    std::thread onlooker([this] { LookOn(); });
    const unsigned warmUp = std::min(100U, updates / 2);
    std::size_t descriptors = 0;
    long residentKiB = 0;
    for (m_update = 1; m_update <= updates; ++m_update) {
      UpdateOnce();
      if (m_update == warmUp) descriptors = OpenDescriptors(), residentKiB = ResidentKiB();
      Promise(m_update <= warmUp || OpenDescriptors() == descriptors, "no descriptor stays open");
    }
    m_ended = true;
    onlooker.join();
    const long grownKiB = ResidentKiB() - residentKiB;
    // A sanitizer keeps freed memory.
    Promise(TAVO_SANITIZED || grownKiB <= kMayGrowKiB, "memory does not grow");
    Promise(!m_nonsense, "other threads read valid values only");
    Promise(m_stopped > 0 && m_succeeded > updates / 3, "some are stopped, many succeed");
    std::printf(
        "%u updates: %u succeeded, %u stopped; memory grew by %ld KiB; %u broken promises\n",
        updates, m_succeeded, m_stopped, grownKiB, m_broken);
    return m_broken;
  }

 private:
  static constexpr long kMayGrowKiB = 256;
  static constexpr unsigned kNever = ~0U;
  static constexpr unsigned kEventsOfUpdate = 35;
  static constexpr std::array kFaults{"unplug:9:2s", "unplug:20", "unplug:1", "powercut:20",
                                      "lose:20"};

  // A few blocks show as much as many.
  static tavosim::DeviceOptions SmallDevice() {
    tavosim::Family family = *tavosim::FindFamily("plain");
    family.applicationKiB = 1;
    tavosim::DeviceOptions options = tavosim::OptionsFor(family);
    options.resetModules = {0x0443};  // ABC
    return options;
  }

  void Promise(bool kept, const char* promise) {
    if (kept) return;
    ++m_broken;
    std::printf("BROKEN update %u: %s\n", m_update, promise);
  }

  // In each four updates over USB and FTDI two meet a fault, and one of the others is stopped, if it lasts
  // long enough.
  void UpdateOnce() {
    const bool faulty = m_update / 2 % 2 == 1;
    m_station.Repair();
    if (faulty) {
      const char* const fault = kFaults[m_update / 4 % kFaults.size()];
      m_station.device.SetFaults({tavosim::ParseFault(fault).fault.value()});
    }
    if (m_update % 4 == 0) m_stopAt = static_cast<unsigned>(1 + m_random() % (2 * kEventsOfUpdate));
    const UpdateFlags flags{.bootloaderOnly = !m_station.device.ApplicationFlash().Intact()};
    const bool usb = m_random() % 2 == 0;
    const bool succeeded = usb ? m_station.UpdateOverUsb(flags) : m_station.UpdateOverFtdi(flags);
    {
      const std::lock_guard lock(m_stopping);  // no stop may be on its way
      m_stopAt = kNever;
    }
    const bool stopped = m_station.platform.ConsoleHas("Firmwareupdate Error: 15\n");
    m_succeeded += succeeded;
    m_stopped += stopped;
    Promise(m_station.usb.handles == 0, "the device is closed again");
    Promise(!succeeded || (m_station.FlashHoldsFirmware() && m_station.ApplicationRuns()),
            "true means that the device holds the firmware and runs it");
    Promise(succeeded != stopped || faulty, "an update succeeds, or is stopped and reports it");
    Forget();
  }

  // Removes everything that piles up outside the library.
  void Forget() {
    m_station.platform.ClearRecords();
    m_station.ForgetRequests();
    std::filesystem::resize_file(m_station.platform.Folder() + "FirmwareUpdater.log", 0);
    m_events = 0;
  }

  // An answer or a timeout: the moments after which the runner checks for a stop. The update waits for one
  // that is due, however busy the machine is.
  void Polled(PollResult result, const TavoMessage& /*answer*/) override {
    if (result != PollResult::Nothing) ++m_events;
    while (m_events >= m_stopAt) std::this_thread::yield();
  }

  void LookOn() {
    while (!m_ended) {
      const float progress = m_station.engine.Progress();
      if (progress < 0 && progress != -1.0F) m_nonsense = true;
      if (m_station.engine.ResettedModule(0).value_or("ABC") != "ABC") m_nonsense = true;
      const std::lock_guard lock(m_stopping);
      if (m_events < m_stopAt) continue;
      m_station.engine.RequestStop();
      m_stopAt = kNever;
    }
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

  std::minstd_rand m_random{1};
  unsigned m_update = 0;
  unsigned m_succeeded = 0;
  unsigned m_stopped = 0;
  unsigned m_broken = 0;
  std::atomic<unsigned> m_events = 0;       // in this update
  std::atomic<unsigned> m_stopAt = kNever;  // the event at which the other thread stops it
  std::mutex m_stopping;
  std::atomic<bool> m_ended = false;
  std::atomic<bool> m_nonsense = false;
  Station m_station{SmallDevice(), false, {}, this};
};

}  // namespace tavo::test
