#include "transport/device_listing.h"

#include "log/displayable.h"
#include "transport/comm_ftdi.h"
#include "transport/comm_win_usb.h"

namespace tavo {
namespace {

void PrintDevices(Platform& platform, ICommInterface& transport) {
  for (const CCommDevDesc& device : *transport.EnumerateDevices()) {
    if (device.isReadable) platform.Print(Displayable(device.description) + "\n");
  }
}

}  // namespace

void ListDevices(Platform& platform, Logger& log, LibUsb& usb, D2xx& d2xx) {
  TavoLink link;
  CCommWinUSB usbTransport(link, platform, log, usb);
  PrintDevices(platform, usbTransport);
  CCommFTDI ftdiTransport(link, platform, log, d2xx);
  PrintDevices(platform, ftdiTransport);
}

}  // namespace tavo
