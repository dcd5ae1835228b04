// The promises of a fuzz target. A broken one ends the process, which the fuzzer reports together with
// the input that led there.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace tavo::fuzz {

inline void Expect(bool kept, const char* promise) {
  if (kept) return;
  std::fprintf(stderr, "broken promise: %s\n", promise);
  std::abort();
}

}  // namespace tavo::fuzz
