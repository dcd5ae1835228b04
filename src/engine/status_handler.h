// Shows the course of an update on the console: its beginning and end, and a progress bar that is
// redrawn in place while the firmware is written. One kind of message makes the update wait and then
// continue.
//
// Called only by the thread that runs the update.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "engine/step.h"
#include "platform/platform.h"

namespace tavo {

enum class StatusKind : std::uint32_t {
  UpdateBegins = 1124,
  UpdateSucceeded = 1125,
  UpdateFailed = 1126,      // value: error code; text: what to print instead of the code
  TransferBegins = 1127,    // value: bytes to transfer
  TransferProgress = 1128,  // value: bytes transferred so far
  TransferEnded = 1129,
  WaitAndResume = 1130,  // value: one of the two below; delay: how long
};

// Values of WaitAndResume.
inline constexpr std::int32_t kTunnelCloses = 1;  // then continue as if the answer had come
inline constexpr std::int32_t kRetryStep = 2;     // then call the current step again

struct StatusMessage {
  StatusKind kind;
  std::int32_t value = 0;
  std::string_view text = {};  // valid during the call
  std::chrono::milliseconds delay{0};
};

class ProgressBar {
 public:
  void Begin(std::int64_t total);
  // The text that replaces the line printed last: backspaces over it, then the new line.
  std::string Redraw(std::int64_t current);

 private:
  std::int64_t m_total = 0;
  std::string m_line;
};

class StatusHandler {
 public:
  StatusHandler(Platform& platform, FirmwareUpdater& engine)
      : m_platform(platform), m_engine(engine) {}

  void Handle(const StatusMessage& message);

  // On from the beginning. A program that shows the progress itself turns it off.
  void ShowProgressBar(bool on) { m_showsBar = on; }

 private:
  void PrintLine(std::string_view text);
  void PrintFailure(const StatusMessage& message);
  void WaitAndResume(const StatusMessage& message);

  Platform& m_platform;
  FirmwareUpdater& m_engine;
  ProgressBar m_bar;
  bool m_showsBar = true;
};

}  // namespace tavo
