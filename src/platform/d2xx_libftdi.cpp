// D2XX on top of libftdi1.
//
// libftdi1 finds the adapters, opens and sets them up and writes. It is not used to read: its read
// blocks for a latency period of the adapter (16 ms) when nothing waits, while the caller relies on
// being told at once. Instead one bulk-in transfer is always under way for an open adapter, and
// what it brings is queued; to look whether bytes wait is then to let libusb deliver what has
// arrived.
#include <ftdi.h>
#include <libusb.h>
#include <sys/time.h>

#include <algorithm>
#include <deque>
#include <limits>
#include <memory>
#include <new>
#include <tuple>
#include <vector>

#include "platform/d2xx.h"

namespace tavo {
namespace {

using std::chrono::milliseconds;

// Further numbers of the vendor, of which nobody above needs to know more than that they are
// errors.
constexpr D2xxStatus kInsufficientResources = 5;
constexpr D2xxStatus kInvalidParameter = 6;
constexpr D2xxStatus kInvalidBaudRate = 7;

// The adapter opens every packet with its modem and line status.
constexpr std::size_t kPacketStatusBytes = 2;

// Several packets a transfer, so that a long answer does not need one round through us per packet.
constexpr std::size_t kPacketsPerTransfer = 4;

// Bytes kept for a caller who does not read; then the adapter has to keep the rest. One transfer
// may exceed it.
constexpr std::size_t kQueueBound = 4096;

// How long Close waits for the transfer under way. A cancelled transfer comes back at once; only a
// driver that hangs takes longer.
constexpr milliseconds kCancelWait{10};
constexpr int kMaxCancelWaits = 100;

struct FreeFtdi {
  void operator()(ftdi_context* ftdi) const { ftdi_free(ftdi); }
};
struct FreeDeviceList {
  void operator()(ftdi_device_list* list) const { ftdi_list_free2(list); }
};
struct FreeTransfer {
  void operator()(libusb_transfer* transfer) const { libusb_free_transfer(transfer); }
};
using FtdiPointer = std::unique_ptr<ftdi_context, FreeFtdi>;

// The adapters found by one search. Its libusb context owns them, so it lives as long as any of
// them is open.
class AdapterList {
 public:
  bool Search() {
    m_ftdi.reset(ftdi_new());
    ftdi_device_list* list = nullptr;
    // No vendor and product: the ids that the adapter's maker gives its own products.
    if (!m_ftdi || ftdi_usb_find_all(m_ftdi.get(), &list, 0, 0) < 0) return false;
    m_list.reset(list);
    for (; list != nullptr; list = list->next) m_devices.push_back(list->dev);
    return true;
  }

  std::uint32_t Count() const { return static_cast<std::uint32_t>(m_devices.size()); }
  libusb_device* Device(std::size_t index) const { return m_devices[index]; }
  libusb_context* UsbContext() const { return m_ftdi->usb_ctx; }

  // An adapter that does not tell its texts keeps its place in the list, with empty ones.
  D2xxDeviceInfo Describe(std::size_t index) const {
    D2xxDeviceInfo info{};
    std::array<char, std::tuple_size_v<decltype(info.serialNumber)> + 1> serial{};
    std::array<char, std::tuple_size_v<decltype(info.description)> + 1> description{};
    const int result = ftdi_usb_get_strings2(
        m_ftdi.get(), m_devices[index], nullptr, 0, description.data(),
        static_cast<int>(description.size()), serial.data(), static_cast<int>(serial.size()));
    if (result < 0) return info;
    std::copy_n(serial.begin(), info.serialNumber.size(), info.serialNumber.begin());
    std::copy_n(description.begin(), info.description.size(), info.description.begin());
    return info;
  }

 private:
  // Order matters: the list is freed before the context that it lies in.
  FtdiPointer m_ftdi;
  std::unique_ptr<ftdi_device_list, FreeDeviceList> m_list;
  std::vector<libusb_device*> m_devices;  // the list again, by index
};

void HandleEvents(libusb_context* context, milliseconds bound) {
  timeval time{};
  time.tv_sec = static_cast<time_t>(bound.count() / 1000);
  time.tv_usec = static_cast<suseconds_t>(bound.count() % 1000 * 1000);
  libusb_handle_events_timeout_completed(context, &time, nullptr);
}

// The transfer that is always under way, and the bytes it has brought.
//
//   [in flight] --- completes ---> bytes queued --- room in the queue ---> [in flight]
//        |                              |  queue full                          ^
//        | fails, cancelled             +---> [held back] --- Read makes room -+
//        v
//   [failed], for good
class InputStream {
 public:
  InputStream(libusb_device_handle* device, std::uint8_t endpoint, std::size_t packetSize)
      : m_packetSize(packetSize),
        m_buffer(packetSize * kPacketsPerTransfer),
        m_transfer(libusb_alloc_transfer(0)) {
    if (!m_transfer) return;
    libusb_fill_bulk_transfer(m_transfer.get(), device, endpoint, m_buffer.data(),
                              static_cast<int>(m_buffer.size()), &InputStream::OnDone, this, 0);
  }
  InputStream(const InputStream&) = delete;
  InputStream& operator=(const InputStream&) = delete;

