#include <gtest/gtest.h>

#include <memory>

#include "log/logger.h"
#include "tests/support/fake_libusb.h"
#include "tests/support/raw_read.h"
#include "tests/support/transcript.h"
#include "tests/support/virtual_platform.h"
#include "transport/comm_win_usb.h"

namespace tavo::test {
namespace {

using Calls = Lines;

const Calls kSetUp{"KernelDriverActive 0", "ClaimInterface 0", "KernelDriverActive 1",
                   "ClaimInterface 1",     "Control 34 3",     "Control 32 0"};

class UsbTransportTest : public testing::Test {
 protected:
  // Two devices at ports 1-4 and 2.
  void SetUp() override { m_usb.devices = {{.ports = {1, 4}}, {.ports = {2}}}; }

  // Made on first use, so that a test can prepare the bus.
  CCommWinUSB& Transport() {
    if (!m_transport) m_transport = std::make_unique<CCommWinUSB>(m_link, m_platform, m_log, m_usb);
    return *m_transport;
  }

  // Opens the first device and forgets the calls made for it.
  void OpenFirst() {
    ASSERT_TRUE(Transport().OpenPort("1-4"));
    m_usb.calls.clear();
  }

  bool Send(const Bytes& bytes) {
    return Transport().SendRawData(bytes.data(), static_cast<std::int32_t>(bytes.size()));
  }
  RawRead Receive() { return ReadFrom(Transport()); }

  VirtualPlatform m_platform;
  Logger m_log{m_platform};
  TavoLink m_link;
  FakeLibUsb m_usb;
  std::unique_ptr<CCommWinUSB> m_transport;
};

TEST_F(UsbTransportTest, ListsSupportedDevicesByTheirPortPath) {
  m_usb.devices = {{.vendor = 0x1234, .ports = {1}},
                   {.ports = {2, 1}},
                   {.product = 0x2405, .ports = {3}},
                   {.ports = {}},
                   {.ports = {10, 20, 127, 4, 5, 6, 7, 8, 9}}};
  std::vector<std::string> listed;
  for (const CCommDevDesc& device : *Transport().EnumerateDevices()) {
    EXPECT_EQ(device.description, "VID:03eb PID:2404 Port: " + device.port);
    listed.push_back(std::to_string(device.deviceRef) + ": " + device.port);
  }
  EXPECT_EQ(listed, (std::vector<std::string>{"2: 2-1", "4: ", "5: 10-20-127-4-5-6-7-8-9"}));
  EXPECT_EQ(m_platform.Console(), "");
}

TEST_F(UsbTransportTest, OpensStepByStepAndEndsItsSessionOnce) {
  const Calls kOpening{"Init", "GetDeviceList", "SetDebug 0", "Open 2"};
  const Calls kEnding{"Close", "FreeDeviceList", "Exit"};
  for (int session = 0; session < 2; ++session) {
    EXPECT_TRUE(Transport().OpenPort("2"));
    EXPECT_TRUE(Transport().IsOpen());
    EXPECT_EQ(m_usb.TakeCalls(), kOpening + kSetUp);
    EXPECT_EQ(m_usb.lastControlData, (Bytes{0x00, 0x4B, 0x00, 0x00, 0, 0, 8}));
    for (int twice = 0; twice < 2; ++twice) Transport().EndSession();
    EXPECT_EQ(m_usb.TakeCalls(), kEnding);
    EXPECT_FALSE(Transport().IsOpen());
  }
  EXPECT_TRUE(Transport().OpenPort("2"));
  m_transport.reset();
  EXPECT_EQ(m_usb.TakeCalls(), kOpening + kSetUp + kEnding);

  EXPECT_TRUE(Transport().Reconnect()) << "no port named: any device will do";
  EXPECT_EQ(m_usb.TakeCalls(), (Calls{"Init", "SetDebug 0", "OpenAny"} + kSetUp));
  Transport().Close();
  EXPECT_EQ(m_usb.TakeCalls(), Calls{"Close"});
}

TEST_F(UsbTransportTest, TakesTheDataInterfaceFromADriverThatIsOrMayBeAttached) {
  m_usb.results["ClaimInterface 0"] = LIBUSB_ERROR_BUSY;
  for (const int active : {1, int{LIBUSB_ERROR_NOT_SUPPORTED}}) {
    m_usb.results["KernelDriverActive 1"] = active;
    m_usb.results["DetachKernelDriver 1"] = LIBUSB_ERROR_NOT_FOUND;
    m_usb.calls.clear();
    EXPECT_TRUE(Transport().OpenPort("2"));
    EXPECT_EQ(std::count(m_usb.calls.begin(), m_usb.calls.end(), "DetachKernelDriver 1"), 1);
    EXPECT_EQ(std::count(m_usb.calls.begin(), m_usb.calls.end(), "DetachKernelDriver 0"), 0);
    Transport().Close();
  }
  EXPECT_TRUE(m_platform.ConsoleHas("Error claiming interface: LIBUSB_ERROR_BUSY"));
}

TEST_F(UsbTransportTest, GivesTheDeviceBackToItsDriverOnEveryRoadOut) {
  m_usb.results["KernelDriverActive 0"] = 1;
  const Calls kGivenBack{"ReleaseInterface 0", "ReleaseInterface 1", "AttachKernelDriver 0",
                         "Close"};
  const auto expectGivenBack = [&](const char* when) {
    const Calls calls = m_usb.TakeCalls();
    EXPECT_NE(std::search(calls.begin(), calls.end(), kGivenBack.begin(), kGivenBack.end()),
              calls.end())
        << when;
  };
  OpenFirst();
  Transport().Close();
  expectGivenBack("closed");
  OpenFirst();
  Transport().EndSession();
  expectGivenBack("end of the session");
  m_usb.results["Control 32 0"] = LIBUSB_ERROR_TIMEOUT;
  EXPECT_FALSE(Transport().OpenPort("1-4"));
  expectGivenBack("not opened after all");

  m_usb.results.erase("Control 32 0");
  OpenFirst();
  m_usb.results.erase("KernelDriverActive 0");  // detached, and not attached by anyone
  EXPECT_TRUE(Transport().Reconnect());
  const Calls calls = m_usb.TakeCalls();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "AttachKernelDriver 0"), 0);
  Transport().Close();
  expectGivenBack("closed after a glitch");

