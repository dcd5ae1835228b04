/* A host that loads and unloads the DLL again and again and has an update fail in between: each time the
 * DLL must be gone at once, with its memory and its threads. Only the real libusb shows whether it is,
 * since it runs a thread of its own.
 *
 * usage: reload_test DLL
 */
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <windows.h>
/* after windows.h */
#include <psapi.h>
#include <tlhelp32.h>

/* While the rounds of the first group last, the system still fills its caches. */
enum { kRounds = 50, kWarmUpRounds = 10 };

/* The compiler's runtime keeps about 1 KiB for the thread that has been in the DLL. */
enum { kMaxLossPerRound = 4 * 1024 };

typedef bool(__cdecl* update_usb_call)(const char*, const char*, bool, bool, bool);
typedef void(__cdecl* list_devices_call)(void);

static int threads(void) {
  THREADENTRY32 entry = {.dwSize = sizeof entry};
  int count = 0;
  const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry)) {
    count += entry.th32OwnerProcessID == GetCurrentProcessId();
  }
  CloseHandle(snapshot);
  return count;
}

static size_t committed_bytes(void) {
  PROCESS_MEMORY_COUNTERS counters = {.cb = sizeof counters};
  GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters);
  return counters.PagefileUsage;
}

static int fail(const char* what, int round) {
  printf("round %d: %s, system error %lu\n", round, what, GetLastError());
  return 1;
}

static int load_use_unload(const char* path, int round) {
  const HMODULE library = LoadLibraryA(path);
  if (library == NULL) return fail("it cannot be loaded", round);
  void* const list_devices = (void*)(uintptr_t)GetProcAddress(library, "list_devices");
  void* const update_usb = (void*)(uintptr_t)GetProcAddress(library, "update_usb_device");
  if (list_devices == NULL || update_usb == NULL) return fail("a function is missing", round);
  ((list_devices_call)(uintptr_t)list_devices)();
  const update_usb_call update = (update_usb_call)(uintptr_t)update_usb;
  if (update("9-9-9", "none.hex", false, false, false)) return fail("it updated nothing", round);
  if (!FreeLibrary(library)) return fail("it cannot be unloaded", round);
  if (GetModuleHandleA("FirmwareUpdater.dll") != NULL) return fail("it is still loaded", round);
  return 0;
}

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  int threads_before = 0;
  size_t memory_before = 0;
  for (int round = 1; round <= kRounds; ++round) {
    if (load_use_unload(argv[1], round) != 0) return 1;
    if (round > kWarmUpRounds) continue;
    threads_before = threads();
    memory_before = committed_bytes();
  }
  const size_t memory = committed_bytes();
  printf("threads %d, then %d; memory %lu, then %lu KiB\n", threads_before, threads(),
         (unsigned long)(memory_before / 1024), (unsigned long)(memory / 1024));
  const size_t limit = memory_before + (kRounds - kWarmUpRounds) * kMaxLossPerRound;
  return threads() == threads_before && memory <= limit ? 0 : 1;
}
