/* A host that loads and unloads the library again and again: each time it must be gone afterwards,
 * with everything that it had open.
 *
 * usage: reload_test LIBRARY
 */
#include <dirent.h>
#include <dlfcn.h>
#include <malloc.h>
#include <stdio.h>
#include <string.h>

/* While the rounds of the first group last, freed memory still fills the allocator's cache. */
enum { kRounds = 20, kWarmUpRounds = 10 };

/* What the allocator counts as used, its caches included, wavers by a few chunks with the timing of
 * libusb's thread. A round that loses anything loses at least one chunk, of 32 bytes. */
enum { kLeastLeak = (kRounds - kWarmUpRounds) * 32 };

typedef void (*list_devices_call)(void);

static int open_files(void) {
  int count = 0;
  DIR* const folder = opendir("/proc/self/fd");
  while (folder != NULL && readdir(folder) != NULL) ++count;
  if (folder != NULL) closedir(folder);
  return count;
}

static int fail(const char* what, int round) {
  printf("round %d: %s\n", round, what);
  return 1;
}

static int load_use_unload(const char* path, int round) {
  void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (library == NULL) return fail(dlerror(), round);
  void* const symbol = dlsym(library, "list_devices");
  if (symbol == NULL) return fail(dlerror(), round);
  list_devices_call list_devices = NULL;
  memcpy(&list_devices, &symbol, sizeof list_devices); /* ISO C has no cast for this */
  list_devices();
  if (dlclose(library) != 0) return fail(dlerror(), round);
  if (dlopen(path, RTLD_NOW | RTLD_NOLOAD) != NULL) return fail("it is still loaded", round);
  return 0;
}

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  int files = 0;
  size_t memory = 0;
  for (int round = 1; round <= kRounds; ++round) {
    if (load_use_unload(argv[1], round) != 0) return 1;
    if (round > kWarmUpRounds) continue;
    files = open_files();
    memory = mallinfo2().uordblks;
  }
  const size_t memory_now = mallinfo2().uordblks;
  printf("open files %d, then %d; memory %zu, then %zu bytes\n", files, open_files(), memory,
         memory_now);
  return open_files() == files && memory_now < memory + kLeastLeak ? 0 : 1;
}
