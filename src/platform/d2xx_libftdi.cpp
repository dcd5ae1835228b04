// D2XX on top of libftdi1.
//
// libftdi1 finds the adapters, opens them, sets them up and writes. It does not read: its read
// blocks for one of the adapter's latency periods (16 ms) when nothing waits, while our caller must
// learn that at once. FtdiInputStream reads instead.
#include <ftdi.h>
#include <libusb.h>
#include <sys/time.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/d2xx.h"
#include "platform/ftdi_input_stream.h"
#include "platform/platform.h"

namespace tavo {
namespace {

using std::chrono::milliseconds;

// More of the vendor's error numbers, which nothing above distinguishes.
constexpr D2xxStatus kInsufficientResources = 5;
constexpr D2xxStatus kInvalidParameter = 6;
constexpr D2xxStatus kInvalidBaudRate = 7;

// libftdi1's result for a baud rate that an adapter does not have.
constexpr int kUnsupported = -1;

// Several packets per transfer, so that a long answer does not take one round through us per packet.
constexpr std::size_t kPacketsPerTransfer = 4;

// How long Close waits for the transfer in flight. A cancelled transfer ends at once; only a driver
// that hangs takes longer.
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

D2xxStatus StatusOf(int libusbError) {
  switch (libusbError) {
    case LIBUSB_SUCCESS: return kD2xxOk;
    case LIBUSB_ERROR_ACCESS: return kD2xxOtherError;
    case LIBUSB_ERROR_BUSY: return kD2xxDeviceNotOpened;
    case LIBUSB_ERROR_NO_DEVICE:
    case LIBUSB_ERROR_NOT_FOUND: return kD2xxDeviceNotFound;
    default: return kD2xxIoError;
  }
}

// A device opened without claiming any part of it.
class OpenedDevice {
 public:
  explicit OpenedDevice(libusb_device* device) : m_result(libusb_open(device, &m_handle)) {}
  OpenedDevice(const OpenedDevice&) = delete;
  OpenedDevice& operator=(const OpenedDevice&) = delete;
  ~OpenedDevice() {
    if (m_handle != nullptr) libusb_close(m_handle);
  }

  int Result() const { return m_result; }
  libusb_device_handle* Handle() const { return m_handle; }

  // An index of 0 stands for an empty text.
  template <std::size_t kCapacity>
  D2xxStatus ReadText(std::uint8_t index, std::array<char, kCapacity>& text) const {
    std::array<unsigned char, kCapacity + 1> buffer{};
    const int length = index == 0 ? 0
                                  : libusb_get_string_descriptor_ascii(
                                        m_handle, index, buffer.data(), kCapacity + 1);
    if (length < 0) return StatusOf(length);
    std::copy_n(buffer.begin(), kCapacity, text.begin());
    return kD2xxOk;
  }

 private:
  libusb_device_handle* m_handle = nullptr;
  int m_result;
};

// One channel of an adapter; most adapters have a single one.
struct Channel {
  libusb_device* device;
  ftdi_interface interface;  // INTERFACE_ANY: the only one
};

constexpr int kMaxChannels = INTERFACE_D;

int CountChannels(libusb_device* device) {
  libusb_config_descriptor* configuration = nullptr;
  if (libusb_get_active_config_descriptor(device, &configuration) < 0) return 1;
  const int count = configuration->bNumInterfaces;
  libusb_free_config_descriptor(configuration);
  return std::clamp(count, 1, kMaxChannels);
}

// Adds the channel's name to a text, which gives way where it is too long.
template <std::size_t kCapacity>
void Append(const std::string& name, std::array<char, kCapacity>& text) {
  const auto end = std::find(text.begin(), text.end() - std::ssize(name), '\0');
  std::copy(name.begin(), name.end(), end);
}

// The adapters found by one search. Its libusb context owns them, so it lives as long as any of
// them is open.
class AdapterList {
 public:
  bool Search() {
    m_ftdi.reset(ftdi_new());
    ftdi_device_list* list = nullptr;
    // Vendor and product 0: every id that the adapter's maker gives its own products.
    if (!m_ftdi || ftdi_usb_find_all(m_ftdi.get(), &list, 0, 0) < 0) return false;
    m_list.reset(list);
    for (; list != nullptr; list = list->next) AddChannels(list->dev);
    return true;
  }

  std::uint32_t Count() const { return static_cast<std::uint32_t>(m_channels.size()); }
  const Channel& At(std::size_t index) const { return m_channels[index]; }
  libusb_context* UsbContext() const { return m_ftdi->usb_ctx; }