  bool Start() {
    if (m_transfer && m_packetSize > kPacketStatusBytes) Submit();
    return m_inFlight;
  }

  // Afterwards nothing is submitted again, even if the transfer was done before it was cancelled.
  void Cancel() {
    m_failed = true;
    if (m_inFlight) libusb_cancel_transfer(m_transfer.get());
  }

  bool InFlight() const { return m_inFlight; }
  bool Failed() const { return m_failed; }
  std::uint32_t Waiting() const { return static_cast<std::uint32_t>(m_queue.size()); }

  std::uint32_t Read(std::span<std::uint8_t> buffer) {
    const std::size_t count = std::min(buffer.size(), m_queue.size());
    const auto end = m_queue.begin() + static_cast<std::ptrdiff_t>(count);
    std::copy(m_queue.begin(), end, buffer.begin());
    m_queue.erase(m_queue.begin(), end);
    if (!m_inFlight) SubmitIfRoom();
    return static_cast<std::uint32_t>(count);
  }

 private:
  static void LIBUSB_CALL OnDone(libusb_transfer* transfer) {
    static_cast<InputStream*>(transfer->user_data)->Done();
  }

  // Called through libusb's C code, which no exception may cross.
  void Done() noexcept {
    m_inFlight = false;
    if (m_transfer->status != LIBUSB_TRANSFER_COMPLETED) m_failed = true;
    if (m_failed) return;
    const auto arrived = static_cast<std::size_t>(std::max(m_transfer->actual_length, 0));
    try {
      Append({m_buffer.data(), std::min(arrived, m_buffer.size())});
    } catch (const std::bad_alloc&) {
      m_failed = true;  // bytes are missing now; the adapter must be opened anew
    }
    SubmitIfRoom();
  }

  void Append(std::span<const std::uint8_t> bytes) {
    while (bytes.size() > kPacketStatusBytes) {
      const auto packet = bytes.first(std::min(m_packetSize, bytes.size()));
      const auto data = packet.subspan(kPacketStatusBytes);
      m_queue.insert(m_queue.end(), data.begin(), data.end());
      bytes = bytes.subspan(packet.size());
    }
  }

  void SubmitIfRoom() {
    if (!m_failed && m_queue.size() < kQueueBound) Submit();
  }

  void Submit() {
    m_inFlight = libusb_submit_transfer(m_transfer.get()) == LIBUSB_SUCCESS;
    m_failed = !m_inFlight;
  }

  std::size_t m_packetSize;
  std::vector<std::uint8_t> m_buffer;
  std::unique_ptr<libusb_transfer, FreeTransfer> m_transfer;
  std::deque<std::uint8_t> m_queue;
  bool m_inFlight = false;
  bool m_failed = false;
};

// An open adapter.
class Adapter {
 public:
  explicit Adapter(std::shared_ptr<const AdapterList> list)
      : m_list(std::move(list)), m_ftdi(ftdi_new()) {}
  Adapter(const Adapter&) = delete;
  Adapter& operator=(const Adapter&) = delete;

  ~Adapter() {
    if (m_input) StopInput();
    if (m_ftdi) ftdi_usb_close(m_ftdi.get());
  }

  D2xxStatus Open(std::size_t index) {
    if (!m_ftdi) return kInsufficientResources;
    if (ftdi_usb_open_dev(m_ftdi.get(), m_list->Device(index)) < 0) return kD2xxDeviceNotOpened;
    // The library names its endpoints as the adapter sees them: what goes out of the adapter is
    // what we read.
    m_input = std::make_unique<InputStream>(
        m_ftdi->usb_dev, static_cast<std::uint8_t>(m_ftdi->out_ep), m_ftdi->max_packet_size);
    return m_input->Start() ? kD2xxOk : kD2xxIoError;
  }

  ftdi_context* Ftdi() { return m_ftdi.get(); }
  InputStream& Input() { return *m_input; }

  // Lets libusb deliver what has arrived; waits for it at most for `bound`.
  void Service(milliseconds bound) { HandleEvents(m_list->UsbContext(), bound); }

 private:
  void StopInput() {
    m_input->Cancel();
    for (int wait = 0; m_input->InFlight() && wait < kMaxCancelWaits; ++wait) Service(kCancelWait);
    // A transfer that does not come back still belongs to libusb: better lost than written to
    // after it was freed.
    if (m_input->InFlight()) static_cast<void>(m_input.release());
    m_input.reset();
  }

