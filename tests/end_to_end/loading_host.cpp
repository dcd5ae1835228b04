// A host that loads the library at run time, runs one update and unloads it again; under Windows it
// finds the functions by ordinal. Like hosts in other languages it passes flags as bytes of any
// value.
//
// usage: loading_host usb|ftdi FILE [SKIP-IDENTITY-CHECK EXTENDED-ERASE BOOTLOADER-ONLY]
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace {

#if defined(_WIN32)
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
void* Load() { return dlopen(TAVO_LIBRARY, RTLD_NOW | RTLD_LOCAL); }
template <typename Function>
Function Find(void* library, const char* name, int /*ordinal*/) {
  return reinterpret_cast<Function>(dlsym(library, name));
}
bool Unload(void* library) {
  return dlclose(library) == 0 && dlopen(TAVO_LIBRARY, RTLD_NOW | RTLD_NOLOAD) == nullptr;
}
#endif

using LastError = int (*)();
using Flag = unsigned char;
using UpdateFtdi = bool (*)(const char*, std::uint32_t, Flag, const char*, Flag, Flag, Flag);
using UpdateUsb = bool (*)(const char*, const char*, Flag, Flag, Flag);

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 6) return 2;
  Flag flags[3]{};
  for (int i = 3; i < argc; ++i) flags[i - 3] = static_cast<Flag>(std::atoi(argv[i]));
  const auto library = Load();
  if (library == nullptr) return 3;
  const bool usb = std::strcmp(argv[1], "usb") == 0;
  const bool updated = usb ? Find<UpdateUsb>(library, "update_usb_device", 7)("", argv[2], flags[0],
                                                                              flags[1], flags[2])
                           : Find<UpdateFtdi>(library, "update_ftdi_device", 6)(
                                 "", 19200, 0, argv[2], flags[0], flags[1], flags[2]);
  const int lastError = Find<LastError>(library, "get_last_error", 1)();
  const bool unloaded = Unload(library);
  std::printf("updated %d, last error %d, unloaded %d\n", updated, lastError, unloaded);
  return updated && unloaded ? 0 : 1;
}
