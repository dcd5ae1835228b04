// A USB bus made of a list of devices. Every call is recorded as one line of text; a line can be
// made to fail beforehand.
//
//   FakeLibUsb usb;
//   usb.devices = {{.ports = {1, 4}}};
//   usb.results["ClaimInterface 1"] = LIBUSB_ERROR_BUSY;
//   ...
//   EXPECT_EQ(usb.calls.back(), "Close");
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/libusb_api.h"
#include "simulator/cdc_function.h"

namespace tavo::test {

using Bytes = std::vector<std::uint8_t>;

// A caller that breaks a rule of a vendor library, or leaks, ends the test program.
inline void Require(bool kept, const char* rule) {
  if (kept) return;
  std::fprintf(stderr, "broken rule: %s\n", rule);
  std::abort();
}

struct FakeUsbDevice {
  std::uint16_t vendor = 0x03EB;
  std::uint16_t product = 0x2404;
  Bytes ports{};
  std::uint8_t bus = 1;
  tavosim::Device* device = nullptr;  // of a SimulatedUsb, with its face
  tavosim::CdcFunction* function = nullptr;
};

struct FakeBulkResult {
  int result = LIBUSB_SUCCESS;
  Bytes data{};
};

class FakeLibUsb : public LibUsb {
 public:
  std::vector<FakeUsbDevice> devices;
  std::map<std::string, int> results;   // by call; a call that is not here succeeds
  std::deque<FakeBulkResult> input;     // of the coming bulk-in transfers; none left = timeout
  std::size_t takesPerTransfer = 1000;  // bulk-out

  std::vector<std::string> calls;
  std::vector<Bytes> sent;  // one entry per bulk-out transfer
  Bytes lastControlData;
  int contexts = 0, lists = 0, handles = 0;  // not yet released

  ~FakeLibUsb() override {
    Require(contexts == 0 && lists == 0 && handles == 0, "everything is given back");
  }

  std::vector<std::string> TakeCalls() { return std::exchange(calls, {}); }

  int Init(libusb_context** context) override {
    const int result = Record("Init");
    if (result == 0) *context = New<libusb_context>(&contexts);
    return result;
  }
  void Exit(libusb_context* context) override { Release("Exit", context, &contexts); }
  void SetDebug(libusb_context*, int level) override {
    Record("SetDebug " + std::to_string(level));
  }

  std::ptrdiff_t GetDeviceList(libusb_context*, libusb_device*** list) override {
    const int result = Record("GetDeviceList");
    if (result < 0) return result;
    ++lists;
    m_listed = devices;
    m_entries.clear();
    for (FakeUsbDevice& device : m_listed) {
      if (IsPlugged(device)) m_entries.push_back(reinterpret_cast<libusb_device*>(&device));
    }
    m_entries.push_back(nullptr);
    *list = m_entries.data();
    return std::ssize(m_entries) - 1;
  }
  void FreeDeviceList(libusb_device** list, int unrefDevices) override {
    Require(unrefDevices == 1, "a list is freed with its devices");
    Release("FreeDeviceList", list, &lists);
  }
  int GetDeviceDescriptor(libusb_device* device, libusb_device_descriptor* descriptor) override {
    *descriptor = {};
    descriptor->idVendor = Listed(device).vendor;
    descriptor->idProduct = Listed(device).product;
    if (Listed(device).function == nullptr) return 0;  // nobody answers for its texts
    descriptor->iProduct = 2;
    descriptor->iSerialNumber = 3;
    return 0;
  }
  std::uint8_t GetBusNumber(libusb_device* device) override { return Listed(device).bus; }
  int GetPortNumbers(libusb_device* device, std::uint8_t* ports, int capacity) override {
    const Bytes& path = Listed(device).ports;
    Require(std::ssize(path) <= capacity, "there is room for every port number");
    std::copy(path.begin(), path.end(), ports);
    return static_cast<int>(path.size());
  }

