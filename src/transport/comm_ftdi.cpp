#include "transport/comm_ftdi.h"

#include <algorithm>
#include <cassert>

#include "log/displayable.h"

namespace tavo {
namespace {

// The pause of a silent poll, short against the 16 ms for which an adapter itself holds input back.
constexpr std::chrono::milliseconds kInputWait{10};

const char* Reason(D2xxStatus status) {
  switch (status) {
    case kD2xxDeviceNotFound: return "it is gone";
    case kD2xxDeviceNotOpened: return "it is in use";
    case kD2xxOtherError: return "no permission";
    default: return "it does not respond";
  }
}

// A text that fills its array has no zero byte at its end.
template <std::size_t kCapacity>
std::string Text(const std::array<char, kCapacity>& field) {
  return {field.begin(), std::find(field.begin(), field.end(), '\0')};
}

}  // namespace

CCommFTDI::CCommFTDI(TavoLink& link, Platform& platform, Logger& log, D2xx& d2xx)
    : ICommInterface(link, platform, log), m_d2xx(d2xx) {}

std::vector<CCommDevDesc>* CCommFTDI::EnumerateDevices() {
  m_devices.clear();
  std::uint32_t count = 0;
  if (m_d2xx.CreateDeviceInfoList(&count) != kD2xxOk || count == 0) return &m_devices;

  std::vector<D2xxDeviceInfo> adapters(std::min(count, kMaxAdapters));
  // The status of the whole list does not matter: by its index an adapter can be opened anyway.
  m_d2xx.GetDeviceInfoList(adapters, &count);
  std::uint32_t index = 0;
  for (const D2xxDeviceInfo& adapter : adapters) AddAdapter(index++, adapter);
  return &m_devices;
}

void CCommFTDI::AddAdapter(std::uint32_t index, const D2xxDeviceInfo& info) {
  m_devices.emplace_back(index, Text(info.serialNumber), Text(info.description));
  if (info.status == kD2xxOk) return;
  m_devices.back().isReadable = false;
  m_log.LogWarn("CCommFTDI: Adapter %u cannot be read: %s, Error: %d", index, Reason(info.status),
                static_cast<std::int32_t>(info.status));
}

bool CCommFTDI::Open(std::uint32_t deviceRef) {
  Close();
  const D2xxStatus status = OpenAdapter(deviceRef);
  m_isOpen = status == kD2xxOk;
  m_inputInterrupted = false;
  if (m_isOpen) return true;
  m_platform.Print("FTDI Open Error " + std::to_string(static_cast<std::int32_t>(status)));
  Close();
  return false;
}

bool CCommFTDI::OpenPort(const std::string& serialNumber) {
  const CCommDevDesc* const adapter = FindPort(*EnumerateDevices(), serialNumber);
  if (adapter == nullptr) {
    m_platform.Print("Serial " + Displayable(serialNumber) + " isnt found\n");
    return false;
  }
  if (!Open(adapter->deviceRef)) return false;
  m_serialNumber = serialNumber;
  return true;
}

D2xxStatus CCommFTDI::OpenAdapter(std::uint32_t index) {
  assert(m_handle == nullptr);
  D2xxHandle handle = nullptr;
  D2xxStatus status = m_d2xx.Open(index, &handle);
  if (status != kD2xxOk) return status;
  m_handle = handle;
  status = m_d2xx.SetBaudRate(m_handle, m_lineSettings.baudRate);
  if (status != kD2xxOk) return status;
  return m_d2xx.SetDataCharacteristics(m_handle, m_lineSettings.wordLength, m_lineSettings.stopBits,
                                       m_lineSettings.parity);
}

void CCommFTDI::Close() {
  m_isOpen = false;
  if (m_handle != nullptr) m_d2xx.Close(m_handle);
  m_handle = nullptr;
}

void CCommFTDI::EndSession() {
  CCommFTDI::Close();
  m_d2xx.ForgetDeviceInfoList();
}

bool CCommFTDI::IsUsable(const void* data) const {
  return m_handle != nullptr && data != nullptr && m_isOpen;
}

bool CCommFTDI::SendRawData(const std::uint8_t* data, std::int32_t length) {
  if (!IsUsable(data)) {
    m_log.LogDebug("CCommFTDI: SendRawData: No Interface");
    return false;
  }
  if (length <= 0) return true;
  const auto count = static_cast<std::uint32_t>(length);
  // A library that fails without reporting a count may have sent the first byte.
  std::uint32_t written = 1;
  const D2xxStatus status = m_d2xx.Write(m_handle, {data, count}, &written);
  CountEcho(written);
  return status == kD2xxOk;
}

bool CCommFTDI::ReceiveRawData(std::uint8_t* buffer, std::int32_t* length) {
  if (!IsUsable(buffer) || length == nullptr) {
    m_log.LogWarn("CCommFTDI: ReceiveRawData: No Interface.");
    return false;
  }
  const auto capacity = static_cast<std::uint32_t>(std::max(*length, 0));
  std::uint32_t waiting = BytesWaiting();
  if (waiting == 0) {
    m_d2xx.WaitForInput(m_handle, kInputWait);
    waiting = BytesWaiting();
  }
  *length = 0;
  return waiting == 0 || Fetch(buffer, std::min(waiting, capacity), length);
}

// A failed status is logged once and counts as silence: input may come again, and if it does not, the
// timeout of the awaited answer ends the wait.
std::uint32_t CCommFTDI::BytesWaiting() {
  std::uint32_t waiting = 0;
  std::uint32_t transmitQueue = 0;
  std::uint32_t eventState = 0;
  const D2xxStatus status = m_d2xx.GetStatus(m_handle, &waiting, &transmitQueue, &eventState);
  const bool interrupted = status != kD2xxOk;
  if (interrupted && !m_inputInterrupted) {
    m_log.LogWarn("CCommFTDI: Input interrupted, Error: %d", static_cast<std::int32_t>(status));
  }
  m_inputInterrupted = interrupted;
  return waiting;
}

bool CCommFTDI::Fetch(std::uint8_t* buffer, std::uint32_t count, std::int32_t* length) {
  assert(m_isOpen);
  std::uint32_t received = 0;
  const D2xxStatus status = m_d2xx.Read(m_handle, {buffer, count}, &received);
  *length = static_cast<std::int32_t>(std::min(received, count));
  StripEcho(buffer, length);
  if (status == kD2xxOk) return true;
  m_log.LogWarn("CCommFTDI: Error while receiving data: Length: %d, Error: %d", *length,
                static_cast<std::int32_t>(status));
  *length = 0;
  return false;
}

}  // namespace tavo
