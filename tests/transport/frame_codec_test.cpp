#include "transport/frame_codec.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <vector>

#include "simulator/frame.h"

namespace tavo::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

const FrameCodec& kCodec = kFrameCodecs[0];

Bytes Counting(std::size_t count) {
  Bytes bytes(count);
  std::iota(bytes.begin(), bytes.end(), std::uint8_t{1});
  return bytes;
}

TavoMessage Message(std::uint16_t id, const Bytes& payload) {
  TavoMessage message{.id = id, .length = static_cast<std::uint8_t>(payload.size())};
  std::copy(payload.begin(), payload.end(), message.payload.begin());
  return message;
}

// Into a buffer that an earlier frame has filled.
FrameBuffer Encoded(const TavoMessage& message) {
  FrameBuffer frame;
  frame.fill(0xFF);
  EXPECT_TRUE(kCodec.Encode(message, frame));
  EXPECT_TRUE(kCodec.CheckFrame(frame));
  return frame;
}

Bytes OnTheWire(const FrameBuffer& frame) {
  std::uint8_t end = 0;
  bool acceptable = false;
  EXPECT_TRUE(kCodec.ParseHeader(frame[0], &end, &acceptable) && acceptable);
  return {frame.begin(), frame.begin() + end + 1};
}

TEST(FrameCodecTest, KnownMessagesGiveKnownFrames) {
  using B = Bytes;
  EXPECT_EQ(OnTheWire(Encoded(Message(0x100, {1}))), (B{0xA4, 0x01, 0x04, 0x01, 0x36}));
  EXPECT_EQ(OnTheWire(Encoded(Message(0x120, {}))), (B{0xA3, 0x83, 0x04, 0xF9}));
  EXPECT_EQ(OnTheWire(Encoded(Message(0x120, {3, 0x40}))), (B{0xA5, 0x83, 0x04, 3, 0x40, 0x34}));
  EXPECT_EQ(OnTheWire(Encoded(Message(0x134, Counting(10)))),
            (B{0xAC, 0xD3, 0x04, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0, 0, 0, 0, 0, 0, 0x16}));
  EXPECT_EQ(Crc8(B{'1', '2', '3', '4', '5', '6', '7', '8', '9'}), 0x94);
}

TEST(FrameCodecTest, MessagesTravelAsAnotherImplementationSendsThemAndComeBackPadded) {
  for (std::uint8_t length = 0; length <= kMaxPayload; ++length) {
    const auto id = static_cast<std::uint16_t>(length * 0x1F3);  // all 16 bits, 14 of which travel
    const std::uint16_t idOnTheWire = id & 0x3FFF;
    TavoMessage message = Message(id, Counting(kMaxPayload));
    message.length = length;  // what lies behind must not travel
    const FrameBuffer frame = Encoded(message);
    EXPECT_EQ(OnTheWire(frame), tavosim::EncodeFrame({idOnTheWire, Counting(length)}));

    TavoMessage decoded = Message(0x7FFF, Counting(kMaxPayload));
    kCodec.Decode(frame, &decoded);
    EXPECT_EQ(decoded.id, idOnTheWire);
    EXPECT_EQ(decoded.length, OnTheWire(frame).size() - kFrameOverhead);
    EXPECT_EQ(decoded.payload, Message(0, Counting(length)).payload);
  }
}

TEST(FrameCodecTest, DamageIsCaught) {
  for (const std::size_t length : {0u, 1u, 8u, 10u, 32u, 64u, 128u}) {
    const FrameBuffer intact = Encoded(Message(0x134, Counting(length)));
    for (std::size_t bit = 8; bit < OnTheWire(intact).size() * 8; ++bit) {
      FrameBuffer damaged = intact;
      damaged[bit / 8] ^= static_cast<std::uint8_t>(1 << (bit % 8));
      EXPECT_FALSE(kCodec.CheckFrame(damaged)) << "payload " << length << ", bit " << bit;
    }
  }
  for (const std::uint8_t parityBit : Bytes{0x01, 0x02}) {
    FrameBuffer wrongParity = Encoded(Message(0x120, {}));
    wrongParity[1] ^= parityBit;
    wrongParity[3] = Crc8({wrongParity.data(), 3});
    EXPECT_FALSE(kCodec.CheckFrame(wrongParity)) << "a right checksum does not excuse it";
  }
}

}  // namespace
}  // namespace tavo::test