  // Order matters: the device goes before its list.
  std::shared_ptr<const AdapterList> m_list;
  FtdiPointer m_ftdi;
  std::unique_ptr<InputStream> m_input;
};

Adapter& Opened(D2xxHandle handle) { return *static_cast<Adapter*>(handle); }

D2xxStatus IoStatus(bool failed) { return failed ? kD2xxIoError : kD2xxOk; }

class LibftdiD2xx final : public D2xx {
 public:
  D2xxStatus CreateDeviceInfoList(std::uint32_t* count) override {
    *count = 0;
    m_list.reset();  // adapters that are open keep what they need of it
    auto list = std::make_shared<AdapterList>();
    if (!list->Search()) return kD2xxIoError;
    m_list = std::move(list);
    *count = m_list->Count();
    return kD2xxOk;
  }

  D2xxStatus GetDeviceInfoList(std::span<D2xxDeviceInfo> devices, std::uint32_t* count) override {
    *count = 0;
    if (!m_list) return kD2xxDeviceNotFound;
    const std::size_t taken = std::min<std::size_t>(devices.size(), m_list->Count());
    for (std::size_t i = 0; i < taken; ++i) devices[i] = m_list->Describe(i);
    *count = static_cast<std::uint32_t>(taken);
    return kD2xxOk;
  }

  D2xxStatus Open(std::uint32_t index, D2xxHandle* handle) override {
    *handle = nullptr;
    if (!m_list || index >= m_list->Count()) return kD2xxDeviceNotFound;
    auto adapter = std::make_unique<Adapter>(m_list);
    const D2xxStatus status = adapter->Open(index);
    if (status == kD2xxOk) *handle = adapter.release();
    return status;
  }

  D2xxStatus SetBaudRate(D2xxHandle handle, std::uint32_t baudRate) override {
    if (baudRate > std::numeric_limits<int>::max()) return kInvalidBaudRate;
    constexpr int kUnsupported = -1;
    const int result = ftdi_set_baudrate(Opened(handle).Ftdi(), static_cast<int>(baudRate));
    return result == kUnsupported ? kInvalidBaudRate : IoStatus(result < 0);
  }

  D2xxStatus SetDataCharacteristics(D2xxHandle handle, std::uint8_t wordLength,
                                    std::uint8_t stopBits, std::uint8_t parity) override {
    // The vendor's codes are the library's own, but one and a half stop bits is only the library's.
    if ((wordLength != BITS_7 && wordLength != BITS_8) ||
        (stopBits != STOP_BIT_1 && stopBits != STOP_BIT_2) || parity > SPACE) {
      return kInvalidParameter;
    }
    const int result = ftdi_set_line_property(
        Opened(handle).Ftdi(), static_cast<ftdi_bits_type>(wordLength),
        static_cast<ftdi_stopbits_type>(stopBits), static_cast<ftdi_parity_type>(parity));
    return IoStatus(result < 0);
  }

  D2xxStatus Close(D2xxHandle handle) override {
    delete static_cast<Adapter*>(handle);
    return kD2xxOk;
  }

  // Bounded by the library's own write timeout, five seconds.
  D2xxStatus Write(D2xxHandle handle, std::span<const std::uint8_t> data,
                   std::uint32_t* written) override {
    const int result =
        ftdi_write_data(Opened(handle).Ftdi(), data.data(), static_cast<int>(data.size()));
    *written = static_cast<std::uint32_t>(std::max(result, 0));
    return IoStatus(result < 0);
  }

  D2xxStatus GetStatus(D2xxHandle handle, std::uint32_t* receiveQueue, std::uint32_t* transmitQueue,
                       std::uint32_t* eventState) override {
    Adapter& adapter = Opened(handle);
    adapter.Service(milliseconds{0});
    *receiveQueue = adapter.Input().Waiting();
    // Writes end only when the adapter has taken the bytes, and no events are asked for.
    *transmitQueue = 0;
    *eventState = 0;
    return IoStatus(adapter.Input().Failed());
  }

  D2xxStatus Read(D2xxHandle handle, std::span<std::uint8_t> buffer,
                  std::uint32_t* received) override {
    InputStream& input = Opened(handle).Input();
    *received = input.Read(buffer);
    return IoStatus(input.Failed());
  }

  void WaitForInput(D2xxHandle handle, milliseconds bound) override {
    Adapter& adapter = Opened(handle);
    if (adapter.Input().Waiting() == 0) adapter.Service(bound);
  }

 private:
  std::shared_ptr<const AdapterList> m_list;
};

}  // namespace

std::unique_ptr<D2xx> MakeSystemD2xx() { return std::make_unique<LibftdiD2xx>(); }

}  // namespace tavo
