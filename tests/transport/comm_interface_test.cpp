#include "transport/i_comm_interface.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <string>
#include <vector>

#include "simulator/frame.h"
#include "tests/support/raw_read.h"
#include "tests/support/virtual_platform.h"

namespace tavo::test {
namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using Bytes = std::vector<std::uint8_t>;

const std::string kIoError = "DBG  CommInterface: SendTavoMessage: I/O Error.\n";

// A line whose reads are scripted; each read takes `readTakes` of the clock's time.
class ScriptedTransport : public ICommInterface {
 public:
  using ICommInterface::ICommInterface;

  std::vector<Bytes> sent;  // one entry per hand-over
  std::deque<Bytes> input;  // one entry per read
  Bytes endlessInput{};     // when `input` is used up
  bool sendFails = false;
  bool readFails = false;
  int reconnects = 0;
  milliseconds readTakes{0};

  std::vector<CCommDevDesc>* EnumerateDevices() override { return nullptr; }
  bool Open(std::uint32_t /*deviceRef*/) override { return true; }
  bool IsOpen() override { return true; }
  void Close() override {}
  bool Reconnect() override { return ++reconnects < 0; }

  bool SendRawData(const std::uint8_t* data, std::int32_t length) override {
    sent.emplace_back(data, data + length);
    return !sendFails && ICommInterface::SendRawData(data, length);
  }
  bool ReceiveRawData(std::uint8_t* buffer, std::int32_t* length) override {
    m_platform.Sleep(readTakes);
    if (readFails) return false;
    const Bytes bytes = input.empty() ? endlessInput : input.front();
    if (!input.empty()) input.pop_front();
    EXPECT_LE(std::ssize(bytes), *length);
    std::copy(bytes.begin(), bytes.end(), buffer);
    *length = static_cast<std::int32_t>(bytes.size());
    return ICommInterface::ReceiveRawData(buffer, length);
  }
};

enum class Polled { Nothing, Answer, TimedOut };

class CommInterfaceTest : public testing::Test {
 protected:
  void SetUp() override { Poll(); }  // timers run from the first poll on

  bool Request(std::uint32_t id, const Bytes& payload = {}) {
    return m_transport.SendTavoMessage(1, 0, id, payload.data(),
                                       static_cast<std::int32_t>(payload.size()));
  }
  static Bytes Frame(std::uint16_t id, const Bytes& payload = {}) {
    return tavosim::EncodeFrame({id, payload});
  }
  void DeviceSends(const Bytes& bytes) { m_transport.input.push_back(bytes); }
  void DeviceAnswers(std::uint16_t id) { DeviceSends(Frame(id, {7, 8})); }

  Polled Poll() {
    bool timedOut = false;
    if (!m_transport.ReceiveTavoMessage(&m_answer, &timedOut)) return Polled::Nothing;
    return timedOut ? Polled::TimedOut : Polled::Answer;
  }
  Polled PollAfter(milliseconds pause) {
    m_platform.Advance(pause);
    return Poll();
  }
  // Nothing before `timeout` since the last poll, then one timeout; steps below 10 ms only add up.
  void ExpectTimeoutAfter(milliseconds timeout) {
    EXPECT_EQ(PollAfter(timeout - 1ms), Polled::Nothing);
    EXPECT_EQ(PollAfter(9ms), Polled::Nothing);
    EXPECT_EQ(PollAfter(1ms), Polled::TimedOut);
    EXPECT_EQ(PollAfter(10ms), Polled::Nothing);
  }

  // The bytes that a read of these delivers.
  Bytes Received(const Bytes& bytes) {
    DeviceSends(bytes);
    return ReadFrom(m_transport).bytes;
  }

  template <typename Result>
  milliseconds TimeFor(Result (ICommInterface::*operation)()) {
    m_transport.readTakes = 1ms;
    const milliseconds start = m_platform.MonotonicNow();
    (m_transport.*operation)();
    m_transport.readTakes = 0ms;
    return m_platform.MonotonicNow() - start;
  }

