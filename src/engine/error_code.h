// The error codes that an update leaves behind and that get_last_error returns. Their numbers are
// part of the library's interface and never change meaning.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace tavo {

enum class ErrorCode : std::uint32_t {
  None = 0,
  Timeout = 1,
  BootloaderVersion = 2,
  HardwareId = 3,
  InitTunnel = 6,
  Erase = 8,
  FlashPositioning = 9,
  FlashWriting = 10,
  StartApplication = 11,
  CallBootloader = 12,
  ApplicationSize = 13,
  Verify = 14,
  Identity = 15,
  SetLabel = 16,
  Firmware = 18,
  WaitForApplication = 19,
  ResettedModules = 20,
};

struct ErrorDescription {
  ErrorCode code;
  std::string_view name;     // stable, for scripts; empty: the number is reserved
  std::string_view meaning;  // one sentence
};

// Row n describes code n, reserved numbers included.
inline constexpr std::array<ErrorDescription, 21> kErrorTable{{
    {ErrorCode::None, "none", "No failure has been stored since the library was loaded."},
    {ErrorCode::Timeout, "timeout", "The device did not answer a request in time."},
    {ErrorCode::BootloaderVersion, "bootloader-version",
     "The bootloader version request was not sent, or the bootloader is incompatible."},
    {ErrorCode::HardwareId, "hardware-id",
     "The hardware id request was not sent, or the firmware does not match the device."},
    {ErrorCode{4}, "", ""},
    {ErrorCode{5}, "", ""},
    {ErrorCode::InitTunnel, "init-tunnel", "The request to open the tunnel was not sent."},
    {ErrorCode{7}, "", ""},
    {ErrorCode::Erase, "erase", "The erase request was not sent."},
    {ErrorCode::FlashPositioning, "flash-positioning",
     "The flash positioning request was not sent."},
    {ErrorCode::FlashWriting, "flash-writing", "Writing the flash failed."},
    {ErrorCode::StartApplication, "start-application",
     "The request to start the application was not sent."},
    {ErrorCode::CallBootloader, "call-bootloader",
     "The request to call the bootloader was not sent."},
    {ErrorCode::ApplicationSize, "application-size",
     "The application size request was not sent, or the firmware does not fit the device."},
    {ErrorCode::Verify, "verify", "The verify request was not sent, or the checksums differ."},
    {ErrorCode::Identity, "identity", "An identity request was not sent."},
    {ErrorCode::SetLabel, "set-label", "The label could not be set."},
    {ErrorCode{17}, "", ""},
    {ErrorCode::Firmware, "firmware",
     "The update file holds no valid firmware, or none that matches the device."},
    {ErrorCode::WaitForApplication, "wait-for-application",
     "The request for the application's sign of life was not sent."},
    {ErrorCode::ResettedModules, "resetted-modules",
     "The request for the reset modules was not sent."},
}};

constexpr bool ErrorTableIsInCodeOrder() {
  for (std::size_t i = 0; i < kErrorTable.size(); ++i) {
    if (static_cast<std::size_t>(kErrorTable[i].code) != i) return false;
    if (kErrorTable[i].name.empty() != kErrorTable[i].meaning.empty()) return false;
  }
  return true;
}
static_assert(ErrorTableIsInCodeOrder(), "row n describes code n");

}  // namespace tavo
