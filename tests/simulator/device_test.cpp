// The parts of the simulated device that whole updates do not exercise: frames, refusals, flash,
// faults and the two USB faces. Everything runs on a virtual clock.
#include "simulator/device.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "simulator/cdc_function.h"
#include "simulator/ftdi_adapter.h"

namespace tavosim {
namespace {

using Bytes = std::vector<std::uint8_t>;
using namespace std::chrono_literals;

constexpr SimTime kPatience = 4s;

TEST(FrameTest, FindsFramesInGarbageByteByByte) {
  FrameReader reader;
  std::size_t frames = 0, escapes = 0;
  // Two escape bytes are garbage, three are an escape; a header byte that leads nowhere costs
  // nothing but itself.
  for (const auto byte : {0x1B, 0x1B, 0x00, 0x1B, 0x1B, 0x1B, 0xA0, 0xA4, 0xA3, 0x83, 0x04, 0xF9}) {
    const auto value = static_cast<std::uint8_t>(byte);
    for (const auto& item : reader.Put({&value, 1}, 0s)) ++(item ? frames : escapes);
  }
  EXPECT_EQ(escapes, 1U);
  EXPECT_EQ(frames, 1U);
  EXPECT_TRUE(reader.Put(Bytes{0xA3, 0x83}, 1s).empty());
  EXPECT_TRUE(reader.Put(Bytes{0x04, 0xF9}, 3s).empty()) << "the host had given up the frame";
}

// A host that asks one thing at a time.
class Host {
 public:
  explicit Host(DeviceOptions options, std::vector<Fault> faults = {})
      : device(std::move(options), std::move(faults)) {}

  // The payload of the answer, or "silent", or the bytes when they are not exactly one valid frame.
  std::string Ask(std::uint16_t id, const Bytes& payload = {}) {
    device.Receive(EncodeFrame({id, payload}), now);
    const auto until = now + kPatience;
    Bytes answer;
    while (const auto due = device.NextDue()) {
      if (*due > until) break;
      now = std::max(now, *due);
      const auto part = device.Take(3, now);
      answer.insert(answer.end(), part.begin(), part.end());
    }
    if (answer.empty()) now = until;
    if (answer.empty()) return "silent";
    const auto frame = DecodeFrame(answer);
    if (frame && frame->id == id) return Hex(frame->payload);
    return "spoilt " + Hex(answer);
  }

  static std::string Hex(const Bytes& bytes) { return Describe({0, 0, bytes, SimTime{0}, false}); }

