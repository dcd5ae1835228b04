#include "transport/frame_assembler.h"

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

// --- the assembler ---

Bytes Frame(std::uint16_t id, std::size_t payload = 0) {
  return tavosim::EncodeFrame({id, Bytes(payload, 0x11)});
}

Bytes operator+(Bytes first, const Bytes& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

class FrameAssemblerTest : public testing::Test {
 protected:
  // The identifier of the message that this batch completes, or -1.
  int Batch(const Bytes& batch) {
    for (const std::uint8_t byte : batch) m_assembler.PutByte(byte, kFrameCodecs[0]);
    const auto message = m_assembler.TakeFrame(kFrameCodecs[0]);
    return message ? message->id : -1;
  }
  std::vector<int> ByteByByte(const Bytes& bytes) {
    std::vector<int> ids;
    for (const std::uint8_t byte : bytes) {
      if (const int id = Batch({byte}); id >= 0) ids.push_back(id);
    }
    return ids;
  }

  FrameAssembler m_assembler;
};

TEST_F(FrameAssemblerTest, BytesThatAreNoFrameAreDroppedAndTheNextFrameIsReceived) {
  EXPECT_EQ(Batch(Bytes{0x00, 0x0A, 0x9F, 0xB0, 0xFF} + Frame(0x120)), 0x120) << "no header byte";
  EXPECT_EQ(m_assembler.Refused().Count(RefusalReason::NoHeader), 5U);
  const std::pair<Bytes, RefusalReason> kRows[] = {
      {{0xA3, 0x83, 0x04, 0xF8}, RefusalReason::Checksum},
      {{0xA4, 0x01, 0x05, 0x01, 0xE5}, RefusalReason::Parity},
      {{0xA0}, RefusalReason::TooShort},
      {{0xA1, 0}, RefusalReason::TooShort},
      {{0xA2, 0xA0, 0xA3}, RefusalReason::TooShort}};
  for (const auto& [bytes, reason] : kRows) {
    m_assembler.ForgetRefused();
    EXPECT_EQ(Batch(bytes), -1);
    EXPECT_TRUE(m_assembler.IsIdle());
    EXPECT_EQ(m_assembler.Refused().Count(reason), bytes.size());
    EXPECT_EQ(m_assembler.Refused().Total(), bytes.size());
  }
  EXPECT_EQ(Batch(Frame(0x121) + Bytes{1, 2}), 0x121);
  EXPECT_EQ(m_assembler.Refused().Count(RefusalReason::Behind), 2U);
  m_assembler.ForgetRefused();
  EXPECT_EQ(Batch(Bytes{0xAF} + Bytes(300, 0xFF)), -1) << "more than the longest frame";
  EXPECT_EQ(m_assembler.Refused().Count(RefusalReason::Behind), 301 - kMaxFrame);
}

TEST_F(FrameAssemblerTest, AfterALostByteAssemblyGoesOnAtTheNextHeader) {
  const Bytes bytes = Bytes{0xA4, 0x01, 0x04, 0x01} + Frame(0x121, 2);
  EXPECT_EQ(ByteByByte(bytes), std::vector{0x121});
  EXPECT_EQ(Batch(bytes), -1) << "one frame is examined per batch";
  EXPECT_EQ(Batch({}), 0x121);
  EXPECT_EQ(ByteByByte(Bytes{0xA5} + Frame(0x122, 8)), std::vector{0x122}) << "a stray header";
}

TEST_F(FrameAssemblerTest, AnUnfinishedFrameIsDroppedAfterFourSecondsOfSilence) {
  const Bytes frame = Frame(0x120, 2);
  for (const bool inTime : {true, false}) {
    m_assembler.Tick(0xFFFF);  // silence before a frame does not count
    Batch({frame[0], frame[1]});
    m_assembler.Tick(3999);
    Batch({frame[2], frame[3], frame[4]});
    m_assembler.Tick(3000);
    m_assembler.Tick(inTime ? 999 : 1000);
    EXPECT_EQ(Batch({frame[5]}), inTime ? 0x120 : -1);
  }
  EXPECT_EQ(m_assembler.Refused().Count(RefusalReason::TooShort), 5U);
}

}  // namespace
}  // namespace tavo::test
