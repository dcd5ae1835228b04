// The exports over a simulated station in place of the process-wide objects: each argument arrives, and
// each result.
#include <gtest/gtest.h>

#include "api/process_objects.h"
#include "firmware_updater.h"
#include "tests/support/station.h"

namespace tavo {
namespace {

test::Station* current = nullptr;  // none: the objects have been destroyed

}  // namespace

FirmwareUpdater& FirmwareUpdater::Instance() { return current->engine; }
TransportHolder& TransportHolder::Instance() { return current->holder; }
ProcessObjects& ProcessObjects::Instance() { throw std::logic_error("there are none"); }
ExportedCall::ExportedCall() : m_granted(current != nullptr) {}
ExportedCall::~ExportedCall() = default;

namespace test {
namespace {

// Hosts in other languages pass any byte but 0 for true.
using Byte = std::uint8_t;
constexpr Byte kTrue = 0x80;
const auto kUpdateUsb = reinterpret_cast<bool (*)(const char*, const char*, Byte, Byte, Byte)>(
    reinterpret_cast<void*>(&update_usb_device));
const auto kUpdateFtdi =
    reinterpret_cast<bool (*)(const char*, std::uint32_t, Byte, const char*, Byte, Byte, Byte)>(
        reinterpret_cast<void*>(&update_ftdi_device));

class Exports : public testing::Test {
 protected:
  // The dialogue goes to the real console.
  void SetUp() override { testing::internal::CaptureStdout(); }
  void TearDown() override {
    testing::internal::GetCapturedStdout();
    current = nullptr;
  }

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
    const auto update = [&](Byte skipIdentity, Byte extended, Byte bootloader) {
      station.ForgetRequests();
      return usb ? kUpdateUsb("1-4-2", file.c_str(), skipIdentity, extended, bootloader)
                 : kUpdateFtdi("TAVO0001", 19200, kTrue, file.c_str(), skipIdentity, extended,
                               bootloader);
    };
    EXPECT_EQ(get_progress(), -1.0F);
    EXPECT_TRUE(update(0, 0, kTrue));
    EXPECT_EQ(station.Requests(), bootloaderOnly);
    EXPECT_TRUE(update(kTrue, kTrue, 0));
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

TEST_F(Exports, NullIsAnEmptyTextWhichTakesTheFirstDevice) {
  Station station(Plain());
  current = &station;
  const std::string file = station.platform.Folder() + "firmware.hex";
  list_devices();
  stop_update();
  for (const char* text : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_FALSE(update_usb_device(text, text, true, true, true));
    EXPECT_FALSE(update_ftdi_device(text, 0, true, text, true, true, true));
    EXPECT_EQ(station.Requests(), Lines());
    EXPECT_TRUE(update_usb_device(text, file.c_str(), false, false, false));
    EXPECT_TRUE(update_ftdi_device(text, 19200, false, file.c_str(), false, false, false));
    station.ForgetRequests();
  }
  EXPECT_FALSE(get_resetted_modules(nullptr, UINT32_MAX));
}

TEST_F(Exports, AfterTheObjectsHaveBeenDestroyedNothingHappens) {
  char name[] = "????";
  stop_update();
  EXPECT_FALSE(update_usb_device("", "firmware.hex", false, false, false));
  EXPECT_FALSE(get_resetted_modules(name, 0));
  EXPECT_EQ(get_progress(), -1.0F);
  EXPECT_EQ(get_last_error(), 0);
}

}  // namespace
}  // namespace test
}  // namespace tavo