  VirtualPlatform m_platform;
  Logger m_log{m_platform};
  TavoLink m_link;
  ScriptedTransport m_transport{m_link, m_platform, m_log};
  TavoMessage m_answer;
};

TEST_F(CommInterfaceTest, ARequestGoesOutAsAFrameAndItsAnswerComesBackOnce) {
  EXPECT_TRUE(Request(0x120, {3, 0x40}));
  EXPECT_EQ(m_transport.sent.back(), Frame(0x120, {3, 0x40}));
  EXPECT_EQ(Poll(), Polled::Nothing);
  DeviceAnswers(0x121);  // the answer to another request
  EXPECT_EQ(Poll(), Polled::Nothing);
  EXPECT_EQ(m_transport.Refused().Count(RefusalReason::Unawaited), 6U);
  DeviceAnswers(0x120);
  ASSERT_EQ(Poll(), Polled::Answer);
  EXPECT_EQ(m_answer.id, 0x120);
  EXPECT_EQ(m_answer.length, 2);
  EXPECT_EQ(m_answer.payload[1], 8);
  EXPECT_EQ(PollAfter(5s), Polled::Nothing);

  EXPECT_TRUE(m_transport.SendTavoMessage(1, 0, 0x120, nullptr, 3));
  EXPECT_EQ(m_transport.sent.back(), Frame(0x120, {0, 0, 0})) << "no data: zeros";
}

TEST_F(CommInterfaceTest, WithoutAnAnswerTheTimeIsUpAfterFourSeconds) {
  EXPECT_TRUE(Request(0x120));
  ExpectTimeoutAfter(4000ms);
  m_transport.sendFails = true;
  EXPECT_FALSE(Request(0x121)) << "awaited even so";
  EXPECT_TRUE(m_platform.Console().ends_with(kIoError));
  ExpectTimeoutAfter(4000ms);
}

TEST_F(CommInterfaceTest, OnlyPausesOfOursAndWorkBeforeARequestAreLeftOut) {
  m_platform.Advance(3s);
  Request(0x120);
  EXPECT_EQ(PollAfter(3990ms), Polled::Nothing);
  EXPECT_EQ(PollAfter(10ms), Polled::TimedOut);
  Request(0x120);
  m_platform.Advance(6s);
  m_transport.LeaveOutPause();
  EXPECT_EQ(Poll(), Polled::Nothing);
  EXPECT_EQ(PollAfter(200 * 65536ms + 20ms), Polled::TimedOut) << "hours, not 20 ms";
}

TEST_F(CommInterfaceTest, ASecondRequestWaitsInTheQueueForFiveSeconds) {
  Request(0x120);
  EXPECT_TRUE(Request(0x121));
  EXPECT_EQ(m_transport.sent.back(), Bytes{});
  EXPECT_EQ(PollAfter(4s), Polled::TimedOut) << "the first";
  EXPECT_EQ(PollAfter(1s), Polled::TimedOut) << "the second";

  Request(0x120);
  Request(0x121);
  DeviceAnswers(0x120);  // the second could go now, but only a third would take it along
  Poll();
  EXPECT_EQ(PollAfter(4s), Polled::TimedOut) << "its frame is abandoned";
  Request(0x122);
  EXPECT_EQ(m_transport.sent.back(), Frame(0x122));
}

TEST_F(CommInterfaceTest, EightRequestsWaitAndGoOutInTheirOrder) {
  for (std::uint32_t id = 0; id <= 8; ++id) EXPECT_TRUE(Request(id));
  EXPECT_EQ(m_platform.Console(), "");
  EXPECT_FALSE(Request(0x100));
  EXPECT_TRUE(m_platform.Console().ends_with(kIoError));
  for (std::uint16_t id = 0; id < 8;) {
    DeviceAnswers(id);
    EXPECT_EQ(Poll(), Polled::Nothing) << "not the answer to the request made last";
    EXPECT_TRUE(Request(0x100));
    EXPECT_EQ(m_transport.sent.back(), Frame(++id));
  }
}

TEST_F(CommInterfaceTest, ImpossibleRequestsAreRefusedAndNothingIsSent) {
  const Bytes data(129);
  EXPECT_FALSE(m_transport.SendTavoMessage(0, 0, 0x120, data.data(), 1));
  EXPECT_FALSE(m_transport.SendTavoMessage(1, 0, 0x120, data.data(), 129));
  EXPECT_FALSE(m_transport.SendTavoMessage(1, 0, 0x120, data.data(), -1));
  EXPECT_TRUE(m_platform.Console().ends_with("SendTavoMessage: Queue full.\n"));
  EXPECT_FALSE(m_transport.SendTavoMessage(1, 1, 0x120, data.data(), 1));
  EXPECT_TRUE(m_platform.Console().ends_with(kIoError));
  EXPECT_TRUE(m_transport.sent.empty());
  EXPECT_EQ(PollAfter(10s), Polled::Nothing) << "nothing was queued either";
}

TEST_F(CommInterfaceTest, TheEchoIsStrippedFromWhatComesBack) {
  m_transport.SetEcho(true);
  const Bytes twelve(12, 0xEE);
  m_transport.SendRawData(twelve.data(), 12);
  EXPECT_EQ(Received({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}), (Bytes{13, 14, 15}));
  m_transport.SendRawData(twelve.data(), 12);
  EXPECT_EQ(Received({1, 2, 3, 4, 5}), Bytes{});
  EXPECT_EQ(Received({6, 7, 8, 9, 10, 11, 12, 13}), Bytes{13});
  EXPECT_EQ(Received({14}), Bytes{14});
  Request(0x120);
  EXPECT_EQ(PollAfter(4s), Polled::TimedOut);
  EXPECT_EQ(Received({1, 2}), (Bytes{1, 2})) << "an echo that never came eats no later answer";
}

TEST_F(CommInterfaceTest, AVanishedDeviceIsLookedForAtAPaceAndTheTimeoutStillComes) {
  Request(0x120);
  m_transport.readFails = true;
  int polls = 1;
  while (Poll() == Polled::Nothing && polls < 1000) ++polls;
  EXPECT_GE(m_platform.MonotonicNow(), 4000ms);
  EXPECT_LE(m_platform.MonotonicNow(), 4500ms);
  EXPECT_EQ(m_transport.reconnects, polls);
  EXPECT_LE(polls, 20);
}

TEST_F(CommInterfaceTest, NothingOfAnEarlierUpdateIsLeftAfterDiscarding) {
  m_transport.SetEcho(true);
  Request(0x120);
  Request(0x121);
  EXPECT_EQ(PollAfter(10s), Polled::TimedOut);  // one more is in store
  Request(0x100);
  for (int read = 0; read < 5; ++read) DeviceAnswers(0x130);
  DeviceSends({});  // a short silence is not the end of the input
  DeviceAnswers(0x130);
  m_transport.SendRawData(m_answer.payload.data(), 100);
  m_platform.Advance(1h);

  m_transport.DiscardLeftovers();
  EXPECT_EQ(Received({1, 2}), (Bytes{1, 2})) << "no echo is expected any more";
  EXPECT_TRUE(Request(0x130));
  EXPECT_EQ(m_transport.sent.back(), Frame(0x130));
  EXPECT_EQ(Poll(), Polled::Nothing);
  ExpectTimeoutAfter(4000ms);
}

TEST_F(CommInterfaceTest, EndlessInputDoesNotBlockForever) {
  m_transport.endlessInput = {0xA3};
  EXPECT_LE(TimeFor(&ICommInterface::DiscardLeftovers), 1s);
  Poll();
  EXPECT_LE(TimeFor(&ICommInterface::WaitUntilQuiet), 15s);
  m_transport.endlessInput.clear();
  Request(0x120);
  EXPECT_EQ(m_transport.sent.back(), Frame(0x120));
}

TEST_F(CommInterfaceTest, HalfAFrameKeepsTheLineBusyForFourSeconds) {
  EXPECT_EQ(TimeFor(&ICommInterface::WaitUntilQuiet), 0ms) << "quiet already";
  DeviceSends({0xAF, 0x83});
  Poll();
  EXPECT_TRUE(Request(0x120));
  EXPECT_EQ(m_transport.sent.back(), Bytes{}) << "waits in the queue";
  ExpectTimeoutAfter(5000ms);
  DeviceSends({0xAF, 0x83});
  Poll();
  EXPECT_LE(TimeFor(&ICommInterface::WaitUntilQuiet), 4100ms);
  Request(0x120);
  EXPECT_EQ(m_transport.sent.back(), Frame(0x120));
  DeviceSends({});
  DeviceAnswers(0x120);
  EXPECT_LE(TimeFor(&ICommInterface::WaitUntilQuiet), 100ms);
  EXPECT_EQ(Poll(), Polled::Nothing) << "the answer is dropped";
}

}  // namespace
}  // namespace tavo::test