  // An adapter whose texts cannot be read keeps its place in the list. A channel is named as the
  // vendor's library names it: by a letter behind serial number and description.
  D2xxDeviceInfo Describe(std::size_t index) const {
    const Channel& channel = m_channels[index];
    D2xxDeviceInfo info{};
    libusb_device_descriptor descriptor{};
    libusb_get_device_descriptor(channel.device, &descriptor);
    const OpenedDevice opened(channel.device);
    info.status = StatusOf(opened.Result());
    if (info.status == kD2xxOk) {
      info.status = opened.ReadText(descriptor.iSerialNumber, info.serialNumber);
    }
    if (info.status == kD2xxOk) {
      info.status = opened.ReadText(descriptor.iProduct, info.description);
    }
    if (info.status != kD2xxOk || channel.interface == INTERFACE_ANY) return info;
    const std::string letter(1, static_cast<char>('A' + (channel.interface - INTERFACE_A)));
    Append(letter, info.serialNumber);
    Append(" " + letter, info.description);
    return info;
  }

 private:
  void AddChannels(libusb_device* device) {
    const int count = CountChannels(device);
    if (count == 1) return m_channels.push_back({device, INTERFACE_ANY});
    for (int channel = INTERFACE_A; channel <= count; ++channel) {
      m_channels.push_back({device, static_cast<ftdi_interface>(channel)});
    }
  }

  // Order matters: the list is freed before the context that it lies in.
  FtdiPointer m_ftdi;
  std::unique_ptr<ftdi_device_list, FreeDeviceList> m_list;
  std::vector<Channel> m_channels;  // of the list, by index
};

void HandleEvents(libusb_context* context, milliseconds bound) {
  timeval time{};
  time.tv_sec = static_cast<time_t>(bound.count() / 1000);
  time.tv_usec = static_cast<suseconds_t>(bound.count() % 1000 * 1000);
  libusb_handle_events_timeout_completed(context, &time, nullptr);
}

TransferEnd EndOf(libusb_transfer_status status) {
  switch (status) {
    case LIBUSB_TRANSFER_COMPLETED: return TransferEnd::Completed;
    case LIBUSB_TRANSFER_STALL: return TransferEnd::Stalled;
    case LIBUSB_TRANSFER_CANCELLED:
    case LIBUSB_TRANSFER_NO_DEVICE: return TransferEnd::Final;
    default: return TransferEnd::Failed;
  }
}

// A libusb transfer of an adapter's input.
class InputTransfer final : public BulkInTransfer {
 public:
  InputTransfer(libusb_device_handle* device, std::uint8_t endpoint, std::size_t packetSize)
      : m_buffer(packetSize * kPacketsPerTransfer),
        m_transfer(libusb_alloc_transfer(0)),
        m_stream(*this, packetSize) {
    if (!m_transfer) return;
    libusb_fill_bulk_transfer(m_transfer.get(), device, endpoint, m_buffer.data(),
                              static_cast<int>(m_buffer.size()), &InputTransfer::OnEnded, this, 0);
  }

  bool Submit() override {
    return m_transfer && libusb_submit_transfer(m_transfer.get()) == LIBUSB_SUCCESS;
  }
  void Cancel() override { libusb_cancel_transfer(m_transfer.get()); }
  void ClearHalt() override { libusb_clear_halt(m_transfer->dev_handle, m_transfer->endpoint); }

  FtdiInputStream& Stream() { return m_stream; }

 private:
  static void LIBUSB_CALL OnEnded(libusb_transfer* transfer) {
    auto& input = *static_cast<InputTransfer*>(transfer->user_data);
    const auto arrived = static_cast<std::size_t>(std::max(transfer->actual_length, 0));
    input.m_stream.Ended(EndOf(transfer->status),
                         std::span(input.m_buffer).first(std::min(arrived, input.m_buffer.size())));
  }

  std::vector<std::uint8_t> m_buffer;
  std::unique_ptr<libusb_transfer, FreeTransfer> m_transfer;
  FtdiInputStream m_stream;
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
    // The driver of the system gets the adapter back when it is closed.
    m_ftdi->module_detach_mode = AUTO_DETACH_REATACH_SIO_MODULE;
    const Channel& channel = m_list->At(index);
    ftdi_set_interface(m_ftdi.get(), channel.interface);
    if (ftdi_usb_open_dev(m_ftdi.get(), channel.device) < 0) return Obstacle(channel.device);
    // The library names endpoints from the adapter's side: we read from its output.
    m_input = std::make_unique<InputTransfer>(
        m_ftdi->usb_dev, static_cast<std::uint8_t>(m_ftdi->out_ep), m_ftdi->max_packet_size);
    return Input().Start() ? kD2xxOk : kD2xxIoError;
  }

  ftdi_context* Ftdi() { return m_ftdi.get(); }
  FtdiInputStream& Input() { return m_input->Stream(); }

  // Lets libusb deliver what has arrived; waits for it at most for `bound`.
  void Service(milliseconds bound) {
    Input().Resume(SystemPlatform().MonotonicNow());
    HandleEvents(m_list->UsbContext(), bound);
  }

