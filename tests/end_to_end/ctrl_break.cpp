// Brings Ctrl-Break to every process of a program as Windows itself does, in a new thread of that process.
// Wine's GenerateConsoleCtrlEvent finds no console where tests run.
//
// usage: ctrl_break PROGRAM
#include <windows.h>
// After it:
#include <psapi.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  std::string program = argv[1];
  std::ranges::replace(program, '/', '\\');
  const auto routine = reinterpret_cast<LPTHREAD_START_ROUTINE>(reinterpret_cast<std::uintptr_t>(
      GetProcAddress(GetModuleHandleA("kernelbase.dll"), "CtrlRoutine")));
  std::array<DWORD, 4096> ids{};
  DWORD size = 0;
  EnumProcesses(ids.data(), sizeof ids, &size);
  int found = 0;
  for (std::size_t i = 0; i < size / sizeof(DWORD); ++i) {
    const HANDLE process = OpenProcess(PROCESS_ALL_ACCESS, FALSE, ids[i]);
    std::array<char, MAX_PATH> path{};
    DWORD length = path.size();
    if (!QueryFullProcessImageNameA(process, 0, path.data(), &length)) continue;
    if (!std::string(path.data()).ends_with(program)) continue;
    void* const event = reinterpret_cast<void*>(std::uintptr_t{CTRL_BREAK_EVENT});
    if (CreateRemoteThread(process, nullptr, 0, routine, event, 0, nullptr) != nullptr) ++found;
  }
  return found == 0;
}
