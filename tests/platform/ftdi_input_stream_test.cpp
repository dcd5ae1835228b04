#include "platform/ftdi_input_stream.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

namespace tavo::test {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kPacket = 64;
constexpr std::uint8_t kModemStatus = 0xA1;  // also a frame's header byte
constexpr std::uint8_t kLineStatus = 0x60;

struct FakeTransfer : BulkInTransfer {
  bool submits = true;
  int submitted = 0;
  int cancelled = 0;
  int halts = 0;  // cleared

  bool Submit() override { return ++submitted > 0 && submits; }
  void Cancel() override { ++cancelled; }
  void ClearHalt() override { ++halts; }
};

class FtdiInputStreamTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(m_stream.Start()); }

  // The transfer ends with these data bytes in as many packets as they take.
  void Arrives(Bytes data) {
    for (std::size_t at = 0; at <= data.size(); at += kPacket) {
      data.insert(data.begin() + static_cast<std::ptrdiff_t>(at), {kModemStatus, kLineStatus});
    }
    m_stream.Ended(TransferEnd::Completed, data);
  }
  Bytes Read(std::size_t capacity) {
    Bytes buffer(capacity);
    buffer.resize(m_stream.Read(buffer));
    return buffer;
  }
  static Bytes Counting(std::size_t count) {
    Bytes bytes(count);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{0});
    return bytes;
  }

  FakeTransfer m_transfer;
  FtdiInputStream m_stream{m_transfer, kPacket};
};

TEST_F(FtdiInputStreamTest, DeliversTheDataOfEveryPacketWithoutItsStatus) {
  Bytes expected;
  for (const std::size_t count : {0U, 1U, 61U, 62U, 63U, 124U, 200U}) {
    const Bytes data = Counting(count);
    Arrives(data);
    expected.insert(expected.end(), data.begin(), data.end());
    EXPECT_EQ(m_stream.Waiting(), expected.size());
  }
  m_stream.Ended(TransferEnd::Completed, Bytes{kModemStatus});  // half a status
  EXPECT_EQ(Read(100), Bytes(expected.begin(), expected.begin() + 100));
  EXPECT_EQ(Read(1000), Bytes(expected.begin() + 100, expected.end()));
  EXPECT_EQ(Read(1000), Bytes{});
  EXPECT_EQ(m_transfer.submitted, 9) << "one after the other, always one in flight";
}

TEST_F(FtdiInputStreamTest, HoldsTheNextTransferBackWhileTheQueueIsFull) {
  int transfers = 1;
  for (; m_stream.InFlight() && transfers < 100; ++transfers) Arrives(Counting(248));
  EXPECT_EQ(transfers - 1, 17) << "17 x 248 bytes pass 4096";
  EXPECT_EQ(m_transfer.submitted, transfers - 1);
  EXPECT_FALSE(m_stream.Failed());
  Read(17 * 248 - FtdiInputStream::kQueueBound);
  EXPECT_FALSE(m_stream.InFlight());
  Read(1);
  EXPECT_TRUE(m_stream.InFlight());
  EXPECT_EQ(m_transfer.submitted, transfers);
}

TEST_F(FtdiInputStreamTest, StopsOnceAndForAll) {
  FakeTransfer transfer;
  FtdiInputStream unplugged(transfer, kPacket);
  EXPECT_TRUE(unplugged.Start());
  unplugged.Ended(TransferEnd::Final, {});
  EXPECT_TRUE(unplugged.Failed());
  unplugged.Resume(0s);
  unplugged.Resume(1h);
  EXPECT_EQ(transfer.submitted, 1);

  Arrives({1, 2, 3});
  m_stream.Stop();
  m_stream.Stop();
  EXPECT_EQ(m_transfer.cancelled, 1);
  EXPECT_TRUE(m_stream.InFlight()) << "until the USB library gives the transfer back";
  Arrives({4});  // it had completed already
  EXPECT_FALSE(m_stream.InFlight());
  EXPECT_EQ(Read(10), (Bytes{1, 2, 3}));
  EXPECT_EQ(m_transfer.submitted, 2);
}

TEST(FtdiInputStream, FailsWithoutATransferOrWithoutRoomForData) {
  FakeTransfer transfer;
  FtdiInputStream statusOnly(transfer, 2);
  EXPECT_FALSE(statusOnly.Start());
  EXPECT_EQ(transfer.submitted, 0);
  transfer.submits = false;
  FtdiInputStream stream(transfer, kPacket);
  EXPECT_FALSE(stream.Start());
  EXPECT_TRUE(stream.Failed());
}

TEST_F(FtdiInputStreamTest, SubmitsAgainAfterAPauseWhenATransferHasFailed) {
  std::chrono::milliseconds now = 5s;
  int submitted = m_transfer.submitted;
  for (const TransferEnd end : {TransferEnd::Failed, TransferEnd::Stalled, TransferEnd::Failed}) {
    m_stream.Ended(end, Bytes{kModemStatus, kLineStatus, 7});
    EXPECT_EQ(Read(10), Bytes{7}) << "the bytes that came all the same";
    m_stream.Resume(now);
    m_stream.Resume(now += FtdiInputStream::kPause - 1ms);
    EXPECT_FALSE(m_stream.InFlight());
    m_stream.Resume(now += 1ms);
    EXPECT_TRUE(m_stream.InFlight());
    EXPECT_EQ(m_transfer.submitted, ++submitted);
  }
  EXPECT_EQ(m_transfer.halts, 1) << "of the stalled endpoint";
  EXPECT_FALSE(m_stream.Failed());
}

TEST_F(FtdiInputStreamTest, GivesUpOnALineThatOnlyFails) {
  std::chrono::milliseconds now = 0s;
  // Every second time the transfer cannot even be submitted.
  const auto fails = [&](int times) {
    for (int failure = 0; failure < times; ++failure) {
      if (m_stream.InFlight()) m_stream.Ended(TransferEnd::Failed, {});
      m_transfer.submits = failure % 2 == 0;
      m_stream.Resume(now);
      m_stream.Resume(now += FtdiInputStream::kPause);
    }
  };
  fails(FtdiInputStream::kMaxFailures - 1);
  ASSERT_TRUE(m_stream.InFlight());
  Arrives({1});
  fails(FtdiInputStream::kMaxFailures - 1);
  EXPECT_TRUE(m_stream.InFlight()) << "a success starts the count anew";
  fails(2);
  EXPECT_TRUE(m_stream.Failed());
  EXPECT_EQ(Read(10), Bytes{1}) << "the bytes that came before are still delivered";
}

}  // namespace
}  // namespace tavo::test
