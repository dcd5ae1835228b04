// The seven exports: a thin shell that converts C arguments and lets no exception out.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>

#include "api/process_objects.h"
#include "api/update_commands.h"
#include "platform/d2xx.h"
#include "platform/libusb_api.h"
#include "transport/device_listing.h"

#if defined(_WIN32)
#define FIRMWARE_UPDATER_EXPORT extern "C" __declspec(dllexport)
#else
#define FIRMWARE_UPDATER_EXPORT extern "C" __attribute__((visibility("default")))
#endif

// The header declares flags as bool. Hosts in other languages pass any byte for true, and a bool with
// a value other than 0 and 1 is undefined, so the flags arrive here as bytes. A C function has one
// declaration only: the header's get other names and are compared further down.
#define update_ftdi_device declared_update_ftdi_device
#define update_usb_device declared_update_usb_device
#include "firmware_updater.h"
#undef update_ftdi_device
#undef update_usb_device

namespace {

using tavo::FirmwareUpdater;
using tavo::TransportKind;

constexpr std::size_t kModuleNameLength = 3;

using Flag = std::uint8_t;  // any value but 0 is true
static_assert(sizeof(bool) == sizeof(Flag));

template <typename Argument>
using AsByte = std::conditional_t<std::is_same_v<Argument, bool>, Flag, Argument>;
template <typename Result, typename... Arguments>
auto WithBytes(Result (*)(Arguments...)) -> Result (*)(AsByte<Arguments>...);

std::string Text(const char* text) { return text ? text : ""; }

tavo::UpdateFlags Flags(Flag skipIdentityCheck, Flag extendedErase, Flag bootloaderOnly) {
  return {skipIdentityCheck == 0, extendedErase != 0, bootloaderOnly != 0};
}

tavo::UpdateContext Context() {
  return {FirmwareUpdater::Instance(), tavo::TransportHolder::Instance(), tavo::SystemPlatform()};
}

// `otherwise` is the result of a call that throws or comes too late.
template <typename Result, typename Call>
Result Guarded(Result otherwise, Call call) noexcept {
  const tavo::ExportedCall underWay;
  if (!underWay.Granted()) return otherwise;
  try {
    return call();
  } catch (...) {
    return otherwise;
  }
}

// An update that ends with an exception (out of memory) runs no closing plan.
template <typename Update>
bool GuardedUpdate(Update update) noexcept {
  const tavo::ExportedCall underWay;
  if (!underWay.Granted()) return false;
  try {
    return update();
  } catch (...) {
    tavo::SystemPlatform().Print(
        "\nOut of memory: the update has ended where it was, the device may be in its "
        "bootloader\n");
    return false;
  }
}

}  // namespace

FIRMWARE_UPDATER_EXPORT int get_last_error(void) {
  return Guarded(0, [] { return static_cast<int>(FirmwareUpdater::Instance().LastError()); });
}

FIRMWARE_UPDATER_EXPORT float get_progress(void) {
  return Guarded(-1.0F, [] { return FirmwareUpdater::Instance().Progress(); });
}

FIRMWARE_UPDATER_EXPORT bool get_resetted_modules(char* buffer, uint32_t index) {
  return Guarded(false, [&] {
    const auto name = FirmwareUpdater::Instance().ResettedModule(index);
    if (!name || !buffer) return false;
    std::copy_n(name->begin(), std::min(name->size(), kModuleNameLength), buffer);
    return true;
  });
}

FIRMWARE_UPDATER_EXPORT void list_devices(void) {
  Guarded(false, [] {
    const std::unique_ptr<tavo::D2xx> d2xx = tavo::MakeSystemD2xx();
    tavo::ListDevices(tavo::SystemPlatform(), tavo::ProcessObjects::Instance().log,
                      tavo::SystemLibUsb(), *d2xx);
    return true;
  });
}

FIRMWARE_UPDATER_EXPORT void stop_update(void) {
  Guarded(false, [] {
    FirmwareUpdater::Instance().RequestStop();
    return true;
  });
}

FIRMWARE_UPDATER_EXPORT bool update_ftdi_device(const char* serialNumber, uint32_t baudRate,
                                                Flag echo, const char* updateFile,
                                                Flag skipIdentityCheck, Flag extendedErase,
                                                Flag bootloaderOnly) {
  return GuardedUpdate([&] {
    return tavo::UpdateDevice(
        Context(), {TransportKind::Ftdi, Text(serialNumber), baudRate, echo != 0}, Text(updateFile),
        Flags(skipIdentityCheck, extendedErase, bootloaderOnly));
  });
}

FIRMWARE_UPDATER_EXPORT bool update_usb_device(const char* port, const char* updateFile,
                                               Flag skipIdentityCheck, Flag extendedErase,
                                               Flag bootloaderOnly) {
  return GuardedUpdate([&] {
    return tavo::UpdateDevice(Context(), {TransportKind::Usb, Text(port)}, Text(updateFile),
                              Flags(skipIdentityCheck, extendedErase, bootloaderOnly));
  });
}

static_assert(std::is_same_v<decltype(WithBytes(&declared_update_ftdi_device)),
                             decltype(&update_ftdi_device)>);
static_assert(
    std::is_same_v<decltype(WithBytes(&declared_update_usb_device)), decltype(&update_usb_device)>);
