// What other threads of a host may do while an update runs. Real threads, virtual time; the thread
// sanitizer is what makes this test worth running.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "testbench/station.h"

namespace tavo::test {
namespace {

// Runs `poll` again and again in a thread of its own for as long as it exists.
class Poller {
 public:
  template <typename Poll>
  explicit Poller(Poll poll)
      : m_thread([this, poll] {
          while (!m_ended) {
            poll();
            std::this_thread::yield();
          }
        }) {}
  ~Poller() {
    m_ended = true;
    m_thread.join();
  }

 private:
  std::atomic<bool> m_ended = false;
  std::thread m_thread;
};

tavosim::DeviceOptions PlainWithModules() {
  tavosim::DeviceOptions options = tavosim::OptionsFor(*tavosim::FindFamily("plain"));
  options.resetModules.assign(200, 0x0443);
  return options;
}

TEST(Threads, MayPollWhileUpdatesRun) {
  Station station(PlainWithModules());
  std::atomic<bool> halfAName = false;
  const auto poll = [&] {
    if (station.engine.Progress() >= 0) station.engine.LastError();
    for (std::uint32_t i = 0; const auto name = station.engine.ResettedModule(i); ++i) {
      if (*name != "ABC") halfAName = true;
    }
  };
  {
    const Poller first(poll);
    const Poller second(poll);
    EXPECT_TRUE(station.UpdateOverUsb());
    EXPECT_TRUE(station.UpdateOverFtdi());
  }
  EXPECT_FALSE(halfAName);
}

TEST(Threads, MayStopAnUpdateWhichThenEndsInTheBootloader) {
  Station station(PlainWithModules());
  station.usb.failReceive = [&station, stopped = false]() mutable {
    if (!stopped && station.engine.Progress() > 0.3F) {
      stopped = true;
      std::thread([&station] { station.engine.RequestStop(); }).join();
    }
    return false;
  };
  EXPECT_FALSE(station.UpdateOverUsb());
  EXPECT_TRUE(station.platform.ConsoleHas("Firmwareupdate Error: 15\n"));
  EXPECT_EQ(station.engine.LastError(), ErrorCode::None);
  EXPECT_EQ(station.engine.DeviceState().device, DeviceCondition::BootloaderFlashErased);
  EXPECT_TRUE(station.UpdateOverUsb({.bootloaderOnly = true}));
  EXPECT_TRUE(station.FlashHoldsFirmware());
}

TEST(Threads, MayStopAtAnyMomentAndNoUpdateIsRefusedForIt) {
  Station station(PlainWithModules());
  {
    const Poller first([&] { station.engine.RequestStop(); });
    const Poller second([&] { station.engine.RequestStop(); });
    for (int update = 0; update < 20; ++update) station.UpdateOverUsb();
  }
  EXPECT_FALSE(station.platform.ConsoleHas("Another update is running."));
  station.UpdateOverUsb({.bootloaderOnly = true});
  EXPECT_TRUE(station.UpdateOverUsb());
}

TEST(Threads, ASecondUpdateIsRefusedWhileOneRuns) {
  Station station(PlainWithModules());
  const FirmwareUpdater::Run running(station.engine);
  std::thread([&] { EXPECT_FALSE(station.UpdateOverFtdi()); }).join();
  EXPECT_TRUE(station.platform.ConsoleHas("Another update is running."));
  EXPECT_EQ(station.holder.Kind(), TransportKind::None);
}

}  // namespace
}  // namespace tavo::test
