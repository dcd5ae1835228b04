#include "transport/device_listing.h"

#include <gtest/gtest.h>

#include "tests/support/fake_d2xx.h"
#include "tests/support/fake_libusb.h"
#include "tests/support/station.h"

namespace tavo::test {
namespace {

TEST(DeviceListing, AdaptersAreListedEvenIfUsbCannotBe) {
  VirtualPlatform platform;
  Logger log(platform);
  FakeLibUsb usb;
  FakeD2xx d2xx;
  d2xx.adapters = {{"", "", kD2xxOtherError}, {"A50285BI", "Tavo adapter"}};
  usb.results["GetDeviceList"] = LIBUSB_ERROR_ACCESS;
  ListDevices(platform, log, usb, d2xx);
  EXPECT_EQ(platform.Console(),
            "2024.03.01 - 12:00:00 WARN CCommWinUSB: Error enumerating devices\n\n"
            "2024.03.01 - 12:00:00 WARN CCommFTDI: Adapter 0 cannot be read: no permission, Error: "
            "18\nTavo adapter\n");
}

// A host's window refreshes its list while the update runs, here at every poll.
class Refresh : public TransportObserver {
 public:
  Station* station = nullptr;

  void Polled(PollResult /*result*/, const TavoMessage& /*answer*/) override {
    ListDevices(station->platform, station->log, station->usb, station->d2xx);
  }
};

TEST(DeviceListing, LeavesAnUpdateThatRunsAlone) {
  Refresh refresh;
  Station station(tavosim::OptionsFor(*tavosim::FindFamily("plain")), false, {}, &refresh);
  refresh.station = &station;
  for (const bool usb : {true, false}) {
    station.ForgetRequests();
    EXPECT_TRUE(usb ? station.UpdateOverUsb() : station.UpdateOverFtdi());
    EXPECT_EQ(station.Requests(), kPlainUpdate);
    EXPECT_TRUE(station.platform.ConsoleHas("\nVID:03eb PID:2404 Port: 1-4-2\n"));
  }
}

}  // namespace
}  // namespace tavo::test