  OpenFirst();
  Transport().Close();
  EXPECT_EQ(m_usb.TakeCalls(), Calls{"Close"}) << "there was no driver";
}

TEST_F(UsbTransportTest, AFailedOpenLeavesNothingOpen) {
  const struct {
    const char* call;
    std::uint32_t ref;
    const char* logged;
  } kFailures[]{
      {"Open 2", 2, "WARN CCommWinUSB: Error open device: LIBUSB_ERROR_ACCESS\n"},
      {"OpenAny", 0, ""},
      {"ClaimInterface 1", 2, "WARN CCommWinUSB: Error claiming interface: LIBUSB_ERROR_ACCESS\n"},
      {"Control 34 3", 2, ""},
      {"Control 32 0", 2, ""},
  };
  Transport().EnumerateDevices();
  for (const auto& failure : kFailures) {
    SCOPED_TRACE(failure.call);
    m_platform.ClearConsole();
    m_usb.results = {{failure.call, LIBUSB_ERROR_ACCESS}};
    EXPECT_FALSE(Transport().Open(failure.ref));
    EXPECT_FALSE(Transport().IsOpen());
    EXPECT_EQ(m_usb.handles, 0);
    EXPECT_TRUE(m_platform.ConsoleHas(failure.logged));

    m_usb.results.clear();
    EXPECT_TRUE(Transport().Open(failure.ref));
    Transport().Close();
  }
  EXPECT_FALSE(Transport().Open(3)) << "a reference behind the list";
  EXPECT_TRUE(m_platform.ConsoleHas("Error open device: LIBUSB_ERROR_NO_DEVICE"));
}

TEST_F(UsbTransportTest, AnOpenDeviceIsNotTouchedUnlessAnotherPortIsAskedFor) {
  OpenFirst();
  EXPECT_TRUE(Transport().Open(2));
  EXPECT_EQ(m_usb.TakeCalls(), Calls{});
  EXPECT_TRUE(Transport().OpenPort("1-4"));
  EXPECT_EQ(m_usb.TakeCalls(), (Calls{"FreeDeviceList", "GetDeviceList"}));
  EXPECT_TRUE(Transport().OpenPort("2"));
  EXPECT_EQ(m_usb.TakeCalls(),
            (Calls{"FreeDeviceList", "GetDeviceList", "Close", "SetDebug 0", "Open 2"} + kSetUp));
}

