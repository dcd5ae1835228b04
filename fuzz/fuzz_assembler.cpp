// Any bytes in any cuts. The input is a row of batches: a length and as many bytes; a length of 0
// lets time pass instead, the next byte times 64 ms.
#include <algorithm>
#include <span>

#include "fuzz/expect.h"
#include "transport/frame_assembler.h"

namespace tavo::fuzz {
namespace {

void CheckMessage(const TavoMessage& message) {
  const FrameCodec& codec = kFrameCodecs[0];
  FrameBuffer frame{};
  Expect(codec.Encode(message, frame), "a received message can be sent");
  Expect(codec.CheckFrame(frame), "its frame is good");
  TavoMessage again;
  codec.Decode(frame, &again);
  Expect(
      again.id == message.id && again.length == message.length && again.payload == message.payload,
      "its frame says the same");
}

}  // namespace
}  // namespace tavo::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
  const tavo::FrameCodec& codec = tavo::kFrameCodecs[0];
  tavo::FrameAssembler assembler;
  for (std::span rest(input, size); rest.size() >= 2;) {
    const std::size_t length = std::min<std::size_t>(rest[0], rest.size() - 1);
    for (const std::uint8_t byte : rest.subspan(1, length)) assembler.PutByte(byte, codec);
    if (length == 0) assembler.Tick(static_cast<std::uint16_t>(rest[1] * 64));
    if (const auto message = assembler.TakeFrame(codec)) tavo::fuzz::CheckMessage(*message);
    rest = rest.subspan(length == 0 ? 2 : 1 + length);
  }
  return 0;
}
