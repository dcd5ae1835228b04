#include <algorithm>
#include <memory>
#include <type_traits>
#include <vector>

#include "platform/d2xx.h"
#include "platform/dynamic_library.h"
#include "platform/platform.h"

namespace tavo {
namespace {

constexpr const char* kLibrary = "FTD2XX.dll";

constexpr std::chrono::milliseconds kInputPollPace{1};

// One adapter in the vendor's memory layout.
struct VendorRecord {
  std::uint32_t flags;
  std::uint32_t type;
  std::uint32_t id;
  std::uint32_t locationId;
  std::array<char, 16> serialNumber;
  std::array<char, 64> description;
  D2xxHandle handle;
};
static_assert(offsetof(VendorRecord, serialNumber) == 16);
static_assert(offsetof(VendorRecord, description) == 32);
static_assert(sizeof(VendorRecord) == 96 + sizeof(void*));

// The vendor's unsigned long has 32 bits.
struct VendorFunctions {
  D2xxStatus(__stdcall* createDeviceInfoList)(std::uint32_t* count);
  D2xxStatus(__stdcall* getDeviceInfoList)(VendorRecord* records, std::uint32_t* count);
  D2xxStatus(__stdcall* open)(int index, D2xxHandle* handle);
  D2xxStatus(__stdcall* setBaudRate)(D2xxHandle handle, std::uint32_t baudRate);
  D2xxStatus(__stdcall* setDataCharacteristics)(D2xxHandle handle, std::uint8_t wordLength,
                                                std::uint8_t stopBits, std::uint8_t parity);
  D2xxStatus(__stdcall* close)(D2xxHandle handle);
  D2xxStatus(__stdcall* write)(D2xxHandle handle, void* data, std::uint32_t length,
                               std::uint32_t* written);
  D2xxStatus(__stdcall* getStatus)(D2xxHandle handle, std::uint32_t* receiveQueue,
                                   std::uint32_t* transmitQueue, std::uint32_t* eventState);
  D2xxStatus(__stdcall* read)(D2xxHandle handle, void* buffer, std::uint32_t length,
                              std::uint32_t* received);
  // Missing in old versions.
  D2xxStatus(__stdcall* getLatencyTimer)(D2xxHandle handle, std::uint8_t* latencyMs);
  D2xxStatus(__stdcall* setLatencyTimer)(D2xxHandle handle, std::uint8_t latencyMs);
};

// The vendor's library does not read the texts of an adapter that is open already.
D2xxStatus StatusOf(const VendorRecord& record) {
  constexpr std::uint32_t kOpened = 1;
  const bool hasTexts = record.serialNumber[0] != '\0' || record.description[0] != '\0';
  return (record.flags & kOpened) != 0 && !hasTexts ? kD2xxDeviceNotOpened : kD2xxOk;
}

template <typename Function>
bool Find(const char* name, Function* function) {
  *function = reinterpret_cast<Function>(FindLibraryFunction(kLibrary, name));
  return *function != nullptr;
}

// False when the library is missing or too old.
bool FindAll(VendorFunctions* vendor) {
  Find("FT_GetLatencyTimer", &vendor->getLatencyTimer);
  Find("FT_SetLatencyTimer", &vendor->setLatencyTimer);
  return Find("FT_CreateDeviceInfoList", &vendor->createDeviceInfoList) &&
         Find("FT_GetDeviceInfoList", &vendor->getDeviceInfoList) &&
         Find("FT_Open", &vendor->open) && Find("FT_SetBaudRate", &vendor->setBaudRate) &&
         Find("FT_SetDataCharacteristics", &vendor->setDataCharacteristics) &&
         Find("FT_Close", &vendor->close) && Find("FT_Write", &vendor->write) &&
         Find("FT_GetStatus", &vendor->getStatus) && Find("FT_Read", &vendor->read);
}

class VendorD2xx final : public D2xx {
 public:
  // The library is loaded when adapters are first looked for.
  D2xxStatus CreateDeviceInfoList(std::uint32_t* count) override {
    *count = 0;
    if (!m_present) m_present = FindAll(&m_vendor);
    if (!m_present) return kD2xxDeviceNotFound;
    const D2xxStatus status = m_vendor.createDeviceInfoList(count);
    m_listed = 0;
    if (status != kD2xxOk) return status;
    if (*count > kMaxAdapters) {
      *count = 0;
      return kD2xxDeviceNotFound;
    }
    m_listed = *count;
    return kD2xxOk;
  }

