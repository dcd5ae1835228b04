// The dialogue with a device, decoded from the bytes on the line: each request by name and fields, its
// answer by fields, and bytes that became no answer with the reason. Prints it while it runs or from a
// record, and knows which request went unanswered, or was answered too late or too short.
//
//   Dialogue dialogue([&] { return platform.MonotonicNow(); }, &machine.err);
//   Session session(machine, platform, &dialogue);
//   ...
//   dialogue.End();
//
//      0.000  > A3 83 04 F9            0x120  VERSION
//      0.012  < A5 83 04 03 10 DF      0x120    version 3, block size 16
#pragma once

#include <chrono>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "protocol/commands.h"
#include "transport/frame_assembler.h"
#include "transport/observed_transport.h"

namespace tavo::tool {

// The message in exactly one whole and undamaged frame; else none.
std::optional<TavoMessage> MessageIn(std::span<const std::uint8_t> frame);

// Help text of --trace.
inline constexpr const char* kTraceHelp =
    "Show the dialogue with the device on standard error, decoded";

// The rule for every answer.
inline constexpr const char* kAnswerInTime = "an answer comes within 4 s of its request.";

struct SentRequest {
  const Command* command = nullptr;  // null: none was sent, or it is unknown
  std::uint16_t id = 0;
  std::string text{};          // "POSITION, address 0x00008000"
  const char* rule = "";       // for the answer; a new device may not meet it
  std::uint32_t argument = 0;  // the first field; 0 without one
  std::string shortAnswer{};   // "1 of 2 bytes (version, block size)"; empty for any other
  std::chrono::milliseconds time{0};
  bool answered = false;
  std::chrono::milliseconds late{0};  // until an answer that was too late; 0: none came
};

class Dialogue final : public TransportObserver {
 public:
  using Clock = std::function<std::chrono::milliseconds()>;

  // Prints to `trace`; null: it only keeps what the questions below ask for.
  Dialogue(Clock clock, std::ostream* trace)
      : m_clock(std::move(clock)), m_trace(trace), m_begin(m_clock()) {}

  void BytesSent(bool ok, Bytes bytes) override;
  void BytesReceived(bool ok, Bytes bytes, std::chrono::milliseconds took) override;
  void Reconnected(bool ok) override;
  // A WRITE whose block a record leaves out.
  void HiddenBlockSent(bool ok, std::size_t frameBytes);
  // Nothing more will come for the last request.
  void End();
  // While the line is tested for an echo, the trace shows its bytes undecoded: none of them counts as an
  // answer.
  void TestLine(bool on) { m_testsLine = on; }

  const SentRequest& LastRequest() const { return m_last; }
  // The first request whose answer was too short for its fields, until it is answered in full; else
  // empty.
  const SentRequest& ShortlyAnswered() const { return m_shortlyAnswered; }
  // The time from a request to its answer when that came only after the next request; 0: it did not.
  std::chrono::milliseconds LateAnswerTo(const SentRequest& request) const;

 private:
  void Begin(SentRequest request, bool ok, const std::string& bytes);
  void TakeAnswer(const TavoMessage& message);
  std::string Judge(const TavoMessage& message);
  void PutReceived(const std::string& text);
  void Put(const char* direction, const std::string& bytes, const std::string& text) const;
  void Put(std::chrono::milliseconds time, const char* direction, const std::string& bytes,
           const std::string& text) const;

  Clock m_clock;
  std::ostream* m_trace;
  std::chrono::milliseconds m_begin;
  FrameAssembler m_assembler;
  std::vector<std::uint8_t> m_received;       // since the last line about received bytes
  std::chrono::milliseconds m_receivedAt{0};  // the last of them
  SentRequest m_last;
  SentRequest m_shortlyAnswered;
  std::vector<SentRequest> m_unanswered;  // in time; the last one of each id
  std::uint32_t m_position = 0;           // for the next block
  bool m_present = true;
  bool m_testsLine = false;
};

}  // namespace tavo::tool
