// The adapter vendor's D2XX library, call for call: one virtual function per operation that the
// FTDI transport uses, with the vendor's meaning. On Windows the calls go to FTD2XX.dll, elsewhere to
// libftdi1; tests substitute simulated adapters.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <span>

namespace tavo {

// 0 is success; other values are the vendor's error numbers.
using D2xxStatus = std::uint32_t;
inline constexpr D2xxStatus kD2xxOk = 0;
inline constexpr D2xxStatus kD2xxDeviceNotFound = 2;   // it is not connected, or no longer
inline constexpr D2xxStatus kD2xxDeviceNotOpened = 3;  // it is in use
inline constexpr D2xxStatus kD2xxIoError = 4;
inline constexpr D2xxStatus kD2xxNotSupported = 17;
inline constexpr D2xxStatus kD2xxOtherError = 18;  // on Linux: no permission

using D2xxHandle = void*;

// More adapters than any machine has. A library that reports more must not make us allocate memory
// for them.
inline constexpr std::uint32_t kMaxAdapters = 1024;

// One adapter, or one channel of an adapter with several. Texts end at the first zero byte or fill
// their array.
struct D2xxDeviceInfo {
  D2xxStatus status;  // other than 0: the reason why the texts could not be read
  std::array<char, 16> serialNumber;
  std::array<char, 64> description;
};

class D2xx {
 public:
  virtual ~D2xx() = default;

  // FT_CreateDeviceInfoList: looks for adapters and keeps the list for the two calls below.
  virtual D2xxStatus CreateDeviceInfoList(std::uint32_t* count) = 0;

  // FT_GetDeviceInfoList: fills at most `devices.size()` records, sets `count` to their number.
  virtual D2xxStatus GetDeviceInfoList(std::span<D2xxDeviceInfo> devices, std::uint32_t* count) = 0;

  // Not one of the vendor's calls: forgets the kept list and what it uses of the system, such as a
  // thread. Open adapters stay open.
  virtual void ForgetDeviceInfoList() = 0;

  // FT_Open: opens the adapter at `index` of the kept list. The handle is valid until Close.
  virtual D2xxStatus Open(std::uint32_t index, D2xxHandle* handle) = 0;

  // FT_SetBaudRate, in bits per second.
  virtual D2xxStatus SetBaudRate(D2xxHandle handle, std::uint32_t baudRate) = 0;

  // FT_SetDataCharacteristics: data bits 7 or 8; stop bits 0 = one, 2 = two; parity 0 = none, 1 =
  // odd, 2 = even, 3 = mark, 4 = space.
  virtual D2xxStatus SetDataCharacteristics(D2xxHandle handle, std::uint8_t wordLength,
                                            std::uint8_t stopBits, std::uint8_t parity) = 0;

  // FT_GetLatencyTimer, FT_SetLatencyTimer: for how long, in milliseconds, the adapter holds back input
  // that does not fill a packet. It keeps the value until it loses power. kD2xxNotSupported: the
  // vendor's library is older than these calls.
  virtual D2xxStatus GetLatencyTimer(D2xxHandle handle, std::uint8_t* latencyMs) = 0;
  virtual D2xxStatus SetLatencyTimer(D2xxHandle handle, std::uint8_t latencyMs) = 0;

  // FT_Close.
  virtual D2xxStatus Close(D2xxHandle handle) = 0;

  // FT_Write: blocks until the bytes are handed to the adapter.
  virtual D2xxStatus Write(D2xxHandle handle, std::span<const std::uint8_t> data,
                           std::uint32_t* written) = 0;

  // FT_GetStatus: bytes waiting to be read, bytes waiting to be sent, event state. Never blocks.
  virtual D2xxStatus GetStatus(D2xxHandle handle, std::uint32_t* receiveQueue,
                               std::uint32_t* transmitQueue, std::uint32_t* eventState) = 0;

  // FT_Read: does not block, because callers never ask for more than is waiting.
  virtual D2xxStatus Read(D2xxHandle handle, std::span<std::uint8_t> buffer,
                          std::uint32_t* received) = 0;

  // Not one of the vendor's calls: gives the processor away until bytes may be waiting, at most for
  // `bound`. May return early without any.
  virtual void WaitForInput(D2xxHandle handle, std::chrono::milliseconds bound) = 0;
};

// The adapters of the machine this process runs on.
std::unique_ptr<D2xx> MakeSystemD2xx();

}  // namespace tavo
