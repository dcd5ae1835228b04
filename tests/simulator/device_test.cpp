// The simulated device against what a host relies on: its frames, a whole update, its flash, its
// faults and its two USB faces. Everything runs on a virtual clock.
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

TEST(FrameTest, KnownFramesBothWays) {
  Bytes ten(10), padded(16), largest(128, 0xA5);
  for (std::uint8_t i = 0; i < 10; ++i) padded[i] = ten[i] = static_cast<std::uint8_t>(i + 1);
  Bytes tenFrame{0xAC, 0xD3, 0x04};
  tenFrame.insert(tenFrame.end(), padded.begin(), padded.end());
  tenFrame.push_back(0x16);
  const struct {
    std::uint16_t id;
    Bytes payload, frame, received;
  } rows[]{{0x100, {0x01}, {0xA4, 0x01, 0x04, 0x01, 0x36}, {0x01}},
           {0x120, {}, {0xA3, 0x83, 0x04, 0xF9}, {}},
           {0x120, {0x03, 0x40}, {0xA5, 0x83, 0x04, 0x03, 0x40, 0x34}, {0x03, 0x40}},
           {0x134, ten, tenFrame, padded}};
  for (const auto& row : rows) {
    EXPECT_EQ(EncodeFrame({row.id, row.payload}), row.frame);
    const auto decoded = DecodeFrame(row.frame);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->id, row.id);
    EXPECT_EQ(decoded->payload, row.received);
    for (std::size_t bit = 0; bit < row.frame.size() * 8; ++bit) {
      auto damaged = row.frame;
      damaged[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
      EXPECT_FALSE(DecodeFrame(damaged)) << "bit " << bit;
    }
  }
  EXPECT_EQ(EncodeFrame({0x134, largest}).size(), 132U);
  EXPECT_TRUE(EncodeFrame({0x134, Bytes(129)}).empty());
}

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

  // The payload of the answer, or "silent", or the bytes when they are no single right frame.
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

  void Write(const Bytes& image) {
    const std::size_t block = device.Options().family.blockSize;
    for (std::size_t offset = 0; offset <= image.size(); offset += block) {
      ASSERT_EQ(Ask(0x133, Address(offset)), "");
      if (offset == image.size()) break;
      const auto begin = image.begin() + static_cast<std::ptrdiff_t>(offset);
      ASSERT_EQ(Ask(0x134, {begin, begin + static_cast<std::ptrdiff_t>(block)}), "");
    }
  }

  Bytes Address(std::size_t offset) const {
    const auto address = device.Options().family.flashStart + offset;
    return {static_cast<std::uint8_t>(address & 0xFF),
            static_cast<std::uint8_t>(address >> 8 & 0xFF),
            static_cast<std::uint8_t>(address >> 16 & 0xFF), 0};
  }

  static std::string Hex(const Bytes& bytes) { return Describe({0, 0, bytes, SimTime{0}, false}); }

  Device device;
  SimTime now{0};
};

class UpdateTest : public testing::TestWithParam<Family> {};

