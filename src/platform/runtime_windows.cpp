// Replaces parts of the compiler's runtime in the DLL.
#include <windows.h>

#include <cstdint>
#include <initializer_list>

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

#ifdef __SSP_STRONG__
// The stack protector's value and its alarm. The compiler's own ask another DLL of the system for a
// random value, which a DLL must not do while it is being loaded.
extern "C" {

std::uintptr_t __stack_chk_guard = 0;

[[noreturn]] void __stack_chk_fail() {
  static constexpr char kText[] = "*** stack smashing detected ***\n";
  DWORD written = 0;
  WriteFile(GetStdHandle(STD_ERROR_HANDLE), kText, sizeof kText - 1, &written, nullptr);
  TerminateProcess(GetCurrentProcess(), 0xC0000409);  // the system's code for this
  for (;;) continue;  // not reached, which the compiler does not know
}

// Before any other code of the DLL. Its bits come from clock, counter, thread and the random addresses
// of stack and DLL.
[[gnu::constructor(101), gnu::no_stack_protector]] void SetStackGuard() {
  FILETIME time{};
  LARGE_INTEGER counter{};
  GetSystemTimeAsFileTime(&time);
  QueryPerformanceCounter(&counter);
  std::uint64_t value = std::uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime;
  for (const std::uint64_t more :
       {static_cast<std::uint64_t>(counter.QuadPart), std::uint64_t{GetCurrentThreadId()},
        std::uint64_t{GetCurrentProcessId()},
        std::uint64_t{reinterpret_cast<std::uintptr_t>(&time)},
        std::uint64_t{reinterpret_cast<std::uintptr_t>(&SetStackGuard)}}) {
    value = (value ^ more) * 0x9E3779B97F4A7C15;  // spreads every bit upwards
    value ^= value >> 32;
  }
  // A zero byte lowest ends a text that was copied too far in front of it.
  __stack_chk_guard = static_cast<std::uintptr_t>(value) & ~std::uintptr_t{0xFF};
}

}  // extern "C"
#endif
