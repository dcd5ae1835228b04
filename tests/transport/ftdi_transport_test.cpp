#include <gtest/gtest.h>

#include "log/logger.h"
#include "tests/support/fake_d2xx.h"
#include "tests/support/raw_read.h"
#include "tests/support/virtual_platform.h"
#include "transport/comm_ftdi.h"
#include "transport/device_listing.h"

namespace tavo::test {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Calls = std::vector<std::string>;

class FtdiTransportTest : public testing::Test {
 protected:
  void SetUp() override { m_d2xx.adapters = {{"A1", "First"}, {"B2", "Second"}}; }

  void OpenFirst() {
    ASSERT_TRUE(m_transport.Open(0));
    m_d2xx.calls.clear();
  }

  bool Send(std::size_t count) {
    const Bytes bytes(count, 0x55);
    return m_transport.SendRawData(bytes.data(), static_cast<std::int32_t>(count));
  }

  VirtualPlatform m_platform;
  Logger m_log{m_platform};
  TavoLink m_link;
  FakeD2xx m_d2xx;
  CCommFTDI m_transport{m_link, m_platform, m_log, m_d2xx};
};

TEST_F(FtdiTransportTest, ListsAdaptersBySerialNumber) {
  const std::string longText(64, 'x');
  m_d2xx.adapters = {{"A1", "First"}, {"0123456789ABCDEF", longText}, {"", ""}};
  m_d2xx.status["GetDeviceInfoList"] = kD2xxIoError;  // says nothing about the records
  m_transport.EnumerateDevices();
  const std::vector<CCommDevDesc>& listed = *m_transport.EnumerateDevices();
  ASSERT_EQ(listed.size(), m_d2xx.adapters.size());
  for (std::uint32_t i = 0; i < listed.size(); ++i) {
    EXPECT_EQ(listed[i].deviceRef, i);
    EXPECT_EQ(listed[i].port, m_d2xx.adapters[i].serialNumber);
    EXPECT_EQ(listed[i].description, m_d2xx.adapters[i].description);
  }
  m_d2xx.status["CreateDeviceInfoList"] = kD2xxDeviceNotFound;
  EXPECT_TRUE(m_transport.EnumerateDevices()->empty());
  EXPECT_EQ(m_platform.Console(), "");
}

TEST_F(FtdiTransportTest, AnAdapterThatCannotBeReadIsLoggedAndNotTaken) {
  m_d2xx.adapters = {{"", "", kD2xxOtherError},
                     {"", "", kD2xxDeviceNotOpened},
                     {"", "", kD2xxDeviceNotFound},
                     {"", "", kD2xxIoError}};
  EXPECT_EQ(m_transport.FirstPort(), std::nullopt);
  for (const char* line : {"WARN CCommFTDI: Adapter 0 cannot be read: no permission, Error: 18\n",
                           "Adapter 1 cannot be read: it is in use, Error: 3\n",
                           "Adapter 2 cannot be read: it is gone, Error: 2\n",
                           "Adapter 3 cannot be read: it does not respond, Error: 4\n"}) {
    EXPECT_TRUE(m_platform.ConsoleHas(line)) << line;
  }
  m_d2xx.adapters.push_back({"B2", "Second"});
  EXPECT_EQ(m_transport.FirstPort(), "B2");
  EXPECT_TRUE(m_transport.OpenPort("B2"));
  EXPECT_EQ(m_d2xx.calls.at(m_d2xx.calls.size() - 3), "Open 4");
}

TEST_F(FtdiTransportTest, AdaptersAreListedEvenIfUsbCannotBe) {
  FakeLibUsb usb;
  m_d2xx.adapters = {{"", "", kD2xxOtherError}, {"A50285BI", "Tavo\x1B[2J adapter"}};
  usb.results["GetDeviceList"] = LIBUSB_ERROR_ACCESS;
  ListDevices(m_platform, m_log, usb, m_d2xx);
  EXPECT_EQ(m_platform.Console(),
            "2024.03.01 - 12:00:00 WARN CCommWinUSB: Error enumerating devices\n\n"
            "2024.03.01 - 12:00:00 WARN CCommFTDI: Adapter 0 cannot be read: no permission, Error: "
            "18\nTavo?[2J adapter\n");
}

TEST_F(FtdiTransportTest, OpensWithItsLineSettings) {
  EXPECT_TRUE(m_transport.Open(1));
  EXPECT_TRUE(m_transport.IsOpen());
  EXPECT_EQ(m_d2xx.TakeCalls(),
            (Calls{"Open 1", "SetBaudRate 19200", "SetDataCharacteristics 8 0 0"}));

  m_transport.SetLineSettings({.baudRate = 57600, .wordLength = 7, .parity = 2, .stopBits = 1});
  EXPECT_TRUE(m_transport.Open(0));
  EXPECT_EQ(m_d2xx.TakeCalls(),
            (Calls{"Close", "Open 0", "SetBaudRate 57600", "SetDataCharacteristics 7 1 2"}));
  EXPECT_TRUE(m_transport.Reconnect());
  EXPECT_EQ(m_d2xx.TakeCalls(), Calls{});
  m_transport.EndSession();
  EXPECT_EQ(m_d2xx.TakeCalls(), (Calls{"Close", "ForgetDeviceInfoList"}));
}

TEST_F(FtdiTransportTest, AFailedOpenPrintsTheStatusAndLeavesNothingOpen) {
  const struct {
    const char* function;
    D2xxStatus status;
    const char* printed;
  } kFailures[]{{"Open", kD2xxDeviceNotFound, "FTDI Open Error 2"},
                {"SetBaudRate", 7, "FTDI Open Error 7"},
                {"SetDataCharacteristics", kD2xxIoError, "FTDI Open Error 4"}};
  for (const auto& failure : kFailures) {
    SCOPED_TRACE(failure.function);
    m_platform.ClearConsole();
    m_d2xx.status = {{failure.function, failure.status}};
    EXPECT_FALSE(m_transport.Open(0));
    EXPECT_FALSE(m_transport.IsOpen());
    EXPECT_EQ(m_platform.Console(), failure.printed);
    EXPECT_EQ(m_d2xx.handles, 0);
  }
}

TEST_F(FtdiTransportTest, OnlyWhatWasWrittenComesBack) {
  OpenFirst();
  m_transport.SetEcho(true);
  EXPECT_TRUE(m_transport.SendRawData(Bytes{1}.data(), 0));
  m_d2xx.takesPerWrite = 2;
  EXPECT_TRUE(Send(5)) << "the library counts as it likes; its status decides";
  m_d2xx.Receive({0x55, 0x55, 1});
  EXPECT_EQ(ReadFrom(m_transport), (RawRead{true, {1}}));

  m_d2xx.status["Write"] = kD2xxIoError;
  EXPECT_FALSE(Send(5));
  m_d2xx.Receive({0x55, 2});
  EXPECT_EQ(ReadFrom(m_transport), (RawRead{true, {2}}));
  EXPECT_EQ(m_platform.Console(), "");
}

TEST_F(FtdiTransportTest, ASilentReadWaitsAMomentAndReadsWhatCameAsFarAsItFits) {
  OpenFirst();
  EXPECT_EQ(ReadFrom(m_transport), (RawRead{true, {}}));
  m_d2xx.arrivesWhileWaiting = {1, 2, 3};
  EXPECT_EQ(ReadFrom(m_transport, 2), (RawRead{true, {1, 2}}));
  EXPECT_EQ(ReadFrom(m_transport, 2), (RawRead{true, {3}}));
  EXPECT_EQ(m_d2xx.waits, std::vector(2, std::chrono::milliseconds(10))) << "not for the third";
  const std::string line = "2024.03.01 - 12:00:00 WARN CCommFTDI: Input interrupted, Error: 4\n";
  for (const char* lines : {"once", "and anew after it has recovered"}) {
    m_platform.ClearConsole();
    m_d2xx.status["GetStatus"] = kD2xxIoError;
    for (int read = 0; read < 2; ++read) {
      EXPECT_EQ(ReadFrom(m_transport), (RawRead{true, {}})) << "an unknown count is no input";
    }
    EXPECT_EQ(m_platform.Console(), line) << lines;
    m_d2xx.status.clear();
    ReadFrom(m_transport);
  }
}

TEST_F(FtdiTransportTest, LogsAFailedRead) {
  OpenFirst();
  m_transport.SetEcho(true);
  EXPECT_TRUE(Send(2));
  m_d2xx.Receive({0x55, 0x55, 1, 2, 3});
  m_d2xx.status["Read"] = kD2xxIoError;
  EXPECT_EQ(ReadFrom(m_transport), (RawRead{false, {}}));
  EXPECT_TRUE(
      m_platform.ConsoleHas("WARN CCommFTDI: Error while receiving data: Length: 3, Error: 4\n"));
}

TEST_F(FtdiTransportTest, NothingMovesWithoutAnOpenAdapter) {
  std::int32_t length = 1;
  std::uint8_t byte = 0;
  EXPECT_FALSE(Send(1));
  EXPECT_TRUE(m_platform.ConsoleHas("DBG  CCommFTDI: SendRawData: No Interface\n"));
  EXPECT_FALSE(m_transport.ReceiveRawData(&byte, &length));
  EXPECT_TRUE(m_platform.ConsoleHas("WARN CCommFTDI: ReceiveRawData: No Interface.\n"));

  OpenFirst();
  EXPECT_FALSE(m_transport.SendRawData(nullptr, 1));
  EXPECT_FALSE(m_transport.ReceiveRawData(nullptr, &length));
  EXPECT_FALSE(m_transport.ReceiveRawData(&byte, nullptr));
}

}  // namespace
}  // namespace tavo::test
