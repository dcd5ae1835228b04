// Advice to the system about large blocks of memory.
#pragma once

#include <cstddef>

namespace tavo {

// Every byte of a new block is about to be written: lets the system provide it in large pages, where
// it can, because page by page takes longer than filling it. Changes nothing else.
void WillBeFilled(void* block, std::size_t bytes);

}  // namespace tavo
