// The faults that `firmware-updater simulate --fault` offers.
#include "simulator/device.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace tavosim {
namespace {

using Bytes = std::vector<std::uint8_t>;
using namespace std::chrono_literals;

// The payload of the answer to a request for the version, or "silent", or the bytes when they are no
// single right frame. The host waits for 4 s.
std::string AskForVersion(Device& device, SimTime& now) {
  constexpr std::uint16_t kVersion = 0x120;
  const auto hex = [](const Bytes& bytes) { return Describe({0, 0, bytes, SimTime{0}, false}); };
  const SimTime until = now + 4s;
  device.Receive(EncodeFrame({kVersion, {}}), now);
  Bytes answer;
  for (auto due = device.NextDue(); due && *due <= until; due = device.NextDue()) {
    now = std::max(now, *due);
    const auto part = device.Take(3, now);
    answer.insert(answer.end(), part.begin(), part.end());
  }
  if (answer.empty()) now = until;
  if (answer.empty()) return "silent";
  const auto frame = DecodeFrame(answer);
  return frame && frame->id == kVersion ? hex(frame->payload) : "spoilt " + hex(answer);
}

TEST(FaultTest, EachSpoilsTheAnswerItNames) {
  const struct {
    const char* fault;
    const char* answers[3];  // to three requests for the version
  } rows[]{{"lose:2", {"03 80", "silent", "03 80"}},
           {"lose:2+", {"03 80", "silent", "silent"}},
           {"lose:id=0x121:*", {"03 80", "03 80", "03 80"}},
           {"delay:2:5s", {"03 80", "silent", "spoilt A5 83 04 03 80 C7 A5 83 04 03 80 C7"}},
           {"damage:1:3.0", {"spoilt A5 83 04 02 80 C7", "03 80", "03 80"}},
           {"repeat:1:10ms", {"spoilt A5 83 04 03 80 C7 A5 83 04 03 80 C7", "03 80", "03 80"}},
           {"cut:1", {"spoilt A5 83 04", "03 80", "03 80"}},
           {"empty:1", {"", "03 80", "03 80"}},
           {"otherid:1:0x100", {"spoilt A5 01 04 03 80 54", "03 80", "03 80"}},
           {"before:1:1B00", {"spoilt 1B 00 A5 83 04 03 80 C7", "03 80", "03 80"}},
           {"after:1:A4", {"spoilt A5 83 04 03 80 C7 A4", "03 80", "03 80"}},
           {"withhold:1", {"silent", "spoilt A5 83 04 03 80 C7 A5 83 04 03 80 C7", "03 80"}},
           {"unplug:1:5s", {"silent", "silent", "03 80"}},
           {"powercut:2", {"03 80", "silent", "silent"}}};
  for (const auto& row : rows) {
    const auto parsed = ParseFault(row.fault);
    ASSERT_TRUE(parsed.fault) << parsed.error;
    auto options = OptionsFor(kFamilies[0]);
    options.start = DeviceState::Bootloader;
    Device device(options, {*parsed.fault});
    SimTime now{0};
    for (const auto* answer : row.answers)
      EXPECT_EQ(AskForVersion(device, now), answer) << row.fault;
  }
  for (const auto* wrong : {"", "loose:1", "lose", "lose:0", "lose:1:2s", "delay:1", "delay:1:9",
                            "damage:1:2.8", "otherid:1:0x4000", "before:1:A", "lose:id=:1"}) {
    EXPECT_FALSE(ParseFault(wrong).fault) << wrong;
    EXPECT_FALSE(ParseFault(wrong).error.empty()) << wrong;
  }
}

}  // namespace
}  // namespace tavosim
