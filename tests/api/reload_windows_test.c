/* A host that loads and unloads the DLL again and again, finds its functions by ordinal, and has an
 * update fail in between: each time the DLL must be gone at once, with its memory and its threads. Only
 * the real libusb shows whether it is, since it runs a thread of its own.
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

static const char* const kNames[] = {"get_last_error",   "get_progress", "get_resetted_modules",
                                     "list_devices",     "stop_update",  "update_ftdi_device",
                                     "update_usb_device"};
enum { kFunctions = sizeof kNames / sizeof kNames[0], kListDevices = 4, kUpdateUsb = 7 };

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

/* The function by ordinal; null unless its name leads to the same one. */
static void* function(HMODULE library, int ordinal) {
  const FARPROC by_ordinal = GetProcAddress(library, MAKEINTRESOURCEA(ordinal));
  if (by_ordinal != GetProcAddress(library, kNames[ordinal - 1])) return NULL;
  return (void*)(uintptr_t)by_ordinal;
}

static int load_use_unload(const char* path, int round) {
  const HMODULE library = LoadLibraryA(path);
  if (library == NULL) return fail("it cannot be loaded", round);
  for (int ordinal = 1; ordinal <= kFunctions; ++ordinal) {
    if (function(library, ordinal) == NULL) return fail(kNames[ordinal - 1], round);
  }
  ((list_devices_call)(uintptr_t)function(library, kListDevices))();
  const update_usb_call update = (update_usb_call)(uintptr_t)function(library, kUpdateUsb);
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
