#include "transport/device_listing.h"

#include <gtest/gtest.h>

#include "testbench/fake_d2xx.h"
#include "testbench/fake_libusb.h"
#include "testbench/virtual_platform.h"

namespace tavo::test {
namespace {

struct DeviceListing : testing::Test {
  void SetUp() override { d2xx.adapters = {{"A50285BI", "Tavo adapter"}}; }

  VirtualPlatform platform;
  Logger log{platform};
  TavoLink link;
  FakeLibUsb usb;
  FakeD2xx d2xx;
};

TEST_F(DeviceListing, PrintsUsbDevicesThenAdapters) {
  usb.devices = {{.ports = {2, 1}}, {.vendor = 1, .ports = {3}}, {.ports = {1, 4}}};
  ListDevices(link, platform, log, usb, d2xx);
  EXPECT_EQ(platform.Console(),
            "VID:03eb PID:2404 Port: 2-1\nVID:03eb PID:2404 Port: 1-4\nTavo adapter\n");
}

TEST_F(DeviceListing, AdaptersAreListedEvenIfUsbCannotBe) {
  usb.results["GetDeviceList"] = LIBUSB_ERROR_ACCESS;
  ListDevices(link, platform, log, usb, d2xx);
  EXPECT_EQ(platform.Console(),
            "2024.03.01 - 12:00:00 WARN CCommWinUSB: Error enumerating devices\n\nTavo adapter\n");
}

}  // namespace
}  // namespace tavo::test
