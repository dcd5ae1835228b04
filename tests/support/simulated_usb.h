// libusb in front of simulated devices, in the same process and on a virtual clock: waiting for a
// transfer moves the clock to the moment at which the device has something to give.
#pragma once

#include <algorithm>
#include <functional>
#include <list>
#include <string>
#include <vector>

#include "tests/support/fake_libusb.h"
#include "tests/support/virtual_platform.h"

namespace tavo::test {

inline tavosim::SimTime SimNow(VirtualPlatform& platform) { return platform.MonotonicNow(); }

// Moves the clock to `due`, at most by `bound`; none = nothing will happen. At least a millisecond
// passes, so that a loop of waits always ends.
inline void AdvanceTo(VirtualPlatform& platform, std::optional<tavosim::SimTime> due,
                      std::chrono::milliseconds bound) {
  using std::chrono::milliseconds;
  const auto until = due ? std::chrono::ceil<milliseconds>(*due - SimNow(platform)) : bound;
  platform.Advance(std::clamp(until, milliseconds(1), bound));
}

class SimulatedUsb : public FakeLibUsb {
 public:
  explicit SimulatedUsb(VirtualPlatform& platform) : m_platform(platform) {}

  // Both must outlive this object.
  void Plug(tavosim::Device& device, tavosim::CdcFunction& function, Bytes ports,
            std::uint8_t bus = 1) {
    devices.push_back(
        {.ports = std::move(ports), .bus = bus, .device = &device, .function = &function});
  }

  int Open(libusb_device* device, libusb_device_handle** handle) override {
    const FakeUsbDevice& listed = Listed(device);
    if (!IsPlugged(listed)) return LIBUSB_ERROR_NO_DEVICE;
    m_handles.push_back({listed.device, listed.function, listed.device->Unplugs()});
    const int result = FakeLibUsb::Open(device, handle);
    *handle = reinterpret_cast<libusb_device_handle*>(&m_handles.back());
    return result;
  }
  void Close(libusb_device_handle* handle) override {
    AsHandle(handle).function->Released(SimNow(m_platform));
    FakeLibUsb::Close(handle);
  }

  // Faults that a test may inject: true makes the transfer fail.
  std::function<bool()> failSend = [] { return false; };
  std::function<bool()> failReceive = [] { return false; };
  // May change the bytes that a read delivers, also when there are none.
  std::function<void(std::vector<std::uint8_t>&)> tamper = [](auto&) {};
  // Called while a device is being opened.
  std::function<void()> onOpening = [] {};

  int ClaimInterface(libusb_device_handle* handle, int interface) override {
    return Gone(handle) ? LIBUSB_ERROR_NO_DEVICE : FakeLibUsb::ClaimInterface(handle, interface);
  }
  int ControlTransfer(libusb_device_handle* handle, std::uint8_t requestType, std::uint8_t request,
                      std::uint16_t value, std::uint16_t index, unsigned char* data,
                      std::uint16_t length, unsigned /*timeoutMs*/) override {
    if (Gone(handle)) return LIBUSB_ERROR_NO_DEVICE;
    const bool asks = (requestType & LIBUSB_ENDPOINT_IN) != 0;
    if (!asks) onOpening();
    const tavosim::UsbResult result = AsHandle(handle).function->Control(
        {requestType, request, value, index, length}, {data, length}, SimNow(m_platform));
    if (result.status != tavosim::UsbStatus::Done) return LIBUSB_ERROR_PIPE;
    if (!asks) return length;
    std::copy(result.data.begin(), result.data.end(), data);
    return static_cast<int>(result.data.size());
  }
  int BulkTransfer(libusb_device_handle* handle, unsigned char endpoint, unsigned char* data,
                   int length, int* transferred, unsigned timeoutMs) override {
    *transferred = 0;
    const std::chrono::milliseconds bound(timeoutMs);
    return endpoint & LIBUSB_ENDPOINT_IN ? In(handle, endpoint, data, length, transferred, bound)
                                         : Out(handle, endpoint, data, length, transferred);
  }

 protected:
  bool IsPlugged(const FakeUsbDevice& device) override {
    return device.function->Connected(SimNow(m_platform));
  }

 private:
  struct Handle {
    tavosim::Device* device;
    tavosim::CdcFunction* function;
    unsigned unplugsAtOpen;
  };

  static Handle& AsHandle(libusb_device_handle* handle) {
    return *reinterpret_cast<Handle*>(handle);
  }

  // A handle from before an unplug stays dead when the device is back.
  bool Gone(libusb_device_handle* handle) const {
    const Handle& opened = AsHandle(handle);
    return opened.device->Unplugs() != opened.unplugsAtOpen;
  }

  int Out(libusb_device_handle* handle, unsigned char endpoint, unsigned char* data, int length,
          int* transferred) {
    if (Gone(handle)) return LIBUSB_ERROR_NO_DEVICE;
    if (failSend()) return LIBUSB_ERROR_IO;
    const std::size_t size = static_cast<std::size_t>(length);
    const auto result = AsHandle(handle).function->Out(endpoint, {data, size}, SimNow(m_platform));
    if (result.status != tavosim::UsbStatus::Done) return LIBUSB_ERROR_TIMEOUT;
    *transferred = length;
    return LIBUSB_SUCCESS;
  }

  int In(libusb_device_handle* handle, unsigned char endpoint, unsigned char* data, int length,
         int* transferred, std::chrono::milliseconds bound) {
    const auto end = m_platform.MonotonicNow() + bound;
    tavosim::CdcFunction& function = *AsHandle(handle).function;
    while (!Gone(handle)) {
      if (failReceive()) return LIBUSB_ERROR_IO;
      auto said = function.In(endpoint, static_cast<std::size_t>(length), SimNow(m_platform)).data;
      tamper(said);
      if (!said.empty()) {
        std::copy(said.begin(), said.end(), data);
        *transferred = static_cast<int>(said.size());
        return LIBUSB_SUCCESS;
      }
      if (m_platform.MonotonicNow() >= end) return LIBUSB_ERROR_TIMEOUT;
      AdvanceTo(m_platform, function.NextDue(SimNow(m_platform)), end - m_platform.MonotonicNow());
    }
    return LIBUSB_ERROR_NO_DEVICE;
  }

  VirtualPlatform& m_platform;
  std::list<Handle> m_handles;
};

}  // namespace tavo::test
