// A host that loads the library at run time, updates in one thread and unloads it again; under Windows it
// finds the functions by ordinal. With an action, its main thread waits until some of the firmware is
// written. Then it stops the update, leaves the whole process in its midst, or lists devices until the
// update ends.
//
// usage: test_host usb|ftdi FILE [stop|leave|list]
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

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

using UpdateFtdi = bool (*)(const char*, std::uint32_t, bool, const char*, bool, bool, bool);
using UpdateUsb = bool (*)(const char*, const char*, bool, bool, bool);

constexpr int kLeft = 7;
constexpr float kActsAt = 0.2F;

}  // namespace

int main(int argc, char** argv) {
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
