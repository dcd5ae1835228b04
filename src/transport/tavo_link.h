// The link: queues requests, turns them into frames, matches answers to requests and reports when
// one does not come in time. Bytes and elapsed time are handed to it and bytes taken from it; it
// never touches a device or a clock.
//
// The road of one request:
//
//   Enqueue --> [queued, 5 s] --LinkService--> [in the transmit buffer, answer awaited, 4 s]
//                    |                              |  TakeTransmitBytes: on the line
//                    | 5 s                          |
//                    v                       4 s    v answer with the same id
//              timeout marker <---------------------+----> message
//
// Both ends of the road lie in the ResponseList, from which TakeResponse hands them out in order.
// One request is on the line at a time: the next one waits until the answer has come or its time is
// up, and while a frame is being received.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>

#include "transport/frame_assembler.h"
#include "transport/frame_codec.h"
#include "transport/tavo_message.h"

namespace tavo {

// An answer, or none for a request whose time is up.
using Response = std::optional<TavoMessage>;

class TavoLink {
 public:
  static constexpr std::size_t kQueueSlots = 8;
  static constexpr std::uint16_t kAnswerTimeoutMs = 4000;
  static constexpr std::uint16_t kQueueTimeoutMs = 5000;

  // Clears everything but the ResponseList and the refused bytes: nothing queued, sent, awaited or half
  // received; frame format 0.
  void Reset();

  // Formats other than 0 do not exist; asking for one changes nothing.
  void SetFrameFormat(std::uint8_t format);
  std::uint8_t GetFrameFormat() const { return m_frameFormat; }

  // False when all slots are taken. The payload must not be longer than a message holds.
  bool Enqueue(const TavoMessage& message);

  // Finishes a received frame, then starts the next queued one when the line is free.
  void LinkService();

  // The bytes of the frame that has been started and not yet been handed out; often none. Valid
  // until the next LinkService.
  std::span<const std::uint8_t> TakeTransmitBytes();

  // Received bytes, one batch.
  void Feed(std::span<const std::uint8_t> bytes);

  // Time has passed, in milliseconds: advances every timer.
  void LinkTick(std::uint16_t elapsedMs);

  bool HasResponse() const { return !m_responseList.empty(); }
  // The oldest response; call it only when HasResponse.
  Response TakeResponse();
  void DropResponses() { m_responseList.clear(); }

  // The bytes received since the last request began that became no answer.
  RefusedBytes Refused() const { return m_assembler.Refused(); }

  // Nothing queued, awaited or half received: the next request goes out at once.
  bool IsQuiet() const;

 private:
  //         StartNextRequest        TakeTransmitBytes
  //   Free ------------------> Framed --------------> Awaited
  //    ^                       |    |                  |
  //    |            4 s        |    | answer           | answer, 4 s
  //    +-----------------------+    v                  |
  //    |                         Answered              |
  //    |   TakeTransmitBytes, 4 s   |                  |
  //    +----------------------------+------------------+
  //
  // The end of an awaited answer, whether it comes or not, reaches the ResponseList.
  enum class Line {
    Free,      // no request is under way; the next one starts when no frame is half received
    Framed,    // its frame is in the transmit buffer and the answer awaited
    Awaited,   // its frame has been handed out and the answer is awaited
    Answered,  // a late answer with its id came before its frame was handed out
  };

  struct QueuedRequest {
    TavoMessage message;
    std::uint16_t queueTimerMs;
  };

  const FrameCodec& Codec() const { return kFrameCodecs[m_frameFormat]; }
  bool AnswerIsAwaited() const { return m_line == Line::Framed || m_line == Line::Awaited; }
  void Become(Line next);
  void StartNextRequest();
  void RemoveQueued(std::size_t slot);
  void TickQueue(std::uint16_t elapsedMs);
  void TickLine(std::uint16_t elapsedMs);
  void PushResponse(const Response& response);

  std::uint8_t m_frameFormat = 0;

  Line m_line = Line::Free;
  std::uint16_t m_lineTimerMs = 0;   // until 4 s after the request was framed
  std::uint16_t m_expectedId = 0;    // of the answer
  FrameBuffer m_transmitBuffer{};    // while Framed or Answered
  std::size_t m_transmitLength = 0;  // bytes of it

  FrameAssembler m_assembler;

  std::array<QueuedRequest, kQueueSlots> m_transmitQueue{};
  std::size_t m_queued = 0;

  std::deque<Response> m_responseList;
};

}  // namespace tavo
