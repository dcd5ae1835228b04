#include "device/session.h"

#include <algorithm>
#include <memory>

#include "transport/transport_factory.h"
#include "transport/comm_ftdi.h"
#include "transport/comm_win_usb.h"

namespace tavo::tool {
namespace {

constexpr std::uint8_t kFrameFormat = 0;

std::unique_ptr<ICommInterface> MakeRecorded(TransportKind kind, const TransportSeams& seams,
                                             WireRecorder& recorder) {
  if (kind == TransportKind::Usb) {
    return std::make_unique<Recorded<CCommWinUSB>>(recorder, seams.link, seams.platform, seams.log,
                                                   seams.usb);
  }
  return std::make_unique<Recorded<CCommFTDI>>(recorder, seams.link, seams.platform, seams.log,
                                               seams.d2xx);
}

}  // namespace

Session::Session(const Machine& machine, Platform& platform, WireRecorder* recorder)
    : m_log(platform), m_holder(platform, [=, this, &machine, &platform](TransportKind kind) {
        const TransportSeams seams{m_link, platform, m_log, machine.usb, machine.adapters};
        return recorder == nullptr ? MakeTransport(kind, seams)
                                   : MakeRecorded(kind, seams, *recorder);
      }) {}

Session::~Session() { Close(); }

std::string Session::Open(const Target& target) {
  m_holder.SelectTransport(target.kind);
  Transport().SetFrameFormat(kFrameFormat);
  return target.kind == TransportKind::Usb ? OpenUsb(target) : OpenAdapter(target);
}

void Session::Close() {
  if (m_holder.Transport() != nullptr) m_holder.Transport()->EndSession();
}

std::string Session::OpenUsb(const Target& target) {
  if (static_cast<CCommWinUSB&>(Transport()).OpenPort(target.address)) return {};
  return "the device at USB port " + target.address + " cannot be opened";
}

std::string Session::OpenAdapter(const Target& target) {
  auto& adapter = static_cast<CCommFTDI&>(Transport());
  adapter.SetEcho(target.echo);
  adapter.SetLineSettings({.baudRate = target.baudRate});
  const std::vector<CCommDevDesc>& devices = *adapter.EnumerateDevices();
  const auto found = std::ranges::find(devices, target.address, &CCommDevDesc::port);
  if (found == devices.end()) return "there is no adapter with serial number " + target.address;
  if (!adapter.Open(found->deviceRef)) {
    return "the adapter " + target.address + " cannot be opened";
  }
  adapter.SetSerialNumber(target.address);
  return {};
}

}  // namespace tavo::tool
