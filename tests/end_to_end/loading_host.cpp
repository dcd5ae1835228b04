// A host that loads the library at run time, runs one update and unloads it again; under Windows it
// finds the functions by ordinal.
//
// usage: loading_host usb|ftdi FILE
#include <cstdint>
#include <cstdio>
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
using UpdateFtdi = bool (*)(const char*, std::uint32_t, bool, const char*, bool, bool, bool);
using UpdateUsb = bool (*)(const char*, const char*, bool, bool, bool);

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const auto library = Load();
  if (library == nullptr) return 3;
  const bool usb = std::strcmp(argv[1], "usb") == 0;
  const bool updated =
      usb ? Find<UpdateUsb>(library, "update_usb_device", 7)("", argv[2], false, false, false)
          : Find<UpdateFtdi>(library, "update_ftdi_device", 6)("", 19200, false, argv[2], false,
                                                               false, false);
  const int lastError = Find<LastError>(library, "get_last_error", 1)();
  const bool unloaded = Unload(library);
  std::printf("updated %d, last error %d, unloaded %d\n", updated, lastError, unloaded);
  return updated && unloaded ? 0 : 1;
}
