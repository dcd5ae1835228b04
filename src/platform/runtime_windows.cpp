// The part of the DLL that the compiler's runtime forgets at unload.
namespace __gnu_cxx {

// Of GCC's runtime, without a header: gives back the memory that it keeps for exceptions thrown when
// there is none left. A process that loads and unloads the DLL again and again would otherwise lose
// 70 KiB each time.
void __freeres() noexcept;

}  // namespace __gnu_cxx

namespace {

struct FreeExceptionMemory {
  ~FreeExceptionMemory() { __gnu_cxx::__freeres(); }
};

// Ends after every other object of the DLL that may still throw.
[[gnu::init_priority(101)]] const FreeExceptionMemory freeExceptionMemory;

}  // namespace
