// The texts that differ by operating system.
#pragma once

namespace tavo::tool {

enum class System { Posix, Windows };
inline constexpr System kSystem =
#ifdef _WIN32
    System::Windows;
#else
    System::Posix;
#endif

struct TextBySystem {
  const char* posix;
  const char* windows;

  constexpr const char* Here() const { return kSystem == System::Windows ? windows : posix; }
};

inline constexpr TextBySystem kUsbOptionHelp{
    "The USB device at this port path, as list shows it, or as the kernel calls it: 1-4.2",
    "The USB device at this port path, as list shows it"};

inline constexpr TextBySystem kNotReadableHint{
    "check its permissions, with ls -l for example",
    "check its permissions in its Properties, and whether another program holds it open"};

inline constexpr TextBySystem kLogFolderProblem{
    "the user's state folder cannot be written, or belongs to another user",
    "%LOCALAPPDATA%\\firmware-updater cannot be written"};

inline constexpr TextBySystem kDriverHint{
    "install the WinUSB driver for it, then plug it in again",
    "in the Device Manager, give the device with all its interfaces the driver WinUSB: Update "
    "driver, Browse my computer, Let me pick, Universal Serial Bus devices, WinUsb Device; then "
    "plug it in again"};

// On Windows alone.
inline constexpr const char* kAdapterDriverHint =
    "install the D2XX driver of the adapter's maker, then plug it in again";

}  // namespace tavo::tool
