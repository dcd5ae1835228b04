// Any bytes in any cuts. The input is a row of batches: a length and as many bytes, which are sent as
// they are or, as the checksum of a frame is hard to guess, as the content of a good one. A length of 0
// lets time pass instead, the next byte times 64 ms.
#include "fuzz/input.h"
#include "simulator/frame.h"
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

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const tavo::FrameCodec& codec = tavo::kFrameCodecs[0];
  tavo::FrameAssembler assembler;
  for (tavo::fuzz::Input input(bytes, size); !input.empty();) {
    const std::uint32_t length = tavo::fuzz::TakeNumber(input, 1);
    const bool framed = length >= 0x80;
    const tavo::fuzz::Input content = tavo::fuzz::Take(input, length % 0x80);
    std::vector<std::uint8_t> batch(content.begin(), content.end());
    if (framed) batch = tavosim::EncodeFrame({0x120, batch});
    for (const std::uint8_t byte : batch) assembler.PutByte(byte, codec);
    if (length == 0) {
      assembler.Tick(static_cast<std::uint16_t>(tavo::fuzz::TakeNumber(input, 1) * 64));
    }
    if (const auto message = assembler.TakeFrame(codec)) tavo::fuzz::CheckMessage(*message);
  }
  return 0;
}