 private:
  // libftdi1 does not pass on why an adapter could not be opened.
  D2xxStatus Obstacle(libusb_device* device) const {
    const OpenedDevice opened(device);
    if (opened.Result() < 0) return StatusOf(opened.Result());
    const int claimed = libusb_claim_interface(opened.Handle(), m_ftdi->interface);
    return claimed < 0 ? StatusOf(claimed) : kD2xxIoError;
  }

  void StopInput() {
    Input().Stop();
    for (int wait = 0; Input().InFlight() && wait < kMaxCancelWaits; ++wait) Service(kCancelWait);
    // A transfer that has not ended belongs to libusb: rather leak it than have libusb write to it
    // after it was freed.
    if (Input().InFlight()) static_cast<void>(m_input.release());
    m_input.reset();
  }

  // Order matters: the device goes before its list.
  std::shared_ptr<const AdapterList> m_list;
  FtdiPointer m_ftdi;
  std::unique_ptr<InputTransfer> m_input;
};

// For FT2232C and D chips, where libftdi1 leaves the channel out of this request. The divisor of
// 3 MHz counts eighths, which have codes.
int SetBaudRateOf2232C(ftdi_context* ftdi, std::uint32_t baudRate) {
  constexpr std::uint8_t kVendorRequest = LIBUSB_REQUEST_TYPE_VENDOR;
  constexpr std::uint32_t kEighthsPerSecond = 8 * 3'000'000;
  constexpr std::uint32_t kSlowest = 184;
  constexpr std::uint32_t kFastest = 1'500'000;
  constexpr std::array<std::uint32_t, 8> kCodes{0, 3, 2, 4, 1, 5, 6, 7};
  if (baudRate < kSlowest || baudRate > kFastest) return kUnsupported;
  const std::uint32_t eighths = (kEighthsPerSecond + baudRate / 2) / baudRate;
  const std::uint32_t code = kCodes[eighths % 8];
  const std::uint32_t value = (eighths / 8) | (code & 3) << 14;
  const std::uint32_t index = (code >> 2) << 8 | static_cast<std::uint32_t>(ftdi->index);
  return libusb_control_transfer(ftdi->usb_dev, kVendorRequest, SIO_SET_BAUDRATE_REQUEST,
                                 static_cast<std::uint16_t>(value),
                                 static_cast<std::uint16_t>(index), nullptr, 0,
                                 static_cast<unsigned>(ftdi->usb_write_timeout));
}

Adapter& Opened(D2xxHandle handle) { return *static_cast<Adapter*>(handle); }

D2xxStatus IoStatus(bool failed) { return failed ? kD2xxIoError : kD2xxOk; }

class LibftdiD2xx final : public D2xx {
 public:
  D2xxStatus CreateDeviceInfoList(std::uint32_t* count) override {
    *count = 0;
    m_list.reset();  // open adapters keep their share of it
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

  void ForgetDeviceInfoList() override { m_list.reset(); }

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
    ftdi_context* const ftdi = Opened(handle).Ftdi();
    const int result = ftdi->type == TYPE_2232C
                           ? SetBaudRateOf2232C(ftdi, baudRate)
                           : ftdi_set_baudrate(ftdi, static_cast<int>(baudRate));
    return result == kUnsupported ? kInvalidBaudRate : IoStatus(result < 0);
  }

  D2xxStatus SetDataCharacteristics(D2xxHandle handle, std::uint8_t wordLength,
                                    std::uint8_t stopBits, std::uint8_t parity) override {
    // The vendor's codes are libftdi1's, except that only libftdi1 has one and a half stop bits.
    if ((wordLength != BITS_7 && wordLength != BITS_8) ||
        (stopBits != STOP_BIT_1 && stopBits != STOP_BIT_2) || parity > SPACE) {
      return kInvalidParameter;
    }
    const int result = ftdi_set_line_property(
        Opened(handle).Ftdi(), static_cast<ftdi_bits_type>(wordLength),
        static_cast<ftdi_stopbits_type>(stopBits), static_cast<ftdi_parity_type>(parity));
    return IoStatus(result < 0);
  }

  D2xxStatus GetLatencyTimer(D2xxHandle handle, std::uint8_t* latencyMs) override {
    return IoStatus(ftdi_get_latency_timer(Opened(handle).Ftdi(), latencyMs) < 0);
  }

  D2xxStatus SetLatencyTimer(D2xxHandle handle, std::uint8_t latencyMs) override {
    return IoStatus(ftdi_set_latency_timer(Opened(handle).Ftdi(), latencyMs) < 0);
  }

  D2xxStatus Close(D2xxHandle handle) override {
    delete static_cast<Adapter*>(handle);
    return kD2xxOk;
  }

  // Bounded by libftdi1's write timeout, five seconds.
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
    return IoStatus(adapter.Input().Interrupted());
  }

  D2xxStatus Read(D2xxHandle handle, std::span<std::uint8_t> buffer,
                  std::uint32_t* received) override {
    FtdiInputStream& input = Opened(handle).Input();
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