  int Open(libusb_device* device, libusb_device_handle** handle) override {
    std::string path;
    for (const int port : Listed(device).ports) path += " " + std::to_string(port);
    const int result = Record("Open" + path);
    if (result == 0) *handle = New<libusb_device_handle>(&handles);
    return result;
  }
  libusb_device_handle* OpenDeviceWithVidPid(libusb_context*, std::uint16_t vendor,
                                             std::uint16_t product) override {
    Require(vendor == 0x03EB && product == 0x2404, "the ids are the device's");
    return Record("OpenAny") < 0 ? nullptr : New<libusb_device_handle>(&handles);
  }
  void Close(libusb_device_handle* handle) override { Release("Close", handle, &handles); }

  int KernelDriverActive(libusb_device_handle*, int interface) override {
    return Record("KernelDriverActive " + std::to_string(interface));
  }
  int DetachKernelDriver(libusb_device_handle*, int interface) override {
    return Record("DetachKernelDriver " + std::to_string(interface));
  }
  int AttachKernelDriver(libusb_device_handle*, int interface) override {
    return Record("AttachKernelDriver " + std::to_string(interface));
  }
  int ClaimInterface(libusb_device_handle*, int interface) override {
    return Record("ClaimInterface " + std::to_string(interface));
  }
  int ReleaseInterface(libusb_device_handle*, int interface) override {
    return Record("ReleaseInterface " + std::to_string(interface));
  }

  int ControlTransfer(libusb_device_handle*, std::uint8_t requestType, std::uint8_t request,
                      std::uint16_t value, std::uint16_t index, unsigned char* data,
                      std::uint16_t length, unsigned timeoutMs) override {
    Require(requestType == 0x21 && index == 0, "a class request goes to the control interface");
    Require(timeoutMs == 5000, "a control transfer takes 5 s at most");
    lastControlData.assign(data, data + length);
    const int result = Record("Control " + std::to_string(request) + " " + std::to_string(value));
    return result < 0 ? result : length;
  }
  int BulkTransfer(libusb_device_handle*, unsigned char endpoint, unsigned char* data, int length,
                   int* transferred, unsigned timeoutMs) override {
    if (endpoint == 0x02) return TakeOutput({data, data + length}, transferred, timeoutMs);
    Require(endpoint == 0x81 && timeoutMs == 50, "a read takes 50 ms at most");
    *transferred = 0;
    if (input.empty()) return LIBUSB_ERROR_TIMEOUT;
    const FakeBulkResult next = input.front();
    input.pop_front();
    Require(std::ssize(next.data) <= length, "there is room for the bytes");
    std::copy(next.data.begin(), next.data.end(), data);
    *transferred = static_cast<int>(next.data.size());
    return next.result;
  }

  const char* ErrorName(int code) override { return libusb_error_name(code); }

 protected:
  static const FakeUsbDevice& Listed(libusb_device* device) {
    return *reinterpret_cast<const FakeUsbDevice*>(device);
  }
  virtual bool IsPlugged(const FakeUsbDevice& /*device*/) { return true; }

 private:
  int Record(const std::string& call) {
    calls.push_back(call);
    const auto result = results.find(call);
    return result == results.end() ? 0 : result->second;
  }

  template <typename Thing>
  Thing* New(int* count) {
    ++*count;
    return reinterpret_cast<Thing*>(count);
  }

  void Release(const std::string& call, const void* thing, int* count) {
    Require(thing != nullptr, "only what exists is given back");
    Record(call);
    --*count;
  }
  int TakeOutput(const Bytes& data, int* transferred, unsigned timeoutMs) {
    Require(timeoutMs == 300, "a bulk transfer takes 300 ms at most");
    sent.push_back(data);
    *transferred = static_cast<int>(std::min(data.size(), takesPerTransfer));
    const auto result = results.find("Out " + std::to_string(sent.size()));
    return result == results.end() ? 0 : result->second;
  }

  std::vector<FakeUsbDevice> m_listed;
  std::vector<libusb_device*> m_entries;
};

}  // namespace tavo::test
