// A machine with a virtual clock: it stands still until somebody sleeps or a test advances it,
// its console is a string and its executable lies in a folder of its own that is empty at first. A
// test that waits 25 seconds on it takes microseconds.
//
//   VirtualPlatform platform;
//   Logger log(platform);
//   platform.Advance(4s);
//   EXPECT_EQ(platform.Console(), "...");
//
// Any thread may use it, as a host's threads may use the machine's.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/platform.h"
#include "tests/support/temporary_folder.h"

namespace tavo::test {

class VirtualPlatform : public Platform {
 public:
  using milliseconds = std::chrono::milliseconds;

  milliseconds MonotonicNow() override {
    const std::lock_guard lock(m_lock);
    return m_now;
  }

  std::uint32_t TickCount() override {
    return m_tickOffset + static_cast<std::uint32_t>(MonotonicNow().count());
  }

  // 2024.03.01 - 12:00:00 plus what has passed, within that day.
  std::tm LocalTime() override {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(MonotonicNow()).count();
    std::tm time{};
    time.tm_year = 124;
    time.tm_mon = 2;
    time.tm_mday = 1;
    time.tm_hour = static_cast<int>((12 + seconds / 3600) % 24);
    time.tm_min = static_cast<int>(seconds / 60 % 60);
    time.tm_sec = static_cast<int>(seconds % 60);
    return time;
  }

  void Sleep(milliseconds duration) override {
    {
      const std::lock_guard lock(m_lock);
      m_sleeps.push_back(duration);
      m_now += duration;
    }
    onSleep();
  }
  std::function<void()> onSleep = [] {};

  std::string ExecutablePath() override { return m_executablePath; }
  void Print(std::string_view text) override {
    const std::lock_guard lock(m_lock);
    m_console += text;
  }

  FileHandle OpenLog(const std::string& path, Links links) override {
    return SystemPlatform().OpenLog(path, links);
  }

  // Time passes without a sleep.
  void Advance(milliseconds duration) {
    const std::lock_guard lock(m_lock);
    m_now += duration;
  }

  // The value of TickCount at time 0; near the end of its range it soon wraps.
  void SetTickOffset(std::uint32_t offset) { m_tickOffset = offset; }

  void SetExecutablePath(std::string path) { m_executablePath = std::move(path); }

  // The folder made for this platform, with the separator at its end; removed with the platform.
  const std::string& Folder() const { return m_folder; }

  // Console and Sleeps are for when no other thread is at work any more.
  const std::string& Console() const { return m_console; }
  void ClearConsole() { m_console.clear(); }
  void ClearRecords() {
    ClearConsole();
    m_sleeps = {};
  }
  bool ConsoleHas(std::string_view text) const { return m_console.find(text) != std::string::npos; }

  // Every sleep so far, in order.
  const std::vector<milliseconds>& Sleeps() const { return m_sleeps; }

 private:
  std::mutex m_lock;
  milliseconds m_now{0};
  std::uint32_t m_tickOffset = 0;
  TemporaryFolder m_temporary;
  std::string m_folder = m_temporary.Path().string() + "/";
  std::string m_executablePath = m_folder + "host";
  std::string m_console;
  std::vector<milliseconds> m_sleeps;
};

}  // namespace tavo::test
