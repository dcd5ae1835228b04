// A host that loads the library at run time, updates in one thread and unloads it again; under Windows it
// finds the functions by ordinal. With an action, its main thread waits until some of the firmware is
// written. Then it stops the update, leaves the whole process in its midst, or lists devices until the
// update ends.
//
// Or it loads and unloads the library again and again: each time the library must be gone at once, with its
// threads, its open files and its memory. At the end it stays loaded and is called once more when its
// objects have been destroyed.
//
// usage: test_host usb|ftdi FILE [stop|leave|list]
//        test_host reload
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#if defined(_WIN32)
#include <windows.h>
// after windows.h
#include <psapi.h>
#include <tlhelp32.h>
#else
#include <dlfcn.h>
#include <malloc.h>
#endif

namespace {

// The resources that this process holds.
struct Resources {
  std::ptrdiff_t threads;
  std::ptrdiff_t files;
  std::size_t memory;
};

#if defined(_WIN32)
// The compiler's runtime keeps about 1 KiB for the thread that has been in the DLL.
constexpr std::size_t kLeak = 4 * 1024;

Resources Held() {
  Resources held{};
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry)) {
    held.threads += entry.th32OwnerProcessID == GetCurrentProcessId();
  }
  CloseHandle(snapshot);
  PROCESS_MEMORY_COUNTERS counters{};
  GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters);
  held.memory = counters.PagefileUsage;
  return held;
}
HMODULE Load() { return LoadLibraryA(TAVO_LIBRARY); }
template <typename Function>
Function Find(HMODULE library, const char* /*name*/, WORD ordinal) {
  return reinterpret_cast<Function>(
      reinterpret_cast<std::uintptr_t>(GetProcAddress(library, MAKEINTRESOURCEA(ordinal))));
}
bool Unload(HMODULE library) {
  return FreeLibrary(library) && GetModuleHandleA(TAVO_LIBRARY) == nullptr;
}
#else
// The allocator's count wavers by a few chunks with the timing of libusb's thread. A round that loses
// anything loses at least one chunk, of 32 bytes.
constexpr std::size_t kLeak = 32;

std::ptrdiff_t Entries(const char* folder) {
  return std::distance(std::filesystem::directory_iterator(folder), {});
}
Resources Held() {
  return {Entries("/proc/self/task"), Entries("/proc/self/fd"), mallinfo2().uordblks};
}
void* Load() { return dlopen(TAVO_LIBRARY, RTLD_NOW | RTLD_LOCAL); }
template <typename Function>
Function Find(void* library, const char* name, int /*ordinal*/) {
  return reinterpret_cast<Function>(dlsym(library, name));
}
bool Unload(void* library) {
  return dlclose(library) == 0 && dlopen(TAVO_LIBRARY, RTLD_NOW | RTLD_NOLOAD) == nullptr;
}
#endif

using UpdateFtdi = bool (*)(const char*, std::uint32_t, bool, const char*, bool, bool, bool);
using UpdateUsb = bool (*)(const char*, const char*, bool, bool, bool);

constexpr int kLeft = 7;
constexpr float kActsAt = 0.2F;

// Meanwhile the allocator and the system still fill their caches.
constexpr int kWarmUpRounds = 10;
constexpr int kRounds = 30;

decltype(Load()) leftLoaded{};

// The destructor of a host's static object may do so.
void StopLate() { Find<void (*)()>(leftLoaded, "stop_update", 5)(); }

int Fail(const char* reason, int round) {
  std::printf("round %d: %s\n", round, reason);
  return 1;
}

int Reload() {
  Resources before{};
  for (int round = 1; round <= kRounds; ++round) {
    const auto library = Load();
    if (library == nullptr) return Fail("it cannot be loaded", round);
    const Resources loaded = Held();
    Find<int (*)()>(library, "get_last_error", 1)();
    if (Held().files != loaded.files) return Fail("the code alone needs no libusb", round);
    Find<void (*)()>(library, "list_devices", 4)();
    const auto update = Find<UpdateUsb>(library, "update_usb_device", 7);
    if (update("9-9-9", "none.hex", false, false, false)) return Fail("it updated nothing", round);
    if (Held().threads != loaded.threads) return Fail("a thread stays behind", round);
    if (!Unload(library)) return Fail("it is still loaded", round);
    if (round == kWarmUpRounds) before = Held();
  }
  const Resources now = Held();
  std::printf("memory %zu, then %zu bytes\n", before.memory, now.memory);
  if (now.threads != before.threads) return Fail("a thread is left", kRounds);
  if (now.files != before.files) return Fail("a file is left open", kRounds);
  if (now.memory >= before.memory + (kRounds - kWarmUpRounds) * kLeak)
    return Fail("memory is lost", kRounds);

  // Registered before the library's objects are made, so that they are destroyed first.
  std::atexit(StopLate);
  leftLoaded = Load();
  Find<void (*)()>(leftLoaded, "list_devices", 4)();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && argv[1] == std::string("reload")) return Reload();
  if (argc != 3 && argc != 4) return 2;
  const std::string action = argc == 4 ? argv[3] : "";
  const auto library = Load();
  if (library == nullptr) return 3;
  const auto lastError = Find<int (*)()>(library, "get_last_error", 1);
  const auto progress = Find<float (*)()>(library, "get_progress", 2);
  const auto updateFtdi = Find<UpdateFtdi>(library, "update_ftdi_device", 6);
  const auto updateUsb = Find<UpdateUsb>(library, "update_usb_device", 7);

  std::atomic<bool> ended = false;
  bool updated = false;
  std::thread update([&] {
    updated = argv[1] == std::string("usb")
                  ? updateUsb("", argv[2], false, false, false)
                  : updateFtdi("", 19200, false, argv[2], false, false, false);
    ended = true;
  });
  while (!action.empty() && !ended && progress() < kActsAt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (action == "leave") std::exit(kLeft);
  if (action == "stop") Find<void (*)()>(library, "stop_update", 5)();
  while (action == "list" && !ended) Find<void (*)()>(library, "list_devices", 4)();
  update.join();
  const bool midway = progress() >= kActsAt && progress() < 1.0F;
  const int error = lastError();
  const bool unloaded = Unload(library);
  std::printf("updated %d, last error %d, ended %s, unloaded %d\n", updated, error,
              midway ? "midway" : "elsewhere", unloaded);
  return updated && unloaded ? 0 : 1;
}
