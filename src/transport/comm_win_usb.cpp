#include "transport/comm_win_usb.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstdio>

namespace tavo {
namespace {

constexpr unsigned char kBulkOut = 0x02;
constexpr unsigned char kBulkIn = 0x81;
constexpr unsigned kBulkInTimeoutMs = 50;

// Generous: USB allows a hub no more than five hubs deep.
constexpr std::size_t kMaxPortNumbers = 32;

constexpr std::uint32_t kAnyDevice = 0;
constexpr int kNoLibUsbMessages = 0;
constexpr int kDropReferences = 1;

constexpr int kControlInterface = 0;

// The two class requests that switch the serial function on (USB CDC PSTN, 6.3). A device answers
// them within milliseconds, one that is booting later; 5 s is the limit that USB itself sets.
constexpr unsigned kControlTimeoutMs = 5000;
constexpr std::uint8_t kClassRequestToInterface = 0x21;
constexpr std::uint8_t kSetControlLineState = 0x22;
constexpr std::uint16_t kDtrAndRtsOn = 0x0003;
constexpr std::uint8_t kSetLineCoding = 0x20;
using LineCoding = std::array<unsigned char, 7>;
constexpr LineCoding kLineCoding{
    0x00, 0x4B, 0x00, 0x00,  // 19200 baud, low byte first
    0,                       // one stop bit
    0,                       // no parity
    8,                       // data bits
};

std::string Describe(const libusb_device_descriptor& descriptor, const std::string& port) {
  std::array<char, 32> ids{};
  std::snprintf(ids.data(), ids.size(), "VID:%04x PID:%04x Port: ", unsigned{descriptor.idVendor},
                unsigned{descriptor.idProduct});
  return ids.data() + port;
}

}  // namespace

std::string UsbPortPath(LibUsb& usb, libusb_device* device) {
  std::array<std::uint8_t, kMaxPortNumbers> ports{};
  const int capacity = static_cast<int>(ports.size());
  const int count = std::min(usb.GetPortNumbers(device, ports.data(), capacity), capacity);
  std::string path;
  for (int i = 0; i < count; ++i) {
    path += (i > 0 ? "-" : "") + std::to_string(ports[static_cast<std::size_t>(i)]);
  }
  return path;
}

CCommWinUSB::CCommWinUSB(TavoLink& link, Platform& platform, Logger& log, LibUsb& usb)
    : ICommInterface(link, platform, log), m_usb(usb) {
  StartSession();
}

CCommWinUSB::~CCommWinUSB() { CCommWinUSB::EndSession(); }

void CCommWinUSB::StartSession() {
  if (m_inSession) return;
  m_inSession = true;
  const int result = m_usb.Init(&m_context);
  if (result >= 0) return;
  m_context = nullptr;
  m_log.LogInfo("CCommWinUSB: Error initializing libusb: %s", m_usb.ErrorName(result));
}

void CCommWinUSB::EndSession() {
  CCommWinUSB::Close();
  m_detached.clear();  // a device that was unplugged finds its driver when it is plugged in again
  FreeDeviceList();
  if (m_context != nullptr) m_usb.Exit(m_context);
  m_context = nullptr;
  m_inSession = false;
}

bool CCommWinUSB::HasContext() {
  if (m_context == nullptr) m_log.LogWarn("CCommWinUSB: LibUSB not initialized");
  return m_context != nullptr;
}

// --- finding devices ---

void CCommWinUSB::FreeDeviceList() {
  m_devices.clear();
  m_deviceCount = 0;
  if (m_deviceList != nullptr) m_usb.FreeDeviceList(m_deviceList, kDropReferences);
  m_deviceList = nullptr;
}

std::vector<CCommDevDesc>* CCommWinUSB::EnumerateDevices() {
  StartSession();
  FreeDeviceList();
  const std::ptrdiff_t count =
      m_context == nullptr ? 0 : m_usb.GetDeviceList(m_context, &m_deviceList);
  if (count <= 0) m_log.LogWarn("CCommWinUSB: Error enumerating devices\n");
  m_deviceCount = static_cast<std::size_t>(std::max<std::ptrdiff_t>(count, 0));
  for (std::size_t position = 0; position < m_deviceCount; ++position) ListIfSupported(position);
  return &m_devices;
}

void CCommWinUSB::ListIfSupported(std::size_t position) {
  assert(position < m_deviceCount);
  libusb_device* const device = m_deviceList[position];
  libusb_device_descriptor descriptor{};
  if (m_usb.GetDeviceDescriptor(device, &descriptor) < 0) return;
  if (descriptor.idVendor != kUsbVendorId || descriptor.idProduct != kUsbProductId) return;
  const std::string port = UsbPortPath(m_usb, device);
  m_devices.emplace_back(static_cast<std::uint32_t>(position + 1), port,
                         Describe(descriptor, port));
  m_devices.back().bus = m_usb.GetBusNumber(device);
}

// --- opening and closing ---

bool CCommWinUSB::Open(std::uint32_t deviceRef) {
  StartSession();
  m_isOpen = HasContext() && (m_handle != nullptr || OpenDevice(deviceRef));
  return m_isOpen;
}

bool CCommWinUSB::OpenDevice(std::uint32_t deviceRef) {
  assert(m_context != nullptr && m_handle == nullptr);
  m_usb.SetDebug(m_context, kNoLibUsbMessages);
  m_handle = deviceRef == kAnyDevice
                 ? m_usb.OpenDeviceWithVidPid(m_context, kUsbVendorId, kUsbProductId)
                 : OpenListed(deviceRef);
  if (m_handle == nullptr) return false;
  if (ClaimInterfaces() && SwitchSerialOn()) return true;
  // With a handle left behind, the next attempt would succeed without a working device.
  AttachDrivers();
  ReleaseHandle();
  return false;
}

libusb_device_handle* CCommWinUSB::OpenListed(std::uint32_t deviceRef) {
  const std::size_t position = deviceRef - 1;
  libusb_device_handle* handle = nullptr;
  const int result = position < m_deviceCount ? m_usb.Open(m_deviceList[position], &handle)
                                              : LIBUSB_ERROR_NO_DEVICE;
  if (result >= 0) return handle;
  m_log.LogWarn("CCommWinUSB: Error open device: %s", m_usb.ErrorName(result));
  return nullptr;
}

bool CCommWinUSB::ClaimInterface(int number) {
  // An error code is no reason to stop: some systems cannot answer and need no detaching.
  if (m_usb.KernelDriverActive(m_handle, number) != 0 &&
      m_usb.DetachKernelDriver(m_handle, number) >= 0) {
    m_detached.insert(number);
  }
  const int result = m_usb.ClaimInterface(m_handle, number);
  if (result < 0) {
    m_log.LogWarn("CCommWinUSB: Error claiming interface: %s", m_usb.ErrorName(result));
  }
  return result >= 0;
}

bool CCommWinUSB::ClaimInterfaces() {
  // Control requests reach the device without its interface, data does not.
  ClaimInterface(kControlInterface);
  return ClaimInterface(kUsbDataInterface);
}

bool CCommWinUSB::SwitchSerialOn() {
  LineCoding coding = kLineCoding;
  m_refusedControlRequest.clear();
  return Control("SET_CONTROL_LINE_STATE", kSetControlLineState, kDtrAndRtsOn, {}) &&
         Control("SET_LINE_CODING", kSetLineCoding, 0, coding);
}

bool CCommWinUSB::Control(const char* name, std::uint8_t request, std::uint16_t value,
                          std::span<unsigned char> data) {
  const int result = m_usb.ControlTransfer(
      m_handle, kClassRequestToInterface, request, value, kControlInterface, data.data(),
      static_cast<std::uint16_t>(data.size()), kControlTimeoutMs);
  if (result >= 0) return true;
  m_refusedControlRequest = std::string(name) + " (" + m_usb.ErrorName(result) + ")";
  return false;
}

bool CCommWinUSB::OpenPort(const std::string& name) {
  const CCommDevDesc* const device = FindPort(*EnumerateDevices(), name);
  if (device != nullptr) return OpenAt(*device);
  m_platform.Print("Port " + name + " isnt found\n");
  return false;
}

bool CCommWinUSB::OpenAt(const CCommDevDesc& device) {
  const Place place{device.bus, device.port};
  if (m_openPlace != place) Close();
  if (!Open(device.deviceRef)) return false;
  m_openPlace = m_namedPlace = place;
  return true;
}

// The drivers stay away meanwhile: with them would come programs that open any serial port and write
// to it.
bool CCommWinUSB::Reconnect() {
  m_isOpen = false;
  ReleaseHandle();
  if (!m_namedPlace) return Open(kAnyDevice);
  EnumerateDevices();
  const auto device = std::ranges::find_if(m_devices, [this](const CCommDevDesc& listed) {
    return Place{listed.bus, listed.port} == m_namedPlace;
  });
  return device != m_devices.end() && OpenAt(*device);
}

void CCommWinUSB::Close() {
  m_isOpen = false;
  AttachDrivers();
  ReleaseHandle();
}

// A serial driver takes either interface only when both are free.
void CCommWinUSB::AttachDrivers() {
  if (m_handle == nullptr || m_detached.empty()) return;
  for (const int number : {kControlInterface, kUsbDataInterface}) {
    m_usb.ReleaseInterface(m_handle, number);
  }
  for (const int number : m_detached) m_usb.AttachKernelDriver(m_handle, number);
  m_detached.clear();
}

void CCommWinUSB::ReleaseHandle() {
  m_openPlace.reset();
  if (m_handle != nullptr) m_usb.Close(m_handle);
  m_handle = nullptr;
}

// --- bytes ---

bool CCommWinUSB::IsUsable(const void* data) const {
  return m_handle != nullptr && data != nullptr && m_isOpen;
}

bool CCommWinUSB::SendRawData(const std::uint8_t* data, std::int32_t length) {
  if (!IsUsable(data)) {
    m_log.LogWarn("CCommWinUSB: SendRawData: No Interface ");
    return false;
  }
  return m_sendMode == SendMode::Byte ? SendBytes(data, length) : SendBuffer(data, length);
}

bool CCommWinUSB::SendBytes(const std::uint8_t* data, std::int32_t length) {
  for (std::int32_t i = 0; i < length; ++i) {
    int transferred = 0;
    const int result = TransferOut(data + i, 1, &transferred);
    if (result >= 0) continue;
    m_log.LogWarn("CCommWinUSB: Error while sending data: Mode: BYTE, Length: %d, Error: %s",
                  length, m_usb.ErrorName(result));
    return false;
  }
  return true;
}

bool CCommWinUSB::SendBuffer(const std::uint8_t* data, std::int32_t length) {
  int transferred = 0;
  const int result = TransferOut(data, std::max(length, 0), &transferred);
  if (result >= 0) return true;
  m_log.LogWarn("Error while sending data: Mode: BUFFER, Length: %d, Error: %s", transferred,
                m_usb.ErrorName(result));
  return false;
}

int CCommWinUSB::TransferOut(const std::uint8_t* data, std::int32_t length, int* transferred) {
  // libusb takes one mutable pointer for both directions and only reads from it when sending.
  return m_usb.BulkTransfer(m_handle, kBulkOut, const_cast<unsigned char*>(data), length,
                            transferred, static_cast<unsigned>(m_sendTimeoutMs.count()));
}

bool CCommWinUSB::ReceiveRawData(std::uint8_t* buffer, std::int32_t* length) {
  if (!IsUsable(buffer) || length == nullptr) {
    if (m_namedPlace) Reconnect();
    return false;
  }
  int transferred = 0;
  const int result =
      m_usb.BulkTransfer(m_handle, kBulkIn, buffer, *length, &transferred, kBulkInTimeoutMs);
  *length = transferred;
  return result >= 0 || result == LIBUSB_ERROR_TIMEOUT;
}

}  // namespace tavo
