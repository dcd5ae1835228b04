// The update commands around the update itself: dialogue, choice of transport and device.
#include <gtest/gtest.h>

#include "tests/support/station.h"
#include "transport/comm_ftdi.h"

namespace tavo::test {
namespace {

class UpdateCommands : public testing::Test {
 protected:
  UpdateContext Context() { return {station.engine, station.holder, station.platform}; }
  std::string File() const { return station.platform.Folder() + "firmware.hex"; }
  static DeviceTarget Adapter(const char* serial) { return {TransportKind::Ftdi, serial}; }
  const std::string& Console() const { return station.platform.Console(); }

  Station station{tavosim::OptionsFor(*tavosim::FindFamily("plain"))};
};

TEST_F(UpdateCommands, WithoutAFileNothingIsTouched) {
  EXPECT_FALSE(UpdateDevice(Context(), {TransportKind::Usb, "1-4-2"}, "", {}));
  EXPECT_EQ(Console(), "Firmware-Updater\nNo update file specified");
  station.platform.ClearConsole();
  EXPECT_FALSE(UpdateDevice(Context(), Adapter(""), "", {}));
  EXPECT_EQ(Console(), "Firmware-Updater\nNo update file specified");
  EXPECT_EQ(station.holder.Kind(), TransportKind::None);
}

TEST_F(UpdateCommands, WithoutANameTheFirstDeviceIsTaken) {
  EXPECT_TRUE(UpdateDevice(Context(), {TransportKind::Usb, ""}, File(), {}));
  EXPECT_TRUE(station.platform.ConsoleHas("\nUSB-Port: 1-4-2\n\nStart Update\n"));
  EXPECT_TRUE(UpdateDevice(Context(), Adapter(""), File(), {}));
  EXPECT_TRUE(station.platform.ConsoleHas("\nFtDI-Port: TAVO0001\n\nStart Update\n"));
}

TEST_F(UpdateCommands, OfSeveralDevicesTheFirstIsTakenAndTheLogNamesIt) {
  tavosim::Device other(tavosim::OptionsFor(*tavosim::FindFamily("plain")));
  tavosim::CdcFunction function(other);
  station.usb.Plug(other, function, {3}, 2);
  EXPECT_TRUE(UpdateDevice(Context(), {}, File(), {}));
  EXPECT_TRUE(station.platform.ConsoleHas(
      "WARN CommInterface: No device named, 2 found: Taking port 1-4-2 on bus 1\n"));
  EXPECT_TRUE(other.Journal().empty());
}

TEST_F(UpdateCommands, WithoutAnyDeviceItSaysSo) {
  station.device.Unplug(SimNow(station.platform), std::nullopt);
  EXPECT_FALSE(UpdateDevice(Context(), {TransportKind::Usb, ""}, File(), {}));
  EXPECT_TRUE(Console().ends_with("\nNo device connected!"));
  station.platform.ClearConsole();
  EXPECT_FALSE(UpdateDevice(Context(), Adapter(""), File(), {}));
  EXPECT_EQ(Console(), "Firmware-Updater\nFirmware: " + File() + "\nNo device connected!");
}

TEST_F(UpdateCommands, AnUnknownNameIsReportedAndTheUpdateDoesNotBegin) {
  EXPECT_FALSE(UpdateDevice(Context(), {TransportKind::Usb, "3-9"}, File(), {}));
  EXPECT_TRUE(station.platform.ConsoleHas("USB-Port: 3-9\nPort 3-9 isnt found\n"));
  EXPECT_FALSE(UpdateDevice(Context(), Adapter("tavo\x1B"), File(), {}));
  EXPECT_TRUE(station.platform.ConsoleHas("FtDI-Port: tavo?\nSerial tavo? isnt found\n"));
  EXPECT_FALSE(UpdateDevice(Context(), Adapter("TAVO000"), File(), {}));
  EXPECT_TRUE(station.platform.ConsoleHas("Serial TAVO000 isnt found\n"));
  EXPECT_FALSE(station.platform.ConsoleHas("Start Update"));
  EXPECT_TRUE(station.Requests().empty());
  EXPECT_EQ(station.engine.LastError(), ErrorCode::None);
}

TEST_F(UpdateCommands, ASecondUpdateIsRefusedWhileOneRuns) {
  const FirmwareUpdater::Run running(station.engine);
  EXPECT_FALSE(UpdateDevice(Context(), Adapter(""), File(), {}));
  EXPECT_TRUE(station.platform.ConsoleHas("Another update is running."));
  EXPECT_EQ(station.holder.Kind(), TransportKind::None);
}

TEST_F(UpdateCommands, TheTransportIsKeptForItsKindAndReplacedForTheOther) {
  EXPECT_TRUE(UpdateDevice(Context(), {TransportKind::Usb, "1-4-2"}, File(), {}));
  const ICommInterface* usb = station.holder.Transport();
  EXPECT_FALSE(station.holder.Transport()->IsOpen());
  EXPECT_TRUE(UpdateDevice(Context(), {TransportKind::Usb, "1-4-2"}, File(), {}));
  EXPECT_EQ(station.holder.Transport(), usb);
  EXPECT_TRUE(UpdateDevice(Context(), Adapter("TAVO0001"), File(), {}));
  EXPECT_EQ(station.holder.Kind(), TransportKind::Ftdi);
  EXPECT_EQ(static_cast<CCommFTDI&>(*station.holder.Transport()).SerialNumber(), "TAVO0001");
  EXPECT_FALSE(station.holder.SelectTransport(TransportKind{2}));
  EXPECT_EQ(station.holder.Kind(), TransportKind::None);
  EXPECT_EQ(station.holder.Transport(), nullptr);
}

TEST_F(UpdateCommands, AFileThatIsNoneFailsBeforeTheDeviceIsAskedForItsBootloader) {
  for (const char* file : {"none.hex", "none.zip", "firmware.bin"}) {
    station.ForgetRequests();
    EXPECT_FALSE(
        UpdateDevice(Context(), {TransportKind::Usb, ""}, station.platform.Folder() + file, {}));
    EXPECT_EQ(station.engine.LastError(), ErrorCode::Firmware) << file;
    const Lines closingPlan{"1B 1B 1B", "0x100 EB 00", "0x12F 01", "0x100 00"};
    EXPECT_EQ(station.Requests(), closingPlan);
  }
}

}  // namespace
}  // namespace tavo::test
