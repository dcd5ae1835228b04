// An FTD2XX.dll for programs and tests that meet simulated adapters only: the part of the vendor's
// interface that this project calls, on top of the substitute libusb, which finds the adapters.
//
// Differences from the real one: FT_Read never waits and returns the bytes it has; an adapter is read
// only during a call; once an adapter is lost, every call reports it until the adapter is closed. It
// shares no code with the library's own adapter code for Linux, so that neither hides a mistake of the
// other.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "simulator/substitute_libusb/libusb_api.h"

namespace {

// The vendor's numbers.
enum Status : std::uint32_t {
  kOk = 0,
  kInvalidHandle = 1,
  kDeviceNotFound = 2,
  kDeviceNotOpened = 3,
  kIoError = 4,
  kInvalidParameter = 6,
  kInvalidBaudRate = 7,
};
constexpr std::uint32_t kFlagOpened = 1;
constexpr std::uint32_t kType232R = 5;

struct Record {
  std::uint32_t flags = 0;
  std::uint32_t type = 0;
  std::uint32_t id = 0;
  std::uint32_t locationId = 0;
  std::array<char, 16> serialNumber{};
  std::array<char, 64> description{};
  void* handle = nullptr;
};
static_assert(sizeof(Record) == 96 + sizeof(void*));

constexpr std::uint16_t kVendor = 0x0403;
constexpr std::uint16_t kProduct = 0x6001;
constexpr unsigned char kEndpointIn = 0x81;
constexpr unsigned char kEndpointOut = 0x02;
constexpr std::size_t kPacketSize = 64;
constexpr std::size_t kPacketStatusBytes = 2;  // the modem and line status that opens every packet

enum Request : std::uint8_t {
  kReset = 0,
  kSetBaud = 3,
  kSetFormat = 4,
  kSetLatency = 9,
  kGetLatency = 10,
};

// Defaults of the vendor's driver.
constexpr std::uint16_t kLatencyMs = 16;
constexpr std::size_t kTransferSize = 4096;
constexpr std::size_t kQueueBound = 64 * 1024;  // one transfer may exceed it

constexpr unsigned kRequestTimeoutMs = 1000;
constexpr unsigned kWriteTimeoutMs = 5000;

// How long closing waits for the transfer under way.
constexpr timeval kCancelWait{0, 10'000};
constexpr int kMaxCancelWaits = 100;

void HandleEvents(libusb_context* context, timeval limit) {
  libusb_handle_events_timeout_completed(context, &limit, nullptr);
}

// An open adapter. One bulk-in transfer is under way, or the queue is full, or the adapter is lost.
class Adapter {
 public:
  // Takes `handle` over.
  Adapter(libusb_context* context, libusb_device_handle* handle)
      : m_context(context), m_handle(handle) {
    libusb_fill_bulk_transfer(m_transfer, handle, kEndpointIn, m_buffer.data(),
                              static_cast<int>(m_buffer.size()), &Adapter::OnDone, this, 0);
  }
  Adapter(const Adapter&) = delete;
  Adapter& operator=(const Adapter&) = delete;

  ~Adapter() {
    m_lost = true;  // nothing is submitted again
    if (m_inFlight) libusb_cancel_transfer(m_transfer);
    for (int i = 0; m_inFlight && i < kMaxCancelWaits; ++i) HandleEvents(m_context, kCancelWait);
    libusb_close(m_handle);
    libusb_free_transfer(m_transfer);
  }

  bool Start() {
    libusb_set_auto_detach_kernel_driver(m_handle, 1);
    if (libusb_claim_interface(m_handle, 0) != LIBUSB_SUCCESS) return false;
    if (Send(kReset, 0) != kOk || Send(kSetLatency, kLatencyMs) != kOk) return false;
    Submit();
    return !m_lost;
  }

  libusb_device_handle* Handle() const { return m_handle; }

  Status Send(Request request, std::uint16_t value, std::uint16_t index = 0) {
    constexpr std::uint8_t kToDevice = LIBUSB_REQUEST_TYPE_VENDOR;
    const int result = libusb_control_transfer(m_handle, kToDevice, request, value, index, nullptr,
                                               0, kRequestTimeoutMs);
    return result < 0 ? kIoError : kOk;
  }

  Status ReadByte(Request request, std::uint8_t& value) {
    constexpr std::uint8_t kFromDevice = 0xC0;  // a vendor's request
    const int result = libusb_control_transfer(m_handle, kFromDevice, request, 0, 0, &value,
                                               sizeof value, kRequestTimeoutMs);
    return result == sizeof value ? kOk : kIoError;
  }

  // As the vendor's, a write that runs out of time succeeds with fewer bytes.
  Status Write(std::span<unsigned char> bytes, std::uint32_t& written) {
    int error = LIBUSB_SUCCESS;
    while (!bytes.empty() && error == LIBUSB_SUCCESS) {
      const int part = static_cast<int>(std::min(bytes.size(), kTransferSize));
      int sent = 0;
      error =
          libusb_bulk_transfer(m_handle, kEndpointOut, bytes.data(), part, &sent, kWriteTimeoutMs);
      bytes = bytes.subspan(static_cast<std::size_t>(sent));
      written += static_cast<std::uint32_t>(sent);
    }
    return error == LIBUSB_SUCCESS || error == LIBUSB_ERROR_TIMEOUT ? kOk : kIoError;
  }

  Status Look(std::uint32_t& waiting) {
    HandleEvents(m_context, {});
    waiting = static_cast<std::uint32_t>(m_queue.size());
    return m_lost ? kIoError : kOk;
  }

  Status Read(std::span<unsigned char> buffer, std::uint32_t& received) {
    HandleEvents(m_context, {});
    const std::size_t count = std::min(buffer.size(), m_queue.size());
    const auto end = m_queue.begin() + static_cast<std::ptrdiff_t>(count);
    std::copy(m_queue.begin(), end, buffer.begin());
    m_queue.erase(m_queue.begin(), end);
    SubmitIfRoom();
    received = static_cast<std::uint32_t>(count);
    return m_lost ? kIoError : kOk;
  }

 private:
  static void LIBUSB_CALL OnDone(libusb_transfer* transfer) {
    static_cast<Adapter*>(transfer->user_data)->Done();
  }

  void Done() {
    m_inFlight = false;
    if (m_transfer->status != LIBUSB_TRANSFER_COMPLETED) m_lost = true;
    Append(std::span(m_buffer).first(static_cast<std::size_t>(m_transfer->actual_length)));
    SubmitIfRoom();
  }

  void Append(std::span<const unsigned char> bytes) {
    while (bytes.size() > kPacketStatusBytes) {
      const auto packet = bytes.first(std::min(kPacketSize, bytes.size()));
      m_queue.insert(m_queue.end(), packet.begin() + kPacketStatusBytes, packet.end());
      bytes = bytes.subspan(packet.size());
    }
  }

  void SubmitIfRoom() {
    if (!m_lost && !m_inFlight && m_queue.size() < kQueueBound) Submit();
  }

  void Submit() {
    m_inFlight = libusb_submit_transfer(m_transfer) == LIBUSB_SUCCESS;
    m_lost = !m_inFlight;
  }

  libusb_context* m_context;
  libusb_device_handle* m_handle;
  libusb_transfer* m_transfer = libusb_alloc_transfer(0);
  std::array<unsigned char, kTransferSize> m_buffer{};
  std::deque<unsigned char> m_queue;
  bool m_inFlight = false;
  bool m_lost = false;
};

struct Listed {
  libusb_device* device;  // referenced
  Record record;
};

struct Library {
  std::mutex mutex;  // over everything: the library may be called from several threads
  libusb_context* context = nullptr;
  std::vector<Listed> list;
  std::vector<std::unique_ptr<Adapter>> open;
};

// Never destroyed: while the library is unloaded, connections can no longer be ended in good order.
Library& TheLibrary() {
  static Library& library = *new Library;
  return library;
}

template <std::size_t kSize>
void ReadText(libusb_device_handle* handle, std::uint8_t index, std::array<char, kSize>& to) {
  libusb_get_string_descriptor_ascii(handle, index, reinterpret_cast<unsigned char*>(to.data()),
                                     static_cast<int>(to.size()));
}

bool IsAdapter(libusb_device* device) {
  libusb_device_descriptor descriptor{};
  libusb_get_device_descriptor(device, &descriptor);
  return descriptor.idVendor == kVendor && descriptor.idProduct == kProduct;
}

void Describe(libusb_device* device, libusb_device_handle* handle, Record& record) {
  libusb_device_descriptor descriptor{};
  libusb_get_device_descriptor(device, &descriptor);
  record.type = kType232R;
  record.id = std::uint32_t{kVendor} << 16 | kProduct;
  record.locationId = static_cast<std::uint32_t>(libusb_get_bus_number(device) << 8 |
                                                 libusb_get_port_number(device));
  ReadText(handle, descriptor.iSerialNumber, record.serialNumber);
  ReadText(handle, descriptor.iProduct, record.description);
}

// Nothing else is known about an adapter that another program has open.
Record Describe(const Library& library, libusb_device* device) {
  Record record{.flags = kFlagOpened};
  const auto mine = std::ranges::find_if(library.open, [device](const auto& adapter) {
    return libusb_get_device(adapter->Handle()) == device;
  });
  if (mine != library.open.end()) {
    record.handle = mine->get();
    Describe(device, (*mine)->Handle(), record);
    return record;
  }
  libusb_device_handle* handle = nullptr;
  if (libusb_open(device, &handle) != LIBUSB_SUCCESS) return record;
  record.flags = 0;
  Describe(device, handle, record);
  libusb_close(handle);
  return record;
}

void Search(Library& library) {
  if (library.context == nullptr) libusb_init(&library.context);
  libusb_device** found = nullptr;
  libusb_get_device_list(library.context, &found);
  std::vector<Listed> list;
  for (libusb_device** device = found; *device != nullptr; ++device)
    if (IsAdapter(*device))
      list.push_back({libusb_ref_device(*device), Describe(library, *device)});
  libusb_free_device_list(found, 1);
  library.list.swap(list);
  for (const Listed& old : list) libusb_unref_device(old.device);
}

Status Open(Library& library, libusb_device* device, void** result) {
  libusb_device_handle* handle = nullptr;
  if (libusb_open(device, &handle) != LIBUSB_SUCCESS) return kDeviceNotOpened;
  auto adapter = std::make_unique<Adapter>(library.context, handle);
  if (!adapter->Start()) return kIoError;
  *result = library.open.emplace_back(std::move(adapter)).get();
  return kOk;
}

// The divisor of 3 MHz in eighths; below 2 it can be 1 and 1.5 only. None when it cannot be set.
std::optional<std::uint32_t> EighthsFor(std::uint32_t baudRate) {
  constexpr std::uint32_t kHighestBaud = 3'000'000;
  constexpr std::uint32_t kMostEighths = 0x3FFF * 8 + 7;
  if (baudRate == 0 || baudRate > kHighestBaud) return std::nullopt;
  const std::uint32_t eighths = (kHighestBaud * 8 + baudRate / 2) / baudRate;
  const bool possible = eighths == 8 || eighths == 12 || (eighths >= 16 && eighths <= kMostEighths);
  return possible ? std::optional(eighths) : std::nullopt;
}

Status SetBaud(Adapter& adapter, std::uint32_t eighths) {
  static constexpr std::array<std::uint32_t, 8> kFractionCodes{0, 3, 2, 4, 1, 5, 6, 7};
  const std::uint32_t fraction = kFractionCodes[eighths % 8];
  std::uint32_t value = eighths / 8 | (fraction & 3) << 14;
  if (eighths == 8) value = 0;
  if (eighths == 12) value = 1;
  const std::uint32_t index = eighths < 16 ? 0 : fraction >> 2;
  return adapter.Send(kSetBaud, static_cast<std::uint16_t>(value),
                      static_cast<std::uint16_t>(index));
}

// Calls `use` with the open adapter, while every other call waits.
template <class Use>
Status WithAdapter(void* handle, Use use) {
  Library& library = TheLibrary();
  const std::lock_guard lock(library.mutex);
  const auto found = std::ranges::find(library.open, handle, &std::unique_ptr<Adapter>::get);
  return found == library.open.end() ? kInvalidHandle : use(**found);
}

}  // namespace

#define TAVO_VENDOR_FUNCTION extern "C" __declspec(dllexport) std::uint32_t __stdcall

TAVO_VENDOR_FUNCTION FT_CreateDeviceInfoList(std::uint32_t* count) {
  Library& library = TheLibrary();
  const std::lock_guard lock(library.mutex);
  Search(library);
  *count = static_cast<std::uint32_t>(library.list.size());
  return kOk;
}

// Fills as many records as were listed, however few the caller expects: so does the vendor's.
TAVO_VENDOR_FUNCTION FT_GetDeviceInfoList(Record* records, std::uint32_t* count) {
  Library& library = TheLibrary();
  const std::lock_guard lock(library.mutex);
  std::ranges::transform(library.list, records, &Listed::record);
  *count = static_cast<std::uint32_t>(library.list.size());
  return kOk;
}

TAVO_VENDOR_FUNCTION FT_Open(int index, void** handle) {
  Library& library = TheLibrary();
  const std::lock_guard lock(library.mutex);
  *handle = nullptr;
  const auto at = static_cast<std::size_t>(index);
  if (index < 0 || at >= library.list.size()) return kDeviceNotFound;
  return Open(library, library.list[at].device, handle);
}

TAVO_VENDOR_FUNCTION FT_SetBaudRate(void* handle, std::uint32_t baudRate) {
  const std::optional<std::uint32_t> eighths = EighthsFor(baudRate);
  return WithAdapter(handle, [eighths](Adapter& adapter) {
    return eighths ? SetBaud(adapter, *eighths) : kInvalidBaudRate;
  });
}

TAVO_VENDOR_FUNCTION FT_SetDataCharacteristics(void* handle, std::uint8_t wordLength,
                                               std::uint8_t stopBits, std::uint8_t parity) {
  const bool sound =
      (wordLength == 7 || wordLength == 8) && (stopBits == 0 || stopBits == 2) && parity <= 4;
  const int format = wordLength | parity << 8 | stopBits << 11;
  return WithAdapter(handle, [sound, format](Adapter& adapter) {
    return sound ? adapter.Send(kSetFormat, static_cast<std::uint16_t>(format)) : kInvalidParameter;
  });
}

TAVO_VENDOR_FUNCTION FT_GetLatencyTimer(void* handle, std::uint8_t* latencyMs) {
  return WithAdapter(handle,
                     [&](Adapter& adapter) { return adapter.ReadByte(kGetLatency, *latencyMs); });
}

TAVO_VENDOR_FUNCTION FT_SetLatencyTimer(void* handle, std::uint8_t latencyMs) {
  return WithAdapter(handle,
                     [&](Adapter& adapter) { return adapter.Send(kSetLatency, latencyMs); });
}

TAVO_VENDOR_FUNCTION FT_Close(void* handle) {
  Library& library = TheLibrary();
  const std::lock_guard lock(library.mutex);
  const auto erased =
      std::erase_if(library.open, [handle](const auto& one) { return one.get() == handle; });
  return erased == 0 ? kInvalidHandle : kOk;
}

TAVO_VENDOR_FUNCTION FT_Write(void* handle, void* data, std::uint32_t length,
                              std::uint32_t* written) {
  *written = 0;
  return WithAdapter(handle, [&](Adapter& adapter) {
    return adapter.Write({static_cast<unsigned char*>(data), length}, *written);
  });
}

// Nothing waits to be sent, because FT_Write ends when the adapter has the bytes; and no events can
// be asked for.
TAVO_VENDOR_FUNCTION FT_GetStatus(void* handle, std::uint32_t* receiveQueue,
                                  std::uint32_t* transmitQueue, std::uint32_t* eventState) {
  *receiveQueue = *transmitQueue = *eventState = 0;
  return WithAdapter(handle, [&](Adapter& adapter) { return adapter.Look(*receiveQueue); });
}

TAVO_VENDOR_FUNCTION FT_Read(void* handle, void* buffer, std::uint32_t length,
                             std::uint32_t* received) {
  *received = 0;
  return WithAdapter(handle, [&](Adapter& adapter) {
    return adapter.Read({static_cast<unsigned char*>(buffer), length}, *received);
  });
}
