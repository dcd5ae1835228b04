// The USB/IP server and the substitute libusb together, over a real connection on this machine and
// in real time: sockets do not follow a virtual clock. The delays are long enough for a
// busy machine.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libusb-1.0/libusb.h>
#include <sys/eventfd.h>

#include <array>
#include <cstdlib>
#include <string>
#include <thread>

#include "simulator/usbip/server.h"

namespace tavosim::usbip {
namespace {

// Vendor requests by which the host side of a test steers the device, which lives in the server's
// thread.
enum Wish : std::uint8_t { kDelayEcho = 1, kStall = 2, kStandStill = 3 };

// Sends back what it receives.
class EchoDevice : public UsbDevice {
 public:
  Bytes DeviceDescriptor() const override {
    return {18, 1, 0, 2, 0, 0, 0, 64, 0xEB, 0x03, 0x04, 0x24, 0, 1, 0, 1, 0, 1};
  }
  Bytes ConfigurationDescriptor() const override {
    return {9, 2, 35, 0, 1, 1,    0, 0x80, 50, 9, 4, 0, 0,    2, 0xFF, 0, 0, 0,
            3, 9, 9,  7, 5, 0x81, 2, 64,   0,  0, 7, 5, 0x02, 2, 64,   0, 0};
  }
  UsbResult Control(const SetupPacket& setup, std::span<const std::uint8_t>, SimTime) override {
    if (setup.request == kDelayEcho) m_delay = std::chrono::milliseconds(setup.value);
    if (setup.request == kStandStill) m_standstill = std::chrono::milliseconds(setup.value);
    return {setup.request == kStall ? UsbStatus::Stall : UsbStatus::Done};
  }
  UsbResult Out(std::uint8_t, std::span<const std::uint8_t> data, SimTime now) override {
    m_echo.assign(data.begin(), data.end());
    m_echoAt = now + m_delay;
    return {};
  }
  UsbResult In(std::uint8_t, std::size_t, SimTime now) override {
    std::this_thread::sleep_for(std::exchange(m_standstill, SimTime(0)));
    if (m_echo.empty() || now < m_echoAt) return {UsbStatus::NotReady};
    return {UsbStatus::Done, std::exchange(m_echo, {})};
  }
  void Released(SimTime) override {}
  bool Connected(SimTime) override { return true; }
  std::optional<SimTime> NextDue(SimTime now) override {
    return m_echo.empty() || m_echoAt <= now ? std::nullopt : std::optional(m_echoAt);
  }

 private:
  Bytes m_echo;
  SimTime m_delay{0}, m_echoAt{0}, m_standstill{0};
};

class UsbipTest : public testing::Test {
 protected:
  UsbipTest() {
    const std::string address = "127.0.0.1:" + std::to_string(m_server.Port());
    setenv("TAVO_SIMULATORS", (address + ",127.0.0.1:1").c_str(), 1);
    libusb_init(&m_context);
  }
  ~UsbipTest() override {
    libusb_close(m_handle);
    libusb_exit(m_context);
    eventfd_write(m_stop.Fd(), 1);
    m_thread.join();
  }

  // The device's address on its bus, 0 when it is not listed.
  int AddressOnBus() {
    libusb_device** list = nullptr;
    const auto count = libusb_get_device_list(m_context, &list);
    const int address = count > 0 ? libusb_get_device_address(list[0]) : 0;
    libusb_free_device_list(list, 1);
    return address;
  }
  void Open() {
    m_handle = libusb_open_device_with_vid_pid(m_context, 0x03EB, 0x2404);
    ASSERT_NE(m_handle, nullptr);
  }
  int Ask(Wish wish, std::uint16_t value = 0) {
    return libusb_control_transfer(m_handle, 0x40, wish, value, 0, nullptr, 0, 500);
  }
  int Write(std::string text) {
    return libusb_bulk_transfer(m_handle, 2, reinterpret_cast<unsigned char*>(text.data()),
                                static_cast<int>(text.size()), nullptr, 500);
  }
  // The bytes read, or the name of the error.
  std::string Read(unsigned timeoutMs) {
    std::array<unsigned char, 64> data{};
    int size = 0;
    const int error =
        libusb_bulk_transfer(m_handle, 0x81, data.data(), data.size(), &size, timeoutMs);
    return error != 0 ? libusb_error_name(error) : std::string(data.begin(), data.begin() + size);
  }

