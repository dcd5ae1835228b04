#include "device/flash_check.h"

#include <chrono>

#include "device/examination.h"

namespace tavo::tool {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kLongestStart = seconds(30);  // of a bootloader

std::uint32_t Number(const TavoMessage& answer, std::size_t first) {
  std::uint32_t value = 0;
  for (std::size_t i = 4; i-- > 0;) value = value << 8 | answer.payload[first + i];
  return value;
}

// Only the firmware, which is not at hand, says which message kind the application has. The wrong one meets
// silence.
void CallBootloader(Inquiry& inquiry) {
  Command alternative = kCallBootloader;
  alternative.id = kAlternativeApplicationRequest;
  if (!inquiry.Ask(kCallBootloader)) inquiry.Ask(alternative);
}

bool AwaitBootloader(Inquiry& inquiry, Platform& platform, DeviceReport& report) {
  const milliseconds start = platform.MonotonicNow();
  do {
    if (AskBootloader(inquiry, Patience::Brief, report)) return true;
  } while (platform.MonotonicNow() - start < kLongestStart);
  return false;
}

void Compare(Inquiry& inquiry, const DeviceReport& report, FlashCheck& check) {
  constexpr std::size_t kTwoChecksums = 8;
  check.verdict = FlashVerdict::NotSupported;
  if (report.bootloaderVersion < kVerifies) return;
  check.verdict = FlashVerdict::NoAnswer;
  const auto answer = inquiry.Ask(kVerify);
  if (!answer || answer->length < kTwoChecksums) return;
  check.calculated = Number(*answer, 0);
  check.expected = Number(*answer, 4);
  check.verdict = check.calculated == check.expected ? FlashVerdict::Passed : FlashVerdict::Failed;
}

// Without it nothing that the application has said holds any more.
bool StartAgain(Inquiry& inquiry, DeviceReport& report) {
  report.inBootloader = false;
  report.signOfLife = inquiry.StartApplication();
  if (report.signOfLife) return true;
  report.deviceId.reset();
  report.softwareId.reset();
  report.tunnel.reset();
  AskBootloader(inquiry, Patience::Full, report);
  return false;
}

}  // namespace

FlashCheck CheckFlash(Inquiry& inquiry, Platform& platform, DeviceReport& report,
                      const std::function<bool()>& stopped) {
  FlashCheck check;
  const bool found = report.inBootloader;
  if (stopped() || !(found || report.RunsApplication())) return check;
  if (!found) CallBootloader(inquiry);
  if (found || AwaitBootloader(inquiry, platform, report)) {
    if (!found && !stopped()) AskBootloaderFacts(inquiry, report);
    if (!stopped()) Compare(inquiry, report, check);
  } else {
    check.verdict = FlashVerdict::NoBootloader;
  }
  check.lost = !found && !StartAgain(inquiry, report);
  return check;
}

}  // namespace tavo::tool