TEST_P(UpdateTest, WholeUpdateInOrder) {
  const auto& family = GetParam();
  auto options = OptionsFor(family);
  options.resetModules = {0x0443};
  Host host(options);
  const auto requestId = family.applicationRequestId;
  const Bytes open{0xED, 0, static_cast<std::uint8_t>(family.route & 0xFF),
                   static_cast<std::uint8_t>(family.route >> 8)};
  EXPECT_EQ(host.Ask(0x12F, {0x01}), "silent");
  host.device.Receive(Bytes{0x1B, 0x1B, 0x1B}, host.now);
  EXPECT_EQ(host.Ask(0x100, {0xEB, 0x00}), "00 00");
  EXPECT_EQ(host.Ask(0x100, {0xBB, 0x0A}),
            Host::Hex({static_cast<std::uint8_t>(family.deviceId),
                       static_cast<std::uint8_t>(family.deviceId >> 8)}));
  if (family.route != 0) {
    EXPECT_EQ(host.Ask(requestId, {0xFD, 0x00}), "silent") << "the tunnel is closed";
    EXPECT_EQ(host.Ask(0x100, open), Host::Hex(open));
    EXPECT_EQ(host.device.OpenTunnel(), family.route);
  }
  if (requestId != 0x100) {
    EXPECT_EQ(host.Ask(0x100, {0xBB, 0x02}), "silent");
  }
  EXPECT_NE(host.Ask(requestId, {0xBB, 0x02}), "silent");
  EXPECT_EQ(host.Ask(0x120), "silent") << "the bootloader does not run yet";
  EXPECT_EQ(host.Ask(requestId, {0xFD, 0x00}), "FD 00");
  EXPECT_EQ(host.Ask(0x120), Host::Hex({family.bootloaderVersion, family.blockSize}));
  EXPECT_EQ(host.Ask(0x121).substr(0, 2), "1E") << "most significant byte first";
  EXPECT_EQ(host.Ask(0x132), Host::Hex({static_cast<std::uint8_t>(family.applicationKiB), 0}));
  EXPECT_EQ(host.Ask(0x122).substr(3),
            Host::Hex({static_cast<std::uint8_t>(family.hardwareId >> 8)}));
  EXPECT_EQ(host.Ask(0x100, {0x00}), "silent");
  EXPECT_EQ(host.Ask(0x130, {0x01}), "");
  EXPECT_EQ(host.Ask(0x12F), "");
  EXPECT_EQ(host.device.State(host.now), DeviceState::Bootloader) << "nothing to start";
  const auto image = OldFirmware(family.applicationKiB * 1024U, 77);
  host.Write(image);
  const auto sums = host.Ask(0x136);
  EXPECT_EQ(sums.substr(0, 11), sums.substr(12));
  EXPECT_EQ(host.Ask(0x12F), "");
  EXPECT_EQ(host.Ask(0x100, {0x00}), "00");
  EXPECT_EQ(host.Ask(0x100, {0xA0, 0x02}), "A0 02");
  EXPECT_EQ(host.Ask(0x814, {0}), "43 04");
  EXPECT_EQ(host.Ask(0x814, {1}), "00 00");
  EXPECT_EQ(host.Ask(0x100, {0xEC, 0x00}), "EC 00");
  EXPECT_EQ(host.device.OpenTunnel(), 0);
  EXPECT_EQ(host.device.ApplicationFlash().Bytes(), image);
  EXPECT_EQ(host.device.ApplicationFlash().Erases(), 1U);
  EXPECT_EQ(host.device.Label(), 2);
  EXPECT_EQ(Describe(host.device.Journal()[1]), "1B 1B 1B");
  EXPECT_EQ(Describe(host.device.Journal()[2]), "0x100 EB 00");
  Device restarted(OptionsFor(family));
  EXPECT_TRUE(restarted.Restore(host.device.Save()));
  EXPECT_EQ(restarted.ApplicationFlash().Bytes(), image);
}

