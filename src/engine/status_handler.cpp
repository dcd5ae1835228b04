#include "engine/status_handler.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "engine/firmware_updater.h"

namespace tavo {
namespace {

constexpr std::int64_t kBarWidth = 20;
constexpr std::int64_t kPercentPerMark = 100 / kBarWidth;

}  // namespace

void ProgressBar::Begin(std::int64_t total) {
  m_total = total;
  m_line.clear();
}

std::string ProgressBar::Redraw(std::int64_t current) {
  // Blank blocks that must be written count here but not in the total: an ordinary update can pass
  // 100 %, and one of blank blocks alone has a total of 0.
  const std::int64_t percent = m_total > 0 ? current * 100 / m_total : 0;
  const std::int64_t marks = std::clamp<std::int64_t>(percent / kPercentPerMark, 0, kBarWidth);
  std::array<char, 64> line{};
  std::snprintf(line.data(), line.size(), "[%-20s] %3lld %%",
                std::string(static_cast<std::size_t>(marks), '-').c_str(),
                static_cast<long long>(percent));
  std::string text(m_line.size(), '\b');
  m_line = line.data();
  return text + m_line;
}

void StatusHandler::Handle(const StatusMessage& message) {
  switch (message.kind) {
    case StatusKind::UpdateBegins: return PrintLine("Preparing Device");
    case StatusKind::UpdateSucceeded: return PrintLine("Firmwareupdate successfull");
    case StatusKind::UpdateFailed: return PrintFailure(message);
    case StatusKind::TransferBegins:
      m_bar.Begin(message.value);
      return PrintLine("Transferring Firmware");
    case StatusKind::TransferProgress:
      if (m_showsBar) m_platform.Print(m_bar.Redraw(message.value));
      return;
    case StatusKind::TransferEnded:
      if (m_showsBar) m_platform.Print("\n");
      return;
    case StatusKind::WaitAndResume: return WaitAndResume(message);
  }
  PrintLine("Unknown Message");
}

void StatusHandler::PrintLine(std::string_view text) { m_platform.Print(std::string(text) + "\n"); }

void StatusHandler::PrintFailure(const StatusMessage& message) {
  if (!message.text.empty()) return PrintLine(message.text);
  PrintLine("Firmwareupdate Error: " + std::to_string(message.value));
}

void StatusHandler::WaitAndResume(const StatusMessage& message) {
  if (message.value == kTunnelCloses) PrintLine("Closing Tunnel");
  m_engine.Pause(message.delay);
  m_engine.RunSteps(message.value == kRetryStep ? StepPhase::Start : StepPhase::Answer);
}

}  // namespace tavo
