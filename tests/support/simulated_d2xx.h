// The adapter vendor's library in front of one simulated adapter, in the same process and on a
// virtual clock. Input goes through the stream that the library uses on Linux.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/ftdi_input_stream.h"
#include "simulator/ftdi_adapter.h"
#include "tests/support/fake_d2xx.h"
#include "tests/support/simulated_usb.h"

namespace tavo::test {

class SimulatedD2xx : public FakeD2xx {
 public:
  // Both must outlive this object.
  SimulatedD2xx(VirtualPlatform& platform, tavosim::Device& device, tavosim::FtdiAdapter& adapter,
                std::string serialNumber)
      : m_platform(platform), m_device(device), m_adapter(adapter) {
    adapters = {{std::move(serialNumber), ""}};
  }

  // Faults that a test may inject: true makes the call fail.
  std::function<bool()> failSend = [] { return false; };
  std::function<bool()> failReceive = [] { return false; };
  // Ends the input transfer in flight in this way, without data.
  std::function<std::optional<TransferEnd>()> endTransfer = [] { return std::nullopt; };
  // Called at every look for input.
  std::function<void()> onPoll = [] {};

  D2xxStatus CreateDeviceInfoList(std::uint32_t* count) override {
    *count = m_adapter.Connected(Now()) ? 1 : 0;
    return kD2xxOk;
  }
  D2xxStatus Open(std::uint32_t index, D2xxHandle* handle) override {
    if (!m_adapter.Connected(Now())) return kD2xxDeviceNotFound;
    m_input.emplace(m_transfer, kPacket);
    m_input->Start();
    m_unplugsAtOpen = m_device.Unplugs();
    return FakeD2xx::Open(index, handle);
  }
  // The divisor for 3 MHz without a fraction, as the chip takes it.
  D2xxStatus SetBaudRate(D2xxHandle /*handle*/, std::uint32_t baudRate) override {
    const std::uint32_t divisor = 3'000'000 / baudRate;
    return Control(3, static_cast<std::uint16_t>(divisor & 0x3FFF));
  }
  D2xxStatus SetDataCharacteristics(D2xxHandle /*handle*/, std::uint8_t wordLength,
                                    std::uint8_t stopBits, std::uint8_t parity) override {
    return Control(4, static_cast<std::uint16_t>(wordLength | (parity << 8) | (stopBits << 11)));
  }
  D2xxStatus SetLatencyTimer(D2xxHandle handle, std::uint8_t milliseconds) override {
    if (Gone() || Control(9, milliseconds) != kD2xxOk) return kD2xxIoError;
    return FakeD2xx::SetLatencyTimer(handle, milliseconds);
  }
  D2xxStatus Close(D2xxHandle handle) override {
    m_adapter.Released(Now());
    return FakeD2xx::Close(handle);
  }

  D2xxStatus Write(D2xxHandle /*handle*/, std::span<const std::uint8_t> data,
                   std::uint32_t* written) override {
    *written = 0;
    if (Gone() || failSend()) return kD2xxIoError;
    if (m_adapter.Out(0x02, data, Now()).status != tavosim::UsbStatus::Done) return kD2xxIoError;
    *written = static_cast<std::uint32_t>(data.size());
    return kD2xxOk;
  }
  D2xxStatus GetStatus(D2xxHandle /*handle*/, std::uint32_t* receiveQueue,
                       std::uint32_t* /*transmitQueue*/, std::uint32_t* /*eventState*/) override {
    // Like the vendor's library, which has nothing to say of an adapter that is gone; the read then
    // fails.
    onPoll();
    *receiveQueue = 1;
    if (Gone()) return kD2xxIoError;
    Fetch();
    *receiveQueue = m_input->Waiting();
    return m_input->Interrupted() ? kD2xxIoError : kD2xxOk;
  }
  D2xxStatus Read(D2xxHandle /*handle*/, std::span<std::uint8_t> buffer,
                  std::uint32_t* received) override {
    *received = 0;
    if (Gone() || failReceive()) return kD2xxIoError;
    *received = m_input->Read(buffer);
    return kD2xxOk;
  }
  void WaitForInput(D2xxHandle /*handle*/, std::chrono::milliseconds bound) override {
    AdvanceTo(m_platform, m_adapter.NextDue(Now()), bound);
  }

 private:
  static constexpr std::size_t kPacket = 64;
  static constexpr std::size_t kTransfer = 4 * kPacket;

  // Takes as long as the adapter takes; Fetch ends it.
  struct Transfer final : BulkInTransfer {
    bool Submit() override { return true; }
    void Cancel() override {}
    void ClearHalt() override {}
  };

  tavosim::SimTime Now() { return SimNow(m_platform); }
  bool Gone() const { return m_device.Unplugs() != m_unplugsAtOpen; }

  D2xxStatus Control(std::uint8_t request, std::uint16_t value) {
    const auto result = m_adapter.Control({0x40, request, value, 0, 0}, {}, Now());
    return result.status == tavosim::UsbStatus::Done ? kD2xxOk : kD2xxIoError;
  }

  void Fetch() {
    m_input->Resume(m_platform.MonotonicNow());
    while (m_input->InFlight()) {
      if (const auto end = endTransfer()) {
        m_input->Ended(*end, {});
        continue;
      }
      const tavosim::UsbResult result = m_adapter.In(0x81, kTransfer, Now());
      if (result.status != tavosim::UsbStatus::Done) return;
      m_input->Ended(TransferEnd::Completed, result.data);
    }
  }

  VirtualPlatform& m_platform;
  tavosim::Device& m_device;
  tavosim::FtdiAdapter& m_adapter;
  unsigned m_unplugsAtOpen = 0;
  Transfer m_transfer;
  std::optional<FtdiInputStream> m_input;
};

}  // namespace tavo::test
