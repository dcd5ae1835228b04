#include "transport/device_listing.h"

#include <gtest/gtest.h>

#include "tests/support/fake_d2xx.h"
#include "tests/support/fake_libusb.h"
#include "tests/support/virtual_platform.h"

namespace tavo::test {
namespace {

TEST(DeviceListing, AdaptersAreListedEvenIfUsbCannotBe) {
  VirtualPlatform platform;
  Logger log(platform);
  TavoLink link;
  FakeLibUsb usb;
  FakeD2xx d2xx;
  d2xx.adapters = {{"A50285BI", "Tavo adapter"}};
  usb.results["GetDeviceList"] = LIBUSB_ERROR_ACCESS;
  ListDevices(link, platform, log, usb, d2xx);
  EXPECT_EQ(platform.Console(),
            "2024.03.01 - 12:00:00 WARN CCommWinUSB: Error enumerating devices\n\nTavo adapter\n");
}

}  // namespace
}  // namespace tavo::test