  D2xxStatus GetDeviceInfoList(std::span<D2xxDeviceInfo> devices, std::uint32_t* count) override {
    *count = 0;
    if (!m_present || m_listed == 0) return kD2xxDeviceNotFound;
    // The library fills in every adapter that it has listed, however few we ask for.
    std::vector<VendorRecord> records(m_listed);
    std::uint32_t filled = m_listed;
    const D2xxStatus status = m_vendor.getDeviceInfoList(records.data(), &filled);
    const std::size_t taken = std::min({std::size_t{filled}, records.size(), devices.size()});
    for (std::size_t i = 0; i < taken; ++i) {
      devices[i] = {StatusOf(records[i]), records[i].serialNumber, records[i].description};
    }
    *count = static_cast<std::uint32_t>(taken);
    return status;
  }

  void ForgetDeviceInfoList() override { m_listed = 0; }

  // An adapter is opened only after it was listed, so from here on the library is present.

  D2xxStatus Open(std::uint32_t index, D2xxHandle* handle) override {
    *handle = nullptr;
    return m_present ? m_vendor.open(static_cast<int>(index), handle) : kD2xxDeviceNotFound;
  }

  D2xxStatus SetBaudRate(D2xxHandle handle, std::uint32_t baudRate) override {
    return m_vendor.setBaudRate(handle, baudRate);
  }

  D2xxStatus SetDataCharacteristics(D2xxHandle handle, std::uint8_t wordLength,
                                    std::uint8_t stopBits, std::uint8_t parity) override {
    return m_vendor.setDataCharacteristics(handle, wordLength, stopBits, parity);
  }

  D2xxStatus GetLatencyTimer(D2xxHandle handle, std::uint8_t* latencyMs) override {
    return m_vendor.getLatencyTimer == nullptr ? kD2xxNotSupported
                                               : m_vendor.getLatencyTimer(handle, latencyMs);
  }

  D2xxStatus SetLatencyTimer(D2xxHandle handle, std::uint8_t latencyMs) override {
    return m_vendor.setLatencyTimer == nullptr ? kD2xxNotSupported
                                               : m_vendor.setLatencyTimer(handle, latencyMs);
  }

  D2xxStatus Close(D2xxHandle handle) override { return m_vendor.close(handle); }

  D2xxStatus Write(D2xxHandle handle, std::span<const std::uint8_t> data,
                   std::uint32_t* written) override {
    // The library takes a mutable pointer but does not change the bytes.
    return m_vendor.write(handle, const_cast<std::uint8_t*>(data.data()),
                          static_cast<std::uint32_t>(data.size()), written);
  }

  D2xxStatus GetStatus(D2xxHandle handle, std::uint32_t* receiveQueue, std::uint32_t* transmitQueue,
                       std::uint32_t* eventState) override {
    return m_vendor.getStatus(handle, receiveQueue, transmitQueue, eventState);
  }

  D2xxStatus Read(D2xxHandle handle, std::span<std::uint8_t> buffer,
                  std::uint32_t* received) override {
    return m_vendor.read(handle, buffer.data(), static_cast<std::uint32_t>(buffer.size()),
                         received);
  }

  void WaitForInput(D2xxHandle handle, std::chrono::milliseconds bound) override {
    Platform& platform = SystemPlatform();
    // A sleep may take much longer than requested, hence the clock.
    const std::chrono::milliseconds start = platform.MonotonicNow();
    while (!InputWaiting(handle) && platform.MonotonicNow() - start < bound) {
      platform.Sleep(kInputPollPace);
    }
  }

 private:
  bool InputWaiting(D2xxHandle handle) {
    std::uint32_t receiveQueue = 0;
    std::uint32_t transmitQueue = 0;
    std::uint32_t eventState = 0;
    m_vendor.getStatus(handle, &receiveQueue, &transmitQueue, &eventState);
    return receiveQueue > 0;
  }

  VendorFunctions m_vendor{};
  bool m_present = false;
  std::uint32_t m_listed = 0;  // records that the library fills in
};

}  // namespace

std::unique_ptr<D2xx> MakeSystemD2xx() { return std::make_unique<VendorD2xx>(); }

}  // namespace tavo
