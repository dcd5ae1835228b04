#include "transport/device_listing.h"

#include <gtest/gtest.h>

#include "testbench/virtual_platform.h"
#include "tests/support/fake_d2xx.h"
#include "tests/support/fake_libusb.h"

namespace tavo::test {
namespace {

class DeviceListingTest : public testing::Test {
 protected:
  std::string List() {
    m_platform.ClearConsole();
    ListDevices(m_link, m_platform, m_log, m_usb, m_d2xx);
    return m_platform.Console();
  }

  VirtualPlatform m_platform;
  Logger m_log{m_platform};
  TavoLink m_link;
  FakeLibUsb m_usb;
  FakeD2xx m_d2xx;
};

TEST_F(DeviceListingTest, PrintsUsbDevicesThenAdapters) {
  m_usb.devices = {{.ports = {2, 1}}, {.vendor = 1, .ports = {3}}, {.ports = {1, 4}}};
  m_d2xx.adapters = {{"A50285BI", "Tavo adapter"}};
  const std::string expected =
      "VID:03eb PID:2404 Port: 2-1\n"
      "VID:03eb PID:2404 Port: 1-4\n"
      "Tavo adapter\n";
  EXPECT_EQ(List(), expected);
  EXPECT_EQ(List(), expected);
  EXPECT_EQ(m_usb.contexts + m_usb.lists, 0);
}

TEST_F(DeviceListingTest, PrintsNothingWhenNothingCanBeUpdated) {
  m_usb.devices = {{.vendor = 1, .ports = {3}}};
  EXPECT_EQ(List(), "");
}

TEST_F(DeviceListingTest, AdaptersAreListedEvenIfUsbCannotBe) {
  m_usb.results["GetDeviceList"] = LIBUSB_ERROR_ACCESS;
  m_d2xx.adapters = {{"A50285BI", "Tavo adapter"}};
  EXPECT_EQ(List(),
            "2024.03.01 - 12:00:00 WARN CCommWinUSB: Error enumerating devices\n\nTavo adapter\n");
}

}  // namespace
}  // namespace tavo::test
