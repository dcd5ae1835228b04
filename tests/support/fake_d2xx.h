// FTDI adapters made of a list of texts, one of which can be open. Calls that matter are recorded
// as one line of text each; a call can be made to fail by its name.
//
//   FakeD2xx d2xx;
//   d2xx.adapters = {{"A50285BI", "Tavo adapter"}};
//   d2xx.status["SetBaudRate"] = 4;
//   d2xx.Receive({1, 2, 3});
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/d2xx.h"
#include "tests/support/fake_libusb.h"

namespace tavo::test {

struct FakeAdapter {
  std::string serialNumber, description;
  D2xxStatus status = kD2xxOk;
};

class FakeD2xx : public D2xx {
 public:
  std::vector<FakeAdapter> adapters;
  std::map<std::string, D2xxStatus> status;  // by function; one that is not here succeeds
  std::uint32_t takesPerWrite = 1000;
  std::uint8_t latencyMs = 16;

  std::vector<std::string> calls;
  std::vector<std::uint8_t> arrivesWhileWaiting;
  std::vector<std::chrono::milliseconds> waits;
  int handles = 0;  // not yet closed

  ~FakeD2xx() override { Require(handles == 0, "every adapter is closed"); }

  void Receive(const std::vector<std::uint8_t>& bytes) {
    m_input.insert(m_input.end(), bytes.begin(), bytes.end());
  }
  std::vector<std::string> TakeCalls() { return std::exchange(calls, {}); }

  D2xxStatus CreateDeviceInfoList(std::uint32_t* count) override {
    *count = static_cast<std::uint32_t>(adapters.size());
    return Record("CreateDeviceInfoList");
  }
  D2xxStatus GetDeviceInfoList(std::span<D2xxDeviceInfo> devices, std::uint32_t* count) override {
    for (std::size_t i = 0; i < devices.size(); ++i) {
      devices[i].status = adapters.at(i).status;
      Fill(adapters[i].serialNumber, devices[i].serialNumber);
      Fill(adapters[i].description, devices[i].description);
    }
    *count = static_cast<std::uint32_t>(devices.size());
    return Record("GetDeviceInfoList");
  }

  void ForgetDeviceInfoList() override { Record("ForgetDeviceInfoList"); }

  D2xxStatus Open(std::uint32_t index, D2xxHandle* handle) override {
    const D2xxStatus result = Record("Open", {index});
    if (result != kD2xxOk) return result;
    ++handles;
    *handle = this;
    return kD2xxOk;
  }
  D2xxStatus SetBaudRate(D2xxHandle, std::uint32_t baudRate) override {
    return Record("SetBaudRate", {baudRate});
  }
  D2xxStatus SetDataCharacteristics(D2xxHandle, std::uint8_t wordLength, std::uint8_t stopBits,
                                    std::uint8_t parity) override {
    return Record("SetDataCharacteristics", {wordLength, stopBits, parity});
  }
  D2xxStatus GetLatencyTimer(D2xxHandle, std::uint8_t* milliseconds) override {
    *milliseconds = latencyMs;
    return Record("GetLatencyTimer");
  }
  D2xxStatus SetLatencyTimer(D2xxHandle, std::uint8_t milliseconds) override {
    latencyMs = milliseconds;
    return Record("SetLatencyTimer", {milliseconds});
  }
  D2xxStatus Close(D2xxHandle) override {
    --handles;
    return Record("Close");
  }

  D2xxStatus Write(D2xxHandle, std::span<const std::uint8_t> data,
                   std::uint32_t* written) override {
    const D2xxStatus result = Record("Write");
    if (result != kD2xxOk) return result;  // and no word about the bytes written
    *written = std::min(static_cast<std::uint32_t>(data.size()), takesPerWrite);
    return kD2xxOk;
  }
  D2xxStatus GetStatus(D2xxHandle, std::uint32_t* receiveQueue, std::uint32_t*,
                       std::uint32_t*) override {
    const D2xxStatus result = Record("GetStatus");
    if (result == kD2xxOk) *receiveQueue = static_cast<std::uint32_t>(m_input.size());
    return result;
  }
  D2xxStatus Read(D2xxHandle, std::span<std::uint8_t> buffer, std::uint32_t* received) override {
    Require(buffer.size() <= m_input.size(), "a read of more than waits would block");
    const auto end = m_input.begin() + static_cast<std::ptrdiff_t>(buffer.size());
    std::copy(m_input.begin(), end, buffer.begin());
    m_input.erase(m_input.begin(), end);
    *received = static_cast<std::uint32_t>(buffer.size());
    return Record("Read");
  }
  void WaitForInput(D2xxHandle, std::chrono::milliseconds bound) override {
    waits.push_back(bound);
    if (!arrivesWhileWaiting.empty()) Receive(std::exchange(arrivesWhileWaiting, {}));
  }

 private:
  D2xxStatus Record(const std::string& function, const std::vector<std::uint32_t>& values = {}) {
    std::string call = function;
    for (const std::uint32_t value : values) call += " " + std::to_string(value);
    calls.push_back(call);
    const auto found = status.find(function);
    return found == status.end() ? kD2xxOk : found->second;
  }

  // The vendor does not define the bytes behind the zero byte of a short text.
  template <std::size_t kCapacity>
  static void Fill(const std::string& text, std::array<char, kCapacity>& field) {
    field.fill('#');
    text.copy(field.data(), kCapacity);
    if (text.size() < kCapacity) field[text.size()] = '\0';
  }

  std::deque<std::uint8_t> m_input;
};

}  // namespace tavo::test
