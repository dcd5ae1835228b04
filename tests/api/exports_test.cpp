// The exports over a simulated station in place of the process-wide objects: each argument arrives, and
// each result.
#include <gtest/gtest.h>

#include "api/process_objects.h"
#include "firmware_updater.h"
#include "tests/support/station.h"

namespace tavo {
namespace {

test::Station* current = nullptr;

}  // namespace

FirmwareUpdater& FirmwareUpdater::Instance() { return current->engine; }
TransportHolder& TransportHolder::Instance() { return current->holder; }
ProcessObjects& ProcessObjects::Instance() { throw std::logic_error("there are none"); }
ExportedCall::ExportedCall() : m_granted(true) {}
ExportedCall::~ExportedCall() = default;

namespace test {
namespace {

class Exports : public testing::Test {
 protected:
  // The dialogue goes to the real console.
  void SetUp() override { testing::internal::CaptureStdout(); }
  void TearDown() override { testing::internal::GetCapturedStdout(); }

  static tavosim::DeviceOptions Plain() {
    tavosim::DeviceOptions options = tavosim::OptionsFor(*tavosim::FindFamily("plain"));
    options.resetModules = {0x0443, 0x633A};
    return options;
  }
};

TEST_F(Exports, FlagsLeaveOutWhatTheySay) {
  const Lines bootloaderOnly = kCallBootloader + Lines{"0x120", "0x121", "0x132", "0x130 01"} +
                               kFlash16K + kVerifyAndStart + kSignOfLife;
  const Lines withoutIdentity = kLeave + kStatus + kSoftwareId + kCallBootloader +
                                Lines{"0x120", "0x121", "0x132", "0x130 03"} + kFlash16K +
                                kVerifyAndStart + kSignOfLife + kSignOfLife +
                                Lines{"0x814 00", "0x814 01", "0x814 02"};
  for (const bool usb : {true, false}) {
    Station station(Plain(), !usb);
    current = &station;
    const std::string file = station.platform.Folder() + "firmware.hex";
    const auto update = [&](bool skipIdentity, bool extended, bool bootloader) {
      station.ForgetRequests();
      return usb ? update_usb_device("1-4-2", file.c_str(), skipIdentity, extended, bootloader)
                 : update_ftdi_device("TAVO0001", 19200, true, file.c_str(), skipIdentity, extended,
                                      bootloader);
    };
    EXPECT_EQ(get_progress(), -1.0F);
    EXPECT_TRUE(update(false, false, true));
    EXPECT_EQ(station.Requests(), bootloaderOnly);
    EXPECT_TRUE(update(true, true, false));
    EXPECT_EQ(station.Requests(), withoutIdentity);
    EXPECT_GE(get_progress(), 1.0F);
    char name[] = "????";
    EXPECT_TRUE(get_resetted_modules(name, 1));
    EXPECT_STREQ(name, "XYZ?") << "three letters and nothing else";
    EXPECT_FALSE(get_resetted_modules(name, 2));
    EXPECT_FALSE(get_resetted_modules(nullptr, 0));
  }
}

TEST_F(Exports, TheAdapterRunsAtTheBaudRateThatIsAskedFor) {
  Station station(Plain());
  current = &station;
  const std::string file = station.platform.Folder() + "firmware.hex";
  EXPECT_FALSE(update_ftdi_device("TAVO0001", 9600, false, file.c_str(), false, false, false));
  EXPECT_TRUE(station.Requests().empty()) << "the device listens at 19200 baud";
  EXPECT_EQ(get_last_error(), 1);
}

}  // namespace
}  // namespace test
}  // namespace tavo
