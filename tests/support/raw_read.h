// One read of a transport, as a value that a test compares.
#pragma once

#include <vector>

#include "transport/i_comm_interface.h"

namespace tavo::test {

struct RawRead {
  bool ok;
  std::vector<std::uint8_t> bytes;  // none after a failure

  bool operator==(const RawRead&) const = default;
};

inline RawRead ReadFrom(ICommInterface& transport, std::size_t capacity = 256) {
  std::vector<std::uint8_t> bytes(capacity);
  auto length = static_cast<std::int32_t>(capacity);
  const bool ok = transport.ReceiveRawData(bytes.data(), &length);
  bytes.resize(ok ? static_cast<std::size_t>(length) : 0);
  return {ok, bytes};
}

}  // namespace tavo::test
