/* A host that loads and unloads the library again and again: each time it must be gone afterwards,
 * with everything that it had open. In the end it leaves it loaded, and calls it once more when the
 * library's own objects have been destroyed.
 *
 * usage: reload_test LIBRARY
 */
#include <dirent.h>
#include <dlfcn.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* While the rounds of the first group last, freed memory still fills the allocator's cache. */
enum { kRounds = 20, kWarmUpRounds = 10 };

/* What the allocator counts as used, its caches included, wavers by a few chunks with the timing of
 * libusb's thread. A round that loses anything loses at least one chunk, of 32 bytes. */
enum { kLeastLeak = (kRounds - kWarmUpRounds) * 32 };

typedef void (*plain_call)(void);

/* Of /proc/self/fd or /proc/self/task: the open files, the threads. */
static int entries(const char* path) {
  int count = 0;
  DIR* const folder = opendir(path);
  while (folder != NULL && readdir(folder) != NULL) ++count;
  if (folder != NULL) closedir(folder);
  return count;
}
static int open_files(void) { return entries("/proc/self/fd"); }
static int threads(void) { return entries("/proc/self/task"); }

static int fail(const char* what, int round) {
  printf("round %d: %s\n", round, what);
  return 1;
}

static int call(void* library, const char* name, int round) {
  void* const symbol = dlsym(library, name);
  if (symbol == NULL) return fail(dlerror(), round);
  plain_call function = NULL;
  memcpy(&function, &symbol, sizeof function); /* ISO C has no cast for this */
  function();
  return 0;
}

static int load_use_unload(const char* path, int round) {
  void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (library == NULL) return fail(dlerror(), round);
  const int threads_before = threads();
  if (call(library, "list_devices", round) != 0) return 1;
  if (threads() != threads_before) return fail("a thread stays behind", round);
  if (dlclose(library) != 0) return fail(dlerror(), round);
  if (dlopen(path, RTLD_NOW | RTLD_NOLOAD) != NULL) return fail("it is still loaded", round);
  return 0;
}

/* The code alone needs no libusb. */
static int ask_for_the_code(const char* path) {
  void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (library == NULL) return fail(dlerror(), 0);
  const int files = open_files();
  if (call(library, "get_last_error", 0) != 0) return 1;
  if (open_files() != files) return fail("get_last_error has opened something", 0);
  return dlclose(library) == 0 ? 0 : fail(dlerror(), 0);
}

static void* left_loaded = NULL;

/* What the destructor of a host's static object may do. */
static void stop_late(void) {
  if (left_loaded != NULL) call(left_loaded, "stop_update", kRounds + 1);
}

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  atexit(stop_late); /* before the library's objects are made, so that they are destroyed first */
  int files = 0;
  size_t memory = 0;
  if (ask_for_the_code(argv[1]) != 0) return 1;
  for (int round = 1; round <= kRounds; ++round) {
    if (load_use_unload(argv[1], round) != 0) return 1;
    if (round > kWarmUpRounds) continue;
    files = open_files();
    memory = mallinfo2().uordblks;
  }
  const size_t memory_now = mallinfo2().uordblks;
  printf("open files %d, then %d; memory %zu, then %zu bytes\n", files, open_files(), memory,
         memory_now);
  if (open_files() != files || memory_now >= memory + kLeastLeak) return 1;

  left_loaded = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (left_loaded == NULL) return fail(dlerror(), kRounds + 1);
  return call(left_loaded, "list_devices", kRounds + 1);
}
