#include "api/update_commands.h"

#include "log/displayable.h"

namespace tavo {
namespace {

struct EndSession {
  ICommInterface& transport;
  ~EndSession() { transport.EndSession(); }
};

const char* AddressLabel(TransportKind kind) {
  return kind == TransportKind::Usb ? "USB-Port: " : "FtDI-Port: ";
}

// False when none was named and none is found.
bool TakeFirstIfUnnamed(Platform& platform, ICommInterface& transport, std::string& address) {
  if (!address.empty()) return true;
  const std::optional<std::string> first = transport.FirstPort();
  if (!first) platform.Print("No device connected!");
  address = first.value_or("");
  return first.has_value();
}

}  // namespace

bool UpdateDevice(const UpdateContext& context, DeviceTarget target, const std::string& updateFile,
                  const UpdateFlags& flags) {
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
  ICommInterface* const transport = context.holder.SelectFor(target);
  if (transport == nullptr) return false;
  const EndSession ending{*transport};
  if (!TakeFirstIfUnnamed(context.platform, *transport, target.address)) return false;
  context.platform.Print(AddressLabel(target.kind) + Displayable(target.address) + "\n");
  if (!transport->OpenPort(target.address)) return false;

  context.platform.Print("\nStart Update\n");
  context.engine.SetFlags(flags);
  context.engine.Start(run, updateFile);
  return context.engine.Succeeded();
}

}  // namespace tavo
