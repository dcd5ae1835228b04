// Cuts an incoming byte stream into frames and finds the next frame after damage.
//
//            header byte                       complete and undamaged: message handed out
//   [idle] ---------------> [receiving] ------------------------------------------------> [idle]
//      ^                      |   ^  |
//      |   4 s without a byte |   |  | complete but damaged: go on at the next header byte
//      +----------------------+   +--+ among the bytes stored, or idle when there is none
//
// Feed every byte of a batch with PutByte, then call TakeFrame once. One batch yields at most one
// message: what was stored behind a good frame is dropped with it, because the line carries one
// answer at a time and anything behind it is noise.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "transport/frame_codec.h"

namespace tavo {

class FrameAssembler {
 public:
  // The longest silence inside a frame, in milliseconds.
  static constexpr std::uint16_t kInterByteTimeoutMs = 4000;

  void PutByte(std::uint8_t byte, const FrameCodec& codec);
  std::optional<TavoMessage> TakeFrame(const FrameCodec& codec);

  // Time has passed, in milliseconds. A frame left unfinished too long is dropped.
  void Tick(std::uint16_t elapsedMs);

  // Drops a frame that has begun.
  void Reset();
  bool IsIdle() const { return m_stored == 0; }

  // The bytes that became no message since ForgetRefused, those of an unfinished frame included. A
  // message that nobody awaits is refused by the caller.
  RefusedBytes Refused() const;
  void Refuse(const TavoMessage& message, std::uint16_t awaitedId);
  void ForgetRefused() { m_refused = {}; }

 private:
  void Resynchronise(const FrameCodec& codec, RefusalReason reason);
  void Drop(std::size_t bytes, RefusalReason reason);

  FrameBuffer m_buffer{};
  std::size_t m_stored = 0;  // 0 = idle: a frame that has begun holds at least its header
  std::uint8_t m_frameEnd = 0;
  std::uint16_t m_interByteTimerMs = kInterByteTimeoutMs;
  RefusedBytes m_refused;
  // The reason to refuse the stored bytes: those behind a damaged frame are most likely its rest.
  RefusalReason m_ifUnfinished = RefusalReason::TooShort;
};

}  // namespace tavo
