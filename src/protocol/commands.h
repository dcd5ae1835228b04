// The bootloader protocol's command table: one row for each request of an update. Sending, logging
// and failing read the same row.
//
// Requests 0x100 (0x180 for one device family) are for the running application or a master module
// and carry a command byte; 0x120 to 0x136 are the bootloader's own; 0x802 and 0x814 are two
// further requests to the application.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>

#include "engine/error_code.h"
#include "engine/evidence.h"
#include "log/logger.h"

namespace tavo {

inline constexpr std::uint16_t kApplicationRequest = 0x100;
inline constexpr std::uint16_t kAlternativeApplicationRequest = 0x180;

// Sent raw, outside any frame, before the tunnel status and close requests: it makes a master that
// forwards everything through its tunnel listen itself.
inline constexpr std::array<std::uint8_t, 3> kEscapeSequence{0x1B, 0x1B, 0x1B};

// Some masters report this instead of 0 while no tunnel is open: master 16, slave 16.
inline constexpr std::uint16_t kNoTunnelEither = 0x1010;

// How long a master needs to close its tunnel.
inline constexpr std::chrono::milliseconds kTunnelClosing{5000};

// The bootloader reports its block size in one byte.
inline constexpr std::size_t kMaxBlockSize = 255;

// The first bytes of a payload; the arguments of the request follow.
struct PayloadHead {
  std::array<std::uint8_t, 2> bytes{};
  std::uint8_t length = 0;
};

struct Command {
  std::uint16_t id;
  Bearing bearing;
  PayloadHead head;
  const char* sentLine;  // logged at INFO once the request is sent; null: not logged
  ErrorCode sendError;   // when the request could not be handed to the transport
  const char* sendErrorText;
  LogLevel timeoutLevel;
  const char* timeoutLine;  // logged when no answer came; null: not logged
  const char* timeoutText;  // of the failure; null: the step tolerates silence
};

#define TAVO_LOG "FirmwareUpdater: "

// clang-format off
inline constexpr Command kTunnelStatus{
    kApplicationRequest, Bearing::ReportsTunnel, {{0xEB, 0x00}, 2}, TAVO_LOG "Tunnel Status: Request.",
    ErrorCode::None, nullptr,
    LogLevel::Info, TAVO_LOG "Tunnel Status: Timeout", nullptr};
inline constexpr Command kInitTunnel{  // + slave, master
    kApplicationRequest, Bearing::OpensTunnel, {{0xED, 0x00}, 2}, TAVO_LOG "Init Tunnel: Request.",
    ErrorCode::InitTunnel, "Error: Sending Init Tunnel Request",
    LogLevel::Info, TAVO_LOG "Init Tunnel: Timeout (Probably Bootloader)", nullptr};
inline constexpr Command kDeinitTunnel{
    kApplicationRequest, Bearing::ClosesTunnel, {{0xEC, 0x00}, 2}, nullptr,
    ErrorCode::None, nullptr, LogLevel::Info, nullptr, nullptr};
inline constexpr Command kRequestDeviceId{
    kApplicationRequest, Bearing::Identity, {{0xBB, 0x0A}, 2}, TAVO_LOG "Request Device-ID",
    ErrorCode::Identity, "Error: Request Device-ID",
    LogLevel::Warn, TAVO_LOG "Request Device-ID: Timeout", "Timeout: Request Device-ID"};
inline constexpr Command kRequestDeviceIdAdmin{
    0x802, Bearing::Identity, {}, TAVO_LOG "Request Device-ID (Admin)",
    ErrorCode::Identity, "Error: Request Device-ID (Admin)",
    LogLevel::Warn, TAVO_LOG "Request Device-ID (Admin): Timeout",
    "Timeout: Request Device-ID (Admin)"};
inline constexpr Command kRequestSoftwareId{
    kApplicationRequest, Bearing::Application, {{0xBB, 0x02}, 2}, TAVO_LOG "Request Software-ID",
    ErrorCode::Identity, "Error: Request Software-ID",
    LogLevel::Warn, TAVO_LOG "Request Software-ID: Timeout", nullptr};
inline constexpr Command kCallBootloader{
    kApplicationRequest, Bearing::CallsBootloader, {{0xFD, 0x00}, 2}, TAVO_LOG "Call Bootloader: Request.",
    ErrorCode::CallBootloader, "Error: Sending Bootloader Request",
    LogLevel::Info, TAVO_LOG "Call Bootloader: Timeout (Probably Bootloader)", nullptr};
inline constexpr Command kCheckVersion{
    0x120, Bearing::Bootloader, {}, TAVO_LOG "Check Version: Request.",
    ErrorCode::BootloaderVersion, "Error: Bootloader Version Request",
    LogLevel::Info, nullptr, "Timeout: Bootloader Version Request"};
inline constexpr Command kRequestProcessorId{
    0x121, Bearing::Bootloader, {}, TAVO_LOG "Request Prozessor-ID",
    ErrorCode::Identity, "Error: Request Prozessor-ID",
    LogLevel::Warn, TAVO_LOG "Request Prozessor-ID: Timeout", "Timeout: Request Prozessor-ID"};
inline constexpr Command kCheckHardwareId{
    0x122, Bearing::Bootloader, {}, TAVO_LOG "Check HardwareId: Request.",
    ErrorCode::HardwareId, "Error: Sending Hardware ID Request",
    LogLevel::Info, TAVO_LOG "Timeout: Check Hardware ID Request", "Timeout: Hardware ID Request"};
inline constexpr Command kCheckApplicationSize{
    0x132, Bearing::Bootloader, {}, TAVO_LOG "Check Application Section Size: Request.",
    ErrorCode::ApplicationSize, "Error: Sending Application Size Request",
    LogLevel::Info, TAVO_LOG "Check Application Section Size: Timeout",
    "Timeout: Application Size Request"};
inline constexpr Command kEraseApplication{  // + erase mode
    0x130, Bearing::Erases, {}, TAVO_LOG "Erase Application Memory: Request.",
    ErrorCode::Erase, "Error: Sending Erase Request",
    LogLevel::Info, TAVO_LOG "Erase Application Memory: Timeout", "Timeout: Erase Request"};
inline constexpr Command kPositionFlash{  // + 32-bit address
    0x133, Bearing::Bootloader, {}, nullptr,
    ErrorCode::FlashPositioning, "Error: Sending Flash Positioning Request",
    LogLevel::Info, nullptr, "Timeout: Writing Flash"};
inline constexpr Command kWriteFlash{  // + one block
    0x134, Bearing::Bootloader, {}, nullptr,
    ErrorCode::FlashWriting, "Error: Sending Flash Writing Request",
    LogLevel::Info, nullptr, "Timeout: Writing Flash"};
inline constexpr Command kVerify{
    0x136, Bearing::Bootloader, {}, TAVO_LOG "Verify: Request.",
    ErrorCode::Verify, "Error: Sending Verify Request",
    LogLevel::Info, TAVO_LOG "Verify: Timeout", "Timeout: Verify Request"};
inline constexpr Command kStartApplication{
    0x12F, Bearing::StartsApplication, {}, TAVO_LOG "Start Application: Request.",
    ErrorCode::StartApplication, "Error: Sending: Start Application Request",
    LogLevel::Info, TAVO_LOG "Start Application: Timeout", "Timeout: Start Application Request"};
inline constexpr Command kLeaveBootloader{
    0x12F, Bearing::StartsApplication, {{0x01}, 1}, TAVO_LOG "Start Application: Request.",
    ErrorCode::StartApplication, "Error: Sending: Start Application Request",
    LogLevel::Info, nullptr, nullptr};
inline constexpr Command kWaitForApplication{
    kApplicationRequest, Bearing::Application, {{0x00}, 1}, TAVO_LOG "Wait for Application",
    ErrorCode::WaitForApplication, "Error: Check Application",
    LogLevel::Info, TAVO_LOG "Timeout: Wait for Application", "Timeout: Wait for Application"};
inline constexpr Command kSetLabel{  // + label
    kApplicationRequest, Bearing::Application, {{0xA0}, 1}, nullptr,
    ErrorCode::SetLabel, "Error: Sending: Set Label Request",
    LogLevel::Warn, TAVO_LOG "Set Label: Timeout", "Timeout: Set Label Request"};
inline constexpr Command kRequestModule{  // + index
    0x814, Bearing::Modules, {}, nullptr,
    ErrorCode::ResettedModules, "Error: Request resetted Modules",
    LogLevel::Info, TAVO_LOG "Timeout: Request resetted Modules",
    "Timeout: Request resetted Modules"};
// clang-format on

#undef TAVO_LOG

}  // namespace tavo
