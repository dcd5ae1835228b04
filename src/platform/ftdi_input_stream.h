// The input of an open FTDI adapter, without the status bytes that open each of its packets.
//
// One bulk-in transfer is always in flight, so looking for bytes never blocks: the owner lets the
// USB library deliver, the transfer's end arrives in Ended, and the bytes wait in a queue. This
// class touches no device and no clock.
//
//   FtdiInputStream stream(transfer, packetSize);
//   if (!stream.Start()) ...
//   stream.Ended(completed, bytes);          // from the USB library's callback
//   const std::uint32_t count = stream.Read(buffer);
//   stream.Stop();                           // then deliver events until !stream.InFlight()
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>

namespace tavo {

// The transfer, call for call.
class BulkInTransfer {
 public:
  virtual ~BulkInTransfer() = default;
  // True: the transfer is in flight and its end will be reported to the stream.
  virtual bool Submit() = 0;
  virtual void Cancel() = 0;
};

class FtdiInputStream {
 public:
  // Bytes kept for a caller that does not read; beyond that the adapter has to keep the rest. One
  // transfer may exceed it.
  static constexpr std::size_t kQueueBound = 4096;

  // The adapter opens every packet with its modem and line status.
  static constexpr std::size_t kPacketStatusBytes = 2;

  // `transfer` must outlive the stream. `packetSize` in bytes, status included.
  FtdiInputStream(BulkInTransfer& transfer, std::size_t packetSize);
  FtdiInputStream(const FtdiInputStream&) = delete;
  FtdiInputStream& operator=(const FtdiInputStream&) = delete;

  // Submits the first transfer; false when that fails.
  bool Start();

  // Cancels the transfer; afterwards none is submitted, even if it completed first.
  void Stop();

  // The transfer in flight has ended with these bytes, whole packets but for the last. Never throws.
  void Ended(bool completed, std::span<const std::uint8_t> bytes) noexcept;

  bool InFlight() const { return m_state == State::InFlight || m_state == State::Stopping; }
  bool Failed() const { return m_state == State::Failed; }
  std::uint32_t Waiting() const { return static_cast<std::uint32_t>(m_queue.size()); }

  // Moves the oldest bytes into `buffer`, as many as there are; returns their number.
  std::uint32_t Read(std::span<std::uint8_t> buffer);

 private:
  //                         queue full
  //   Idle --Start--> InFlight -------> HeldBack
  //                   | ^   ^              | Read makes room
  //                   | |   +--------------+
  //   room in queue:  +-+
  //
  //   InFlight --Stop--> Stopping --Ended--> Failed
  //   InFlight --Ended without success, or not submitted--> Failed
  enum class State {
    Idle,      // before Start
    InFlight,  // a transfer is under way; Ended or Stop ends it
    HeldBack,  // the queue is full; Read ends it
    Stopping,  // the cancelled transfer is still under way; Ended ends it
    Failed,    // nothing is submitted any more
  };

  void Append(std::span<const std::uint8_t> bytes);
  void SubmitIfRoom();
  void Submit();

  BulkInTransfer& m_transfer;
  const std::size_t m_packetSize;
  std::deque<std::uint8_t> m_queue;
  State m_state = State::Idle;
};

}  // namespace tavo
