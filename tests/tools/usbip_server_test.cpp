// The server of `firmware-updater simulate` and peers that break its protocol, over real sockets.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <array>
#include <thread>

#include "simulator/cdc_function.h"
#include "simulator/usbip/server.h"

namespace tavosim::usbip {
namespace {

class UsbipServerTest : public testing::Test {
 protected:
  ~UsbipServerTest() override {
    eventfd_write(m_stop.Fd(), 1);
    m_thread.join();
  }

  // The number of bytes that come back, and whether the server ends the connection.
  std::pair<std::size_t, bool> Send(const Bytes& bytes, std::size_t awaited) {
    constexpr auto kPatience = std::chrono::seconds(5);
    const Socket peer = ConnectTo(htonl(INADDR_LOOPBACK), m_server.Port(), kPatience);
    EXPECT_EQ(SendSome(peer, bytes), bytes.size());
    std::array<std::uint8_t, 512> buffer{};
    const SocketFd fd = peer.Fd();
    std::size_t size = 0;
    while (size < awaited && WaitUntilReady({&fd, 1}, Readiness::Input, kPatience)) {
      const auto received = ReceiveSome(peer, buffer);
      if (!received) return {size, true};
      size += *received;
    }
    return {size, false};
  }

  Device m_device{OptionsFor(kFamilies[0])};
  CdcFunction m_function{m_device, {}};
  Server m_server{m_function, {.busId = "1-4.2"}};
  Socket m_stop{eventfd(0, EFD_CLOEXEC)};
  std::thread m_thread{[this] { m_server.Run(m_stop.Fd()); }};
};

Bytes Import(const std::optional<UrbHeader>& urb = std::nullopt) {
  Writer out;
  Encode(out, OpHeader{.code = kReqImport});
  out.Text("1-4.2", kBusIdSize);
  if (urb) Encode(out, *urb);
  return out.Take();
}

TEST_F(UsbipServerTest, APeerThatBreaksTheProtocolIsDisconnectedAndTheNextOneServed) {
  constexpr std::size_t kImportReply = 320;
  const std::uint32_t id = DeviceId(1, 1);
  const std::array<Bytes, 6> bad{
      Bytes(40, 0xFF),
      Bytes{0x01, 0x11, 0x80, 0x99, 0, 0, 0, 0},
      Import(UrbHeader{.command = 7, .deviceId = id}),
      Import(UrbHeader{.command = kCmdSubmit, .deviceId = id, .length = 0xFFFFFFFF}),
      Import(UrbHeader{.command = kCmdSubmit, .deviceId = id, .direction = 1, .endpoint = 99}),
      Import(UrbHeader{.command = kCmdSubmit, .deviceId = id + 1, .direction = 1}),
  };
  for (const Bytes& bytes : bad) {
    EXPECT_TRUE(Send(bytes, SIZE_MAX).second);
    EXPECT_EQ(Send(Import(), kImportReply), std::pair(kImportReply, false));
  }
}

}  // namespace
}  // namespace tavosim::usbip
