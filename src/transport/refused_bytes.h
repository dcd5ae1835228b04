// Received bytes that became no answer, counted by reason. A device whose answers are all refused is
// not silent, and the reason points at its fault.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <numeric>

namespace tavo {

enum class RefusalReason : std::uint8_t {
  NoHeader,  // no frame begins with them
  TooShort,  // an unfinished frame, or one whose size code leaves no room for an identifier
  Checksum,
  Parity,     // of the identifier, under a right checksum
  Unawaited,  // a good frame whose id is not that of the request
  Behind,     // they came in one batch with a good frame, behind it
};
inline constexpr std::size_t kRefusalReasons = 6;

struct RefusedBytes {
  std::array<std::uint32_t, kRefusalReasons> counts{};  // bytes, by reason
  // The ids of the last frame that was not awaited, and of the request at that time.
  std::uint16_t unawaitedId = 0;
  std::uint16_t awaitedId = 0;

  void Add(RefusalReason reason, std::size_t bytes) {
    counts[static_cast<std::size_t>(reason)] += static_cast<std::uint32_t>(bytes);
  }
  std::uint32_t Count(RefusalReason reason) const {
    return counts[static_cast<std::size_t>(reason)];
  }
  std::uint32_t Total() const { return std::accumulate(counts.begin(), counts.end(), 0U); }

  RefusedBytes& operator+=(const RefusedBytes& later) {
    for (std::size_t i = 0; i < counts.size(); ++i) counts[i] += later.counts[i];
    if (later.Count(RefusalReason::Unawaited) == 0) return *this;
    unawaitedId = later.unawaitedId;
    awaitedId = later.awaitedId;
    return *this;
  }
};

}  // namespace tavo
