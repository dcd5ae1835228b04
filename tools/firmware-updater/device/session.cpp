#include "device/session.h"

#include "transport/comm_ftdi.h"
#include "transport/transport_factory.h"

namespace tavo::tool {
namespace {

constexpr std::uint8_t kShortestMs = 1;
constexpr std::uint8_t kVendorsShortestMs = 2;  // as its manual says

}  // namespace

void AddLatencyOption(CommandOptions& command, bool& shortLatency) {
  command
      .Flag(
          "--keep-latency", shortLatency,
          "Leave the adapter's latency timer alone, instead of setting it to 1 ms for the time of "
          "the command",
          false)
      .Needs("--ftdi");
}

Session::Session(const Machine& machine, Platform& platform, TransportObserver* observer)
    : m_adapters(machine.adapters),
      m_log(platform),
      m_holder(platform, [=, this, &machine, &platform](TransportKind kind) {
        return MakeTransport(kind, {m_link, platform, m_log, machine.usb, machine.adapters},
                             observer);
      }) {}

Session::~Session() { Close(); }

void Session::Open(const Target& target, bool shortLatency) {
  ICommInterface* const transport = m_holder.SelectFor(target);
  if (transport != nullptr && transport->OpenPort(target.address)) {
    if (shortLatency) ShortenLatency();
    return;
  }
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
  RestoreLatency();
  if (m_holder.Transport() != nullptr) m_holder.Transport()->EndSession();
}

D2xxHandle Session::Adapter() {
  const auto* const ftdi = dynamic_cast<CCommFTDI*>(m_holder.Transport());
  return ftdi == nullptr ? nullptr : ftdi->Handle();
}

// Without it the work takes longer, which is no reason to refuse it.
void Session::ShortenLatency() {
  if (Adapter() == nullptr) return;
  std::uint8_t found = 0;
  D2xxStatus status = m_adapters.GetLatencyTimer(Adapter(), &found);
  if (status == kD2xxOk && found > kShortestMs) {
    m_latencyMs = found;
    status = m_adapters.SetLatencyTimer(Adapter(), kShortestMs);
    if (status != kD2xxOk) status = m_adapters.SetLatencyTimer(Adapter(), kVendorsShortestMs);
  }
  if (status != kD2xxOk) m_log.LogWarn("Session: Latency timer not set, Error: %u", status);
}

void Session::RestoreLatency() {
  if (!m_latencyMs || Adapter() == nullptr) return;
  const D2xxStatus status = m_adapters.SetLatencyTimer(Adapter(), *m_latencyMs);
  if (status != kD2xxOk) m_log.LogWarn("Session: Latency timer not restored, Error: %u", status);
  m_latencyMs.reset();
}

}  // namespace tavo::tool
