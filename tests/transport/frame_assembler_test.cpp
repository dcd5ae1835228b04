#include "transport/frame_assembler.h"

#include <gtest/gtest.h>

#include <vector>

#include "simulator/frame.h"

namespace tavo::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

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
