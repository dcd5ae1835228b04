// libusb in front of simulated devices, in the same process and on a virtual clock: waiting for a
// transfer moves the clock to the moment at which the device has something to give.
#pragma once

#include <algorithm>
#include <cstring>
#include <functional>
#include <list>
#include <string>
#include <vector>

#include "simulator/cdc_function.h"
#include "tests/support/plain_usb.h"
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

class SimulatedUsb : public PlainUsb {
 public:
  explicit SimulatedUsb(VirtualPlatform& platform) : m_platform(platform) {}

  // Both must outlive this object.
  void Plug(tavosim::Device& device, tavosim::CdcFunction& function,
            std::vector<std::uint8_t> ports, std::uint8_t bus = 1) {
    m_ports.push_back({device, function, std::move(ports), bus});
  }

  std::ptrdiff_t GetDeviceList(libusb_context* /*context*/, libusb_device*** list) override {
    m_list.clear();
    for (Port& port : m_ports) {
      if (port.function.Connected(SimNow(m_platform))) {
        m_list.push_back(reinterpret_cast<libusb_device*>(&port));
      }
    }
    const auto count = static_cast<std::ptrdiff_t>(m_list.size());
    m_list.push_back(nullptr);
    *list = m_list.data();
    return count;
  }
  int GetDeviceDescriptor(libusb_device* device, libusb_device_descriptor* descriptor) override {
    const std::vector<std::uint8_t> bytes = AsPort(device).function.DeviceDescriptor();
    std::memcpy(descriptor, bytes.data(), std::min(bytes.size(), sizeof *descriptor));
    return LIBUSB_SUCCESS;
  }
  std::uint8_t GetBusNumber(libusb_device* device) override { return AsPort(device).bus; }
  int GetPortNumbers(libusb_device* device, std::uint8_t* ports, int capacity) override {
    const std::vector<std::uint8_t>& path = AsPort(device).path;
    if (static_cast<int>(path.size()) > capacity) return LIBUSB_ERROR_OVERFLOW;
    std::copy(path.begin(), path.end(), ports);
    return static_cast<int>(path.size());
  }

  int Open(libusb_device* device, libusb_device_handle** handle) override {
    Port& port = AsPort(device);
    if (!port.function.Connected(SimNow(m_platform))) return LIBUSB_ERROR_NO_DEVICE;
    m_handles.push_back({port, port.device.Unplugs()});
    *handle = reinterpret_cast<libusb_device_handle*>(&m_handles.back());
    ++m_opened;
    return LIBUSB_SUCCESS;
  }
  void Close(libusb_device_handle* handle) override {
    AsHandle(handle).port.function.Released(SimNow(m_platform));
    --m_opened;
  }
  int OpenHandles() const { return m_opened; }

  // Faults that a test may inject: true makes the transfer fail.
  std::function<bool()> failSend = [] { return false; };
  std::function<bool()> failReceive = [] { return false; };
  // May change the bytes that a read delivers, also when there are none.
  std::function<void(std::vector<std::uint8_t>&)> tamper = [](auto&) {};
  // Called while a device is being opened.
  std::function<void()> onOpening = [] {};

  int ClaimInterface(libusb_device_handle* handle, int /*interface*/) override {
    return Gone(handle) ? static_cast<int>(LIBUSB_ERROR_NO_DEVICE) : 0;
  }

  int ControlTransfer(libusb_device_handle* handle, std::uint8_t requestType, std::uint8_t request,
                      std::uint16_t value, std::uint16_t index, unsigned char* data,
                      std::uint16_t length, unsigned /*timeoutMs*/) override {
    if (Gone(handle)) return LIBUSB_ERROR_NO_DEVICE;
    onOpening();
    const tavosim::UsbResult result = AsHandle(handle).port.function.Control(
        {requestType, request, value, index, length}, {data, length}, SimNow(m_platform));
    return result.status == tavosim::UsbStatus::Done ? int{length} : int{LIBUSB_ERROR_PIPE};
  }

  int BulkTransfer(libusb_device_handle* handle, unsigned char endpoint, unsigned char* data,
                   int length, int* transferred, unsigned timeoutMs) override {
    *transferred = 0;
    const std::chrono::milliseconds bound(timeoutMs);
    return endpoint & LIBUSB_ENDPOINT_IN ? In(handle, endpoint, data, length, transferred, bound)
                                         : Out(handle, endpoint, data, length, transferred);
  }

 private:
  struct Port {
    tavosim::Device& device;
    tavosim::CdcFunction& function;
    std::vector<std::uint8_t> path;
    std::uint8_t bus;
  };
  struct Handle {
    Port& port;
    unsigned unplugsAtOpen;
  };

  static Port& AsPort(libusb_device* device) { return *reinterpret_cast<Port*>(device); }
  static Handle& AsHandle(libusb_device_handle* handle) {
    return *reinterpret_cast<Handle*>(handle);
  }

  // A handle from before an unplug stays dead when the device is back.
  bool Gone(libusb_device_handle* handle) const {
    const Handle& opened = AsHandle(handle);
    return opened.port.device.Unplugs() != opened.unplugsAtOpen;
  }

  int Out(libusb_device_handle* handle, unsigned char endpoint, unsigned char* data, int length,
          int* transferred) {
    if (Gone(handle)) return LIBUSB_ERROR_NO_DEVICE;
    if (failSend()) return LIBUSB_ERROR_IO;
    const std::size_t size = static_cast<std::size_t>(length);
    const auto result =
        AsHandle(handle).port.function.Out(endpoint, {data, size}, SimNow(m_platform));
    if (result.status != tavosim::UsbStatus::Done) return LIBUSB_ERROR_TIMEOUT;
    *transferred = length;
    return LIBUSB_SUCCESS;
  }

  int In(libusb_device_handle* handle, unsigned char endpoint, unsigned char* data, int length,
         int* transferred, std::chrono::milliseconds bound) {
    const auto end = m_platform.MonotonicNow() + bound;
    tavosim::CdcFunction& function = AsHandle(handle).port.function;
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
  std::list<Port> m_ports;
  std::list<Handle> m_handles;
  std::vector<libusb_device*> m_list;
  int m_opened = 0;
};

}  // namespace tavo::test