  EchoDevice m_device;
  Server m_server{m_device, {.busId = "1-4.2", .kernelDriver = true}};
  Socket m_stop{eventfd(0, EFD_CLOEXEC)};
  std::thread m_thread{[this] { m_server.Run(m_stop.Fd()); }};
  libusb_context* m_context = nullptr;
  libusb_device_handle* m_handle = nullptr;
};

TEST_F(UsbipTest, KernelDriverHoldsTheInterfaceUntilDetached) {
  Open();
  EXPECT_EQ(Write("x"), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_EQ(libusb_claim_interface(m_handle, 0), LIBUSB_ERROR_BUSY);
  EXPECT_EQ(libusb_kernel_driver_active(m_handle, 0), 1);
  EXPECT_EQ(libusb_detach_kernel_driver(m_handle, 0), 0);
  EXPECT_EQ(libusb_claim_interface(m_handle, 0), 0);
  EXPECT_EQ(libusb_claim_interface(m_handle, 1), LIBUSB_ERROR_NOT_FOUND);
}

TEST_F(UsbipTest, StallAndTimeoutLoseNothing) {
  Open();
  libusb_set_auto_detach_kernel_driver(m_handle, 1);
  ASSERT_EQ(libusb_claim_interface(m_handle, 0), 0);
  EXPECT_EQ(Ask(kStall), LIBUSB_ERROR_PIPE);
  Ask(kDelayEcho, 150);
  EXPECT_EQ(Write("late"), 0);
  EXPECT_EQ(Read(5), "LIBUSB_ERROR_TIMEOUT");
  EXPECT_EQ(Read(500), "late");
}

TEST_F(UsbipTest, SimulatorThatStandsStillForAWhileIsNotUnplugged) {
  Open();
  libusb_set_auto_detach_kernel_driver(m_handle, 1);
  ASSERT_EQ(libusb_claim_interface(m_handle, 0), 0);
  Ask(kStandStill, 800);
  EXPECT_EQ(Write("late"), 0);
  EXPECT_EQ(Read(5), "late");
}

TEST_F(UsbipTest, PeerThatBreaksTheProtocolIsDisconnected) {
  constexpr auto kPatience = std::chrono::seconds(5);
  const auto import = [](const UrbHeader& urb) {
    Writer out;
    Encode(out, OpHeader{.code = kReqImport});
    out.Text("1-4.2", kBusIdSize);
    Encode(out, urb);
    return out.Take();
  };
  const std::uint32_t id = DeviceId(1, 1);
  const std::array<Bytes, 6> bad{
      Bytes(40, 0xFF),
      Bytes{0x01, 0x11, 0x80, 0x99, 0, 0, 0, 0},
      import({.command = 7, .deviceId = id}),
      import({.command = kCmdSubmit, .deviceId = id, .length = 0xFFFFFFFF}),
      import({.command = kCmdSubmit, .deviceId = id, .direction = 1, .endpoint = 99}),
      import({.command = kCmdSubmit, .deviceId = id + 1, .direction = 1}),
  };
  for (const Bytes& bytes : bad) {
    const Socket peer = ConnectTo(htonl(INADDR_LOOPBACK), m_server.Port(), kPatience);
    ASSERT_TRUE(peer);
    ASSERT_EQ(SendSome(peer, bytes), bytes.size());
    std::array<std::uint8_t, 512> answer{};
    std::optional<std::size_t> got = 0;
    const SocketFd fd = peer.Fd();
    while (got && WaitUntilReady({&fd, 1}, Readiness::Input, kPatience))
      got = ReceiveSome(peer, answer);
    EXPECT_FALSE(got);
    EXPECT_EQ(AddressOnBus(), 1);
  }
}

}  // namespace
}  // namespace tavosim::usbip