  Device device;
  SimTime now{0};
};

TEST(DeviceTest, HearsOnlyWhatItsModeAndItsTunnelLetThrough) {
  Host host(OptionsFor(*FindFamily("tunnel")));
  const Bytes open{0xED, 0x00, 0x01, 0x04};
  EXPECT_EQ(host.Ask(0x12F, {0x01}), "silent") << "the application runs";
  EXPECT_EQ(host.Ask(0x100, {0xFD, 0x00}), "silent") << "the tunnel is closed";
  EXPECT_EQ(host.Ask(0x100, open), Host::Hex(open));
  EXPECT_EQ(host.Ask(0x120), "silent") << "the bootloader does not run yet";
  EXPECT_EQ(host.Ask(0x100, {0xFD, 0x00}), "FD 00");
  EXPECT_NE(host.Ask(0x120), "silent");
  EXPECT_EQ(host.Ask(0x100, {0x00}), "silent");
  EXPECT_EQ(host.Ask(0x130, {0x01}), "");
  EXPECT_EQ(host.Ask(0x12F), "");
  EXPECT_EQ(host.device.State(host.now), DeviceState::Bootloader) << "nothing to start";
}

TEST(FlashTest, ProgramsLikeNorAndKeepsItsBounds) {
  Flash flash(0x4000, 256);
  EXPECT_FALSE(flash.Write(Bytes{1}, false)) << "nothing positioned";
  EXPECT_FALSE(flash.Position(0x3FFF));
  EXPECT_FALSE(flash.Position(0x4101));
  ASSERT_TRUE(flash.Position(0x40F0));
  EXPECT_FALSE(flash.Write(Bytes(17), false)) << "past the end";
  EXPECT_EQ(flash.Refusals(), 4U);
  ASSERT_TRUE(flash.Position(0x4000));
  flash.Write(Bytes{0xF0}, false);
  flash.Write(Bytes{0x3C}, true);
  flash.Write(Bytes{0x11}, true);
  EXPECT_EQ(flash.Bytes()[0], 0x30) << "bits only fall";
  EXPECT_EQ(flash.Bytes()[1], 0x11);
  flash.Erase();
  EXPECT_EQ(flash.Bytes(), Bytes(256, 0xFF));
  EXPECT_FALSE(flash.Intact());
  EXPECT_EQ(Crc32(Bytes{'1', '2', '3', '4', '5', '6', '7', '8', '9'}), 0xCBF43926U);
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
    Host host(options, {*parsed.fault});
    for (const auto* answer : row.answers) EXPECT_EQ(host.Ask(0x120), answer) << row.fault;
  }
  for (const auto* wrong : {"", "loose:1", "lose", "lose:0", "lose:1:2s", "delay:1", "delay:1:9",
                            "damage:1:2.8", "otherid:1:0x4000", "before:1:A", "lose:id=:1"}) {
    EXPECT_FALSE(ParseFault(wrong).fault) << wrong;
    EXPECT_FALSE(ParseFault(wrong).error.empty()) << wrong;
  }
}

const auto kSignOfLife = EncodeFrame({0x100, {0x00}});  // 5 bytes, answered by the same 5 bytes

TEST(CdcTest, PacesBytesAndStaysSilentWithoutDtr) {
  Device device(OptionsFor(kFamilies[0]));
  CdcFunction cdc(device, {.baud = 10000});  // 1 ms a byte
  const SetupPacket raiseDtr{0x21, 0x22, 0x0003, 0, 0};
  cdc.Out(kBulkOut, kSignOfLife, 0s);
  EXPECT_EQ(cdc.In(kBulkIn, 256, 1s).status, UsbStatus::NotReady);
  EXPECT_EQ(cdc.Control(raiseDtr, {}, 1s).status, UsbStatus::Done);
  cdc.Out(kBulkOut, kSignOfLife, 1s);
  // 5 ms there, 1 ms to answer, then a byte each millisecond.
  EXPECT_EQ(cdc.In(kBulkIn, 256, 1006999us).status, UsbStatus::NotReady);
  EXPECT_EQ(cdc.In(kBulkIn, 256, 1007ms).data, Bytes{0xA4});
  EXPECT_EQ(cdc.In(kBulkIn, 256, 1011ms).data, Bytes(kSignOfLife.begin() + 1, kSignOfLife.end()));
  device.Unplug(2s, 1s);
  EXPECT_EQ(cdc.Out(kBulkOut, kSignOfLife, 2999ms).status, UsbStatus::Gone);
  EXPECT_TRUE(cdc.Connected(3s));
  EXPECT_FALSE(cdc.DtrRaised());
}

TEST(FtdiTest, PacketsCarryStatusAndKeepTheLatency) {
  Device device(OptionsFor(kFamilies[0]));
  FtdiAdapter adapter(device, {.baud = 0, .echo = true});
  EXPECT_EQ(adapter.In(kBulkIn, 64, 1s).data, (Bytes{0xA1, 0x60}));
  EXPECT_EQ(adapter.In(kBulkIn, 64, 1015999us).status, UsbStatus::NotReady);
  adapter.Out(kBulkOut, kSignOfLife, 1s);  // at 9600 baud the device hears nothing, the echo comes
  EXPECT_EQ(adapter.In(kBulkIn, 64, 1016ms).data.size(), 2U + 5U);
  adapter.Control({0x40, 0x03, 0x809C, 0, 0}, {}, 1016ms);  // 3 MHz / 156.25
  EXPECT_EQ(adapter.Baud(), 19200U);
  adapter.Out(kBulkOut, kSignOfLife, 1016ms);
  EXPECT_EQ(adapter.In(kBulkIn, 512, 1032ms).data.size(), 2U + 5U + 5U);
  for (int i = 0; i < 7; ++i) adapter.Out(kBulkOut, kSignOfLife, 1033ms);  // 70 bytes come back
  EXPECT_EQ(adapter.In(kBulkIn, 64, 1041ms).data.size(), 64U) << "a full packet does not wait";
  EXPECT_EQ(adapter.Control({0xC0, 0x0A, 0, 0, 1}, {}, 2s).data, Bytes{16});
}

}  // namespace
}  // namespace tavosim