TEST_F(UsbTransportTest, PrintsAPortThatIsNotThere) {
  m_usb.devices.push_back({.ports = {}});
  for (const std::string name : {"3-9", "1", "1-4-", ""}) {
    m_platform.ClearConsole();
    EXPECT_FALSE(Transport().OpenPort(name));
    EXPECT_EQ(m_platform.Console(), "Port " + name + " isnt found\n");
  }
}

TEST_F(UsbTransportTest, SendsByteByByteOrAtOnceAndReportsWhatTheDeviceDidNotTake) {
  OpenFirst();
  EXPECT_TRUE(Send({1, 2, 3}));
  Transport().SetSendMode(SendMode::Buffer);
  EXPECT_TRUE(Send({1, 2, 3}));
  EXPECT_EQ(m_usb.sent, (std::vector<Bytes>{{1}, {2}, {3}, {1, 2, 3}}));

  m_usb.takesPerTransfer = 2;
  m_usb.results = {{"Out 5", LIBUSB_ERROR_PIPE}, {"Out 7", LIBUSB_ERROR_TIMEOUT}};
  EXPECT_FALSE(Send({1, 2, 3}));
  EXPECT_TRUE(m_platform.Console().ends_with(
      "WARN Error while sending data: Mode: BUFFER, Length: 2, Error: LIBUSB_ERROR_PIPE\n"));
  Transport().SetSendMode(SendMode::Byte);
  EXPECT_FALSE(Send({1, 2, 3}));
  EXPECT_EQ(m_usb.sent.size(), 7u) << "the rest stays here";
  EXPECT_TRUE(m_platform.Console().ends_with(
      "WARN CCommWinUSB: Error while sending data: Mode: BYTE, Length: 3, Error: "
      "LIBUSB_ERROR_TIMEOUT\n"));
}

TEST_F(UsbTransportTest, ReceivesWhatThereIs) {
  OpenFirst();
  m_usb.input = {{LIBUSB_SUCCESS, {7, 8}},
                 {LIBUSB_ERROR_TIMEOUT, {}},
                 {LIBUSB_ERROR_TIMEOUT, {9}},
                 {LIBUSB_ERROR_NO_DEVICE, {}}};
  EXPECT_EQ(Receive(), (RawRead{true, {7, 8}}));
  EXPECT_EQ(Receive(), (RawRead{true, {}}));
  EXPECT_EQ(Receive(), (RawRead{true, {9}})) << "too late for a whole packet";
  EXPECT_EQ(Receive(), (RawRead{false, {}}));
}

TEST_F(UsbTransportTest, NothingMovesWithoutAnOpenDevice) {
  EXPECT_FALSE(Send({1}));
  EXPECT_TRUE(m_platform.ConsoleHas("WARN CCommWinUSB: SendRawData: No Interface \n"));
  EXPECT_FALSE(Receive().ok);
  EXPECT_EQ(m_usb.calls, Calls{"Init"}) << "no port is known to reconnect to";
  OpenFirst();
  EXPECT_FALSE(Transport().SendRawData(nullptr, 1));
  EXPECT_EQ(m_usb.sent.size(), 0u);
}

TEST_F(UsbTransportTest, FindsItsPortAgain) {
  OpenFirst();
  const std::vector<FakeUsbDevice> both = m_usb.devices;
  m_usb.devices = {both[1]};
  EXPECT_FALSE(Transport().Reconnect());
  EXPECT_FALSE(Receive().ok);
  EXPECT_EQ(m_platform.Console(), "") << "a device that is away is not reported every time";

  m_usb.devices = {both[1], both[0]};
  EXPECT_FALSE(Receive().ok) << "the first poll only reconnects";
  EXPECT_EQ(std::count(m_usb.calls.begin(), m_usb.calls.end(), "Open 1 4"), 1);
  EXPECT_TRUE(Receive().ok);
}

TEST_F(UsbTransportTest, FindsNothingWithoutLibusb) {
  m_usb.results["Init"] = LIBUSB_ERROR_OTHER;
  Transport();
  EXPECT_TRUE(
      m_platform.ConsoleHas("INFO CCommWinUSB: Error initializing libusb: LIBUSB_ERROR_OTHER\n"));
  EXPECT_TRUE(Transport().EnumerateDevices()->empty());
  EXPECT_FALSE(Transport().Open(0));
  EXPECT_TRUE(m_platform.ConsoleHas("WARN CCommWinUSB: LibUSB not initialized\n"));
  m_transport.reset();
  EXPECT_EQ(m_usb.calls, Calls{"Init"});
}

}  // namespace
}  // namespace tavo::test
