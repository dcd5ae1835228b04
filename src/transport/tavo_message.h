// One message of the Tavo bus, a request or an answer, as the protocol steps fill and read it. The
// frame codec turns it into a frame.
#pragma once

#include <array>
#include <cstdint>

namespace tavo {

inline constexpr std::uint8_t kMaxPayload = 128;

#pragma pack(push, 1)
struct TavoMessage {
  std::uint16_t id = 0;                             // bits 0..13 travel on the bus
  std::uint8_t length = 0;                          // payload bytes in use, 0..128
  std::array<std::uint8_t, kMaxPayload> payload{};  // zero from `length` on
};
#pragma pack(pop)

static_assert(sizeof(TavoMessage) == 131, "messages are copied whole; the record has no padding");

}  // namespace tavo
