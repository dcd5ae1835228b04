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
  FakeLibUsb usb;
  FakeD2xx d2xx;
  d2xx.adapters = {{"", "", kD2xxOtherError}, {"A50285BI", "Tavo\x1B[2J adapter"}};
  usb.results["GetDeviceList"] = LIBUSB_ERROR_ACCESS;
  ListDevices(platform, log, usb, d2xx);
  EXPECT_EQ(platform.Console(),
            "2024.03.01 - 12:00:00 WARN CCommWinUSB: Error enumerating devices\n\n"
            "2024.03.01 - 12:00:00 WARN CCommFTDI: Adapter 0 cannot be read: no permission, Error: "
            "18\nTavo?[2J adapter\n");
}

}  // namespace
}  // namespace tavo::test
