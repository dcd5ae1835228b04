// A whole update in one process on a virtual clock: the real library from its update commands down
// to the vendor calls, and a simulated device behind USB and behind an FTDI adapter.
//
//   Station station(tavosim::OptionsFor(*tavosim::FindFamily("tunnel")));
//   EXPECT_TRUE(station.UpdateOverUsb());
//   EXPECT_EQ(station.Requests(), (Lines{"0x12F 01", "1B 1B 1B", ...}));
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "api/update_commands.h"
#include "simulator/firmware_builder.h"
#include "tests/support/simulated_d2xx.h"
#include "tests/support/simulated_usb.h"
#include "tests/support/transcript.h"
#include "transport/transport_factory.h"

namespace tavo::test {

class Station {
 public:
  static constexpr const char* kSerialNumber = "TAVO0001";
  static constexpr const char* kPort = "1-4-2";

  explicit Station(const tavosim::DeviceOptions& options, bool echo = false,
                   const std::vector<std::string>& faults = {},
                   TransportObserver* observer = nullptr)
      : device(options, ParseFaults(faults)),
        m_function(device),
        m_adapter(device, {19200, echo}, {{"", "", kSerialNumber}, 19200}),
        usb(platform),
        d2xx(platform, device, m_adapter, kSerialNumber),
        log(platform),
        holder(platform,
               [this, observer](TransportKind kind) {
                 return MakeTransport(kind, {link, platform, log, usb, d2xx}, observer);
               }),
        engine(platform, log, holder),
        m_echo(echo),
        m_firmware(tavosim::BuildFirmware(tavosim::RecipeFor(options.family))) {
    usb.Plug(device, m_function, {1, 4, 2});
    WriteUpdateFile();
  }

  bool UpdateOverUsb(const UpdateFlags& flags = {}) {
    return Update({TransportKind::Usb, kPort}, flags);
  }
  bool UpdateOverFtdi(const UpdateFlags& flags = {}) {
    return Update({TransportKind::Ftdi, kSerialNumber, 19200, m_echo}, flags);
  }
  bool Update(const DeviceTarget& target, const UpdateFlags& flags = {}) {
    return UpdateDevice({engine, holder, platform}, target, m_updateFile, flags);
  }

  const std::vector<std::uint8_t>& Firmware() const { return m_firmware.data; }
  // The device begins with another firmware.
  bool FlashHoldsFirmware() const {
    const std::vector<std::uint8_t>& flash = device.ApplicationFlash().Bytes();
    return std::equal(flash.begin(), flash.end(), m_firmware.data.begin(), m_firmware.data.end());
  }
  bool ApplicationRuns() {
    return device.State(SimNow(platform)) == tavosim::DeviceState::Application;
  }

  // Whether a claim is true, if the flash held `before` when the device was found.
  bool Holds(DeviceCondition claim, const std::vector<std::uint8_t>& before) {
    const bool unchanged = device.ApplicationFlash().Bytes() == before;
    const bool intact = device.ApplicationFlash().Intact();
    const bool runs = ApplicationRuns();
    switch (claim) {
      case DeviceCondition::Untouched: return unchanged;
      case DeviceCondition::OldApplicationRuns: return unchanged && runs;
      case DeviceCondition::UpdatedAndVerified:
      case DeviceCondition::UpdatedNotVerified:
      case DeviceCondition::RunsIncomplete: return FlashHoldsFirmware() && runs;
      case DeviceCondition::BootloaderAsFound: return unchanged && !runs;
      case DeviceCondition::BootloaderFlashIntact: return intact && !runs;
      case DeviceCondition::BootloaderFlashErased: return !intact && !runs;
      case DeviceCondition::Unknown: return true;
    }
    return false;
  }

  // Every request since the last ForgetRequests, raw escape bytes included.
  Lines Requests() const {
    Lines requests;
    for (const tavosim::Exchange& exchange : device.Journal())
      requests.push_back(Describe(exchange));
    return WithBlocksCounted(requests);
  }
  void ForgetRequests() { device.ClearJournal(); }

  // The device has no more faults, and is plugged in.
  void Repair() {
    device.ClearFaults();
    const tavosim::SimTime now = SimNow(platform);
    if (!device.Connected(now)) device.Unplug(now, std::chrono::seconds(0));
  }

  std::string Log() const { return FileText(platform.Folder() + "FirmwareUpdater.log"); }

  Lines Dialogue() const { return DialogueOf(platform.Console()); }

  VirtualPlatform platform;
  tavosim::Device device;

 private:
  tavosim::CdcFunction m_function;
  tavosim::FtdiAdapter m_adapter;

 public:
  SimulatedUsb usb;
  SimulatedD2xx d2xx;
  Logger log;
  TavoLink link;
  TransportHolder holder;
  FirmwareUpdater engine;

 private:
  static std::vector<tavosim::Fault> ParseFaults(const std::vector<std::string>& texts) {
    std::vector<tavosim::Fault> faults;
    faults.reserve(texts.size());
    for (const std::string& text : texts) faults.push_back(tavosim::ParseFault(text).fault.value());
    return faults;
  }

  void WriteUpdateFile() {
    m_updateFile = platform.Folder() + "firmware.hex";
    tavosim::WriteFile(m_updateFile, tavosim::HexText(m_firmware));
  }

  bool m_echo;
  tavosim::Firmware m_firmware;
  std::string m_updateFile;
};

}  // namespace tavo::test
