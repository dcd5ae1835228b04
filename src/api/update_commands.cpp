#include "api/update_commands.h"

#include <algorithm>
#include <functional>
#include <optional>

#include "transport/comm_ftdi.h"
#include "transport/comm_win_usb.h"

namespace tavo {
namespace {

constexpr std::uint8_t kFrameFormat = 0;

struct EndSession {
  ICommInterface& transport;
  ~EndSession() { transport.EndSession(); }
};

// The part that both commands have in common, around the opening of the device.
bool RunUpdate(const UpdateContext& context, TransportKind kind, const std::string& updateFile,
               const UpdateFlags& flags, const std::function<bool(ICommInterface&)>& open) {
  context.platform.Print("Firmware-Updater\n");
  if (updateFile.empty()) {
    context.platform.Print("No update file specified");
    return false;
  }
  context.platform.Print("Firmware: " + updateFile + "\n");

  const FirmwareUpdater::Run run(context.engine);
  if (!run.Granted()) {
    context.platform.Print("Another update is running. Wait for it to end and try again.\n");
    return false;
  }
  if (!context.holder.SelectTransport(kind)) return false;
  ICommInterface& transport = *context.holder.Transport();
  transport.SetFrameFormat(kFrameFormat);
  const EndSession ending{transport};
  if (!open(transport)) return false;

  context.platform.Print("\nStart Update\n");
  context.engine.SetFlags(flags);
  context.engine.Start(run, updateFile);
  return context.engine.Succeeded();
}

// False when none was named and none is found.
bool TakeFirstIfUnnamed(const UpdateContext& context, ICommInterface& transport,
                        std::string& name) {
  if (!name.empty()) return true;
  const std::vector<CCommDevDesc>& devices = *transport.EnumerateDevices();
  if (devices.empty()) {
    context.platform.Print("No device connected!");
    return false;
  }
  name = devices.front().port;
  return true;
}

std::optional<std::uint32_t> FindAdapter(ICommInterface& transport, const std::string& serial) {
  if (serial.empty()) return std::nullopt;
  const std::vector<CCommDevDesc>& devices = *transport.EnumerateDevices();
  const auto found = std::find_if(devices.begin(), devices.end(), [&](const CCommDevDesc& device) {
    return device.port == serial;
  });
  if (found == devices.end()) return std::nullopt;
  return found->deviceRef;
}

bool OpenAdapter(const UpdateContext& context, CCommFTDI& transport, FtdiTarget& target) {
  transport.SetEcho(target.echo);
  transport.SetLineSettings({.baudRate = target.baudRate});
  if (!TakeFirstIfUnnamed(context, transport, target.serialNumber)) return false;
  context.platform.Print("FtDI-Port: " + target.serialNumber + "\n");
  const std::optional<std::uint32_t> adapter = FindAdapter(transport, target.serialNumber);
  if (!adapter) {
    context.platform.Print("Serial " + target.serialNumber + " isnt found\n");
    return false;
  }
  if (!transport.Open(*adapter)) return false;
  transport.SetSerialNumber(target.serialNumber);
  return true;
}

}  // namespace

bool UpdateUsbDevice(UpdateContext context, std::string port, const std::string& updateFile,
                     const UpdateFlags& flags) {
  return RunUpdate(context, TransportKind::Usb, updateFile, flags, [&](ICommInterface& transport) {
    if (!TakeFirstIfUnnamed(context, transport, port)) return false;
    context.platform.Print("USB-Port: " + port + "\n");
    return static_cast<CCommWinUSB&>(transport).OpenPort(port);
  });
}

bool UpdateFtdiDevice(UpdateContext context, FtdiTarget target, const std::string& updateFile,
                      const UpdateFlags& flags) {
  return RunUpdate(context, TransportKind::Ftdi, updateFile, flags, [&](ICommInterface& transport) {
    return OpenAdapter(context, static_cast<CCommFTDI&>(transport), target);
  });
}

}  // namespace tavo