INSTANTIATE_TEST_SUITE_P(Families, UpdateTest, testing::ValuesIn(kFamilies),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(FlashTest, ProgramsLikeNorAndKeepsItsBounds) {
  Flash flash(0x4000, 256);
  EXPECT_FALSE(flash.Write(Bytes{1}, false)) << "nothing positioned";
  const struct {
    std::uint32_t address;
    std::size_t size;
    bool positioned, written;
  } rows[]{{0x3FFF, 1, false, false},
           {0x4000, 256, true, true},
           {0x40F0, 17, true, false},
           {0x4100, 1, true, false},
           {0x4101, 1, false, false}};
  for (const auto& row : rows) {
    flash.ForgetPosition();
    EXPECT_EQ(flash.Position(row.address), row.positioned) << row.address;
    EXPECT_EQ(flash.Write(Bytes(row.size, 0xF0), false), row.written) << row.address;
  }
  EXPECT_EQ(flash.Refusals(), 7U);
  ASSERT_TRUE(flash.Position(0x4000));
  for (const bool advances : {false, true, true}) flash.Write(Bytes{0x3C, 0x3C}, advances);
  EXPECT_EQ(Bytes(flash.Bytes().begin(), flash.Bytes().begin() + 5),
            (Bytes{0x30, 0x30, 0x30, 0x30, 0xF0}));
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
           {"lose:id=0x120:*", {"silent", "silent", "silent"}},
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
           {"unplug:1", {"silent", "silent", "silent"}},
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

TEST(FaultTest, PowerCutWhileWritingLeavesABootloader) {
  Host host(OptionsFor(kFamilies[0]), {*ParseFault("powercut:id=0x134:1").fault});
  host.Ask(0x100, {0xFD, 0x00});
  host.Ask(0x130, {0x03});
  host.Ask(0x133, host.Address(0));
  EXPECT_EQ(host.Ask(0x134, Bytes(128, 0)), "silent");
  EXPECT_EQ(host.Ask(0x120), "03 80");
  EXPECT_EQ(host.device.ApplicationFlash().Bytes()[0], 0xFF);
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
  EXPECT_EQ(cdc.NextDue(1006999us), SimTime(1007ms));
  EXPECT_EQ(cdc.In(kBulkIn, 256, 1007ms).data, Bytes{0xA4});
  EXPECT_EQ(cdc.In(kBulkIn, 256, 1011ms).data, Bytes(kSignOfLife.begin() + 1, kSignOfLife.end()));
  device.Unplug(2s, 1s);
  EXPECT_EQ(cdc.Out(kBulkOut, kSignOfLife, 2999ms).status, UsbStatus::Gone);
  EXPECT_EQ(cdc.NextDue(2s), SimTime(3s));
  EXPECT_TRUE(cdc.Connected(3s));
  EXPECT_FALSE(cdc.DtrRaised());
}

TEST(FtdiTest, PacketsCarryStatusAndKeepTheLatency) {
  Device device(OptionsFor(kFamilies[0]));
  FtdiAdapter adapter(device, {.baud = 0, .echo = true});
  EXPECT_EQ(adapter.In(kBulkIn, 64, 1s).data, (Bytes{0x01, 0x60}));
  EXPECT_EQ(adapter.In(kBulkIn, 64, 1015999us).status, UsbStatus::NotReady);
  EXPECT_EQ(adapter.NextDue(1015999us), SimTime(1016ms));
  adapter.Out(kBulkOut, kSignOfLife, 1s);  // at 9600 baud the device hears nothing, the echo comes
  EXPECT_EQ(adapter.In(kBulkIn, 64, 1016ms).data.size(), 2U + 5U);
  adapter.Control({0x40, 0x03, 0x809C, 0, 0}, {}, 1016ms);  // 3 MHz / 156.25
  EXPECT_EQ(adapter.Baud(), 19200U);
  adapter.Out(kBulkOut, kSignOfLife, 1016ms);
  EXPECT_EQ(adapter.In(kBulkIn, 512, 1032ms).data.size(), 2U + 5U + 5U);
  for (int i = 0; i < 7; ++i) adapter.Out(kBulkOut, kSignOfLife, 1033ms);  // 70 bytes come back
  EXPECT_EQ(adapter.In(kBulkIn, 64, 1041ms).data.size(), 64U) << "a full packet does not wait";
  EXPECT_EQ(adapter.In(kBulkIn, 64, 1042ms).status, UsbStatus::NotReady);
  EXPECT_EQ(adapter.In(kBulkIn, 4096, 1057ms).data.size(), 2U + 8U);
  EXPECT_EQ(adapter.Control({0xC0, 0x0A, 0, 0, 1}, {}, 2s).data, Bytes{16});
}

}  // namespace
}  // namespace tavosim
