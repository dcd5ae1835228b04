// Releases memory that the compiler's runtime forgets when the DLL is unloaded.
namespace __gnu_cxx {

// A function of GCC's runtime without a header: releases the memory that the runtime reserves for
// exceptions thrown when memory has run out. A process that loads and unloads the DLL again and again
// would otherwise lose 70 KiB each time.
void __freeres() noexcept;

}  // namespace __gnu_cxx

namespace {

struct FreeExceptionMemory {
  ~FreeExceptionMemory() { __gnu_cxx::__freeres(); }
};

// Destroyed after every other object of the DLL that may still throw.
[[gnu::init_priority(101)]] const FreeExceptionMemory freeExceptionMemory;

}  // namespace
