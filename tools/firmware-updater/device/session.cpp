#include "device/session.h"

#include "transport/transport_factory.h"

namespace tavo::tool {

Session::Session(const Machine& machine, Platform& platform, TransportObserver* observer)
    : m_log(platform), m_holder(platform, [=, this, &machine, &platform](TransportKind kind) {
        return MakeTransport(kind, {m_link, platform, m_log, machine.usb, machine.adapters},
                             observer);
      }) {}

Session::~Session() { Close(); }

void Session::Open(const Target& target) {
  ICommInterface* const transport = m_holder.SelectFor(target);
  if (transport != nullptr && transport->OpenPort(target.address)) return;
  const bool usb = target.kind == TransportKind::Usb;
  const std::string refused = transport == nullptr ? "" : transport->RefusedControlRequest();
  throw Refusal{ExitCode::NoDevice, "not-opened",
                (usb ? "the device at USB port " : "the adapter ") + target.address +
                    " cannot be opened" + (refused.empty() ? "" : ": it refuses " + refused),
                refused.empty() ? "`firmware-updater list` shows the reason"
                                : "unplug it and plug it in again; a new device must acknowledge "
                                  "SET_CONTROL_LINE_STATE and SET_LINE_CODING on interface 0"};
}

void Session::Close() {
  if (m_holder.Transport() != nullptr) m_holder.Transport()->EndSession();
}

}  // namespace tavo::tool
