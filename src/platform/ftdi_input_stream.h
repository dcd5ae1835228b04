// The input of an open FTDI adapter, without the status bytes that open each of its packets.
//
// One bulk-in transfer is always in flight, so looking for bytes never blocks: the owner lets the
// USB library deliver, the transfer's end arrives in Ended, and the bytes wait in a queue. A glitch
// on the line ends a transfer but not the stream: after a pause the transfer is submitted again, up
// to a bound of failures in a row. This class touches no device and no clock.
//
//   FtdiInputStream stream(transfer, packetSize);
//   if (!stream.Start()) ...
//   stream.Ended(TransferEnd::Completed, bytes);  // from the USB library's callback
//   stream.Resume(now);                           // at every look for bytes
//   const std::uint32_t count = stream.Read(buffer);
//   stream.Stop();                           // then deliver events until !stream.InFlight()
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>

namespace tavo {

// The transfer, call for call.
class BulkInTransfer {
 public:
  virtual ~BulkInTransfer() = default;
  // True: the transfer is in flight and its end will be reported to the stream.
  virtual bool Submit() = 0;
  virtual void Cancel() = 0;
  // Makes an endpoint that has stalled usable again. May block; not for the callback.
  virtual void ClearHalt() = 0;
};

enum class TransferEnd {
  Completed,
  Failed,   // a glitch; the next transfer may complete
  Stalled,  // the same, after ClearHalt
  Final,    // cancelled, or the device is gone
};

class FtdiInputStream {
 public:
  // Bytes kept for a caller that does not read; beyond that the adapter has to keep the rest. One
  // transfer may exceed it.
  static constexpr std::size_t kQueueBound = 4096;

  // The adapter opens every packet with its modem and line status.
  static constexpr std::size_t kPacketStatusBytes = 2;

  // After a failure: long enough to leave processor and bus alone, short against the 4 s that an
  // answer may take. Meanwhile the adapter keeps what arrives.
  static constexpr std::chrono::milliseconds kPause{100};

  // Failures in a row after which the line counts as dead: none of an answer's time is left.
  static constexpr int kMaxFailures = 40;

  // `transfer` must outlive the stream. `packetSize` in bytes, status included.
  FtdiInputStream(BulkInTransfer& transfer, std::size_t packetSize);
  FtdiInputStream(const FtdiInputStream&) = delete;
  FtdiInputStream& operator=(const FtdiInputStream&) = delete;

  // Submits the first transfer; false when that fails.
  bool Start();

  // Cancels the transfer; afterwards none is submitted, even if it completed first.
  void Stop();

  // The transfer in flight has ended with these bytes, whole packets but for the last. Never throws.
  void Ended(TransferEnd end, std::span<const std::uint8_t> bytes) noexcept;

  // Submits a failed transfer again once its pause is over. `now` is any clock that never goes back.
  void Resume(std::chrono::milliseconds now);

  bool InFlight() const { return m_state == State::InFlight || m_state == State::Stopping; }
  bool Failed() const { return m_state == State::Failed; }
  // For a pause after a failure, or for good.
  bool Interrupted() const { return Failed() || m_state == State::Pausing; }
  std::uint32_t Waiting() const { return static_cast<std::uint32_t>(m_queue.size()); }

  // Moves the oldest bytes into `buffer`, as many as there are; returns their number.
  std::uint32_t Read(std::span<std::uint8_t> buffer);

 private:
  //                            queue full
  //   Idle --Start--> InFlight ----------> HeldBack
  //                   ^  | ^ ^                |
  //                   |  | | +----------------+  Read makes room
  //   room in queue   +--+ |
  //                      | | Resume, the pause is over
  //              failed  v |
  //                     Pausing
  //
  //   InFlight --Stop--> Stopping --Ended--> Failed
  //   InFlight, Pausing --final end, or too many failures--> Failed
  enum class State {
    Idle,      // before Start
    InFlight,  // a transfer is under way; Ended or Stop ends it
    HeldBack,  // the queue is full; Read ends it
    Pausing,   // the last transfer has failed; Resume ends it
    Stopping,  // the cancelled transfer is still under way; Ended ends it
    Failed,    // nothing is submitted any more
  };

  void Append(std::span<const std::uint8_t> bytes);
  void SubmitIfRoom();
  void Submit();
  void PauseAfterFailure();

  BulkInTransfer& m_transfer;
  const std::size_t m_packetSize;
  std::deque<std::uint8_t> m_queue;
  State m_state = State::Idle;
  int m_failures = 0;  // in a row
  bool m_stalled = false;
  std::optional<std::chrono::milliseconds> m_resumeAt;  // none: no Resume since the failure
};

}  // namespace tavo
