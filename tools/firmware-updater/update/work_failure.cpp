// After a failure: what the engine's failure leaves open, as far as questions can show it.
#include "device/refused_text.h"
#include "text/text_format.h"
#include "update/failure.h"
#include "update/fit.h"
#include "update/work.h"

namespace tavo::tool {

Advice Work::Explain() {
  if (m_failure) {
    ExplainAnswer();
    return TunnelIsMissing() ? Advice::OpenTunnel : Advice::AnotherFile;
  }
  const ErrorCode code =
      m_course.Failure() == ErrorCode::None ? m_engine.LastError() : m_course.Failure();
  m_failure = FailureOf(code, m_course.FailureText(), m_task.target.kind);
  const auto misfit = Misfit(m_report, m_engine.Facts(), m_task.flags);
  // A block that is too long for a frame cannot be sent.
  if (misfit && (misfit->code == m_failure->code || code == ErrorCode::FlashWriting)) {
    m_failure->text = misfit->text;
    m_failure->hint = misfit->hint;
  }
  ExplainAnswer();
  if (!m_course.MayHaveErased()) LookAround();
  if (m_failure->code == 0 || misfit) return Advice::AnotherFile;
  const bool onlyIdMissing = m_course.FailedForIdentity() && RunsApplication(m_evidence.device);
  return onlyIdMissing ? ExplainNoId() : Advice::Again;
}

// The traffic knows more than the engine: the request, and an answer that was refused, late or short.
void Work::ExplainAnswer() {
  const auto code = static_cast<ErrorCode>(m_failure->code);
  const SentRequest& shortly = m_dialogue.ShortlyAnswered();
  const DeviceFacts facts = m_engine.Facts();
  if (code == ErrorCode::Timeout) {
    ExplainSilence(m_course.FailureRequest(), m_course.FailureRefused());
  } else if (code != ErrorCode::None && !shortly.text.empty()) {
    m_failure->text =
        "The answer to " + shortly.text + " is too short: " + shortly.shortAnswer + ".";
    m_failure->hint = "On a new device: an answer holds all of its fields.";
  } else if (code == ErrorCode::Verify && facts.checksum >= 0) {
    m_failure->text += " The bootloader reports " +
                       Hex(static_cast<std::uint32_t>(facts.checksum), 8) + " as calculated, " +
                       Hex(static_cast<std::uint32_t>(facts.expectedChecksum), 8) +
                       " as reference.";
  }
}

void Work::ExplainSilence(const SentRequest& request, const RefusedBytes& refused) {
  const auto late = m_dialogue.LateAnswerTo(request);
  m_failure->text = "No answer to " + request.text + " (" + m_course.FailureText() + ")";
  if (refused.Total() > 0) {
    m_failure->text += "; " + NoAnswerAmong(refused);
    m_failure->hint = HintOn(refused, m_task.target.kind);
  } else if (late.count() > 0) {
    m_failure->text += Format(" within 4 s; it came after %.1f s", Seconds(late));
    m_failure->hint = std::string("On a new device: ") + request.rule;
  } else {
    m_failure->hint += std::string(" On a new device: ") + request.rule;
  }
  m_failure->text += ".";
}

// Where the hardware fits, the id decides on the label alone; and the bootloader knows the hardware.
Advice Work::ExplainNoId() {
  m_view.Note("The device reports no id; checking its hardware in its bootloader.");
  UpdateFlags flags = m_task.flags;
  flags.checkIdentity = false;
  flags.checkHardware = true;
  flags.dryRun = true;
  const bool fits = Run(flags);
  if (!fits) LookAround();
  const auto misfit = Misfit(m_report, m_engine.Facts(), m_task.flags);
  if (misfit && !fits) m_failure = misfit;
  if (!fits) return misfit ? Advice::AnotherFile : Advice::Again;
  m_failure->text = "the device runs its application, but does not report its device id";
  m_failure->hint = "Its hardware fits the file. Update it without the id; no label is set then.";
  return Advice::SkipIdentity;
}

// Nothing has been erased, so the device still holds its old application, wherever it is.
void Work::LookAround() {
  const bool settled = RunsApplication(m_evidence.device) && !NeedsTunnel(m_report);
  if (settled) return;
  Inquiry inquiry = Ask();
  m_found = AskWhoAnswers(inquiry, Patience::Full);
  if (!NeedsTunnel(m_report)) {
    if (m_found.inBootloader) m_evidence.device = DeviceCondition::BootloaderAsFound;
    if (m_found.IsMaster()) m_failure = WrongRoad(RouteOf(m_report));
  } else if (m_found.IsMaster()) {
    BringBackBehindTunnel(inquiry);
  } else if (m_found.AnythingAnswered()) {
    // The device here took the request for a tunnel, which leads nowhere.
    if (m_found.tunnel.value_or(0) != 0) inquiry.CloseTunnel();
    m_evidence.tunnel =
        inquiry.OpenTunnel().value_or(0) == 0 ? TunnelCondition::Closed : TunnelCondition::LeftOpen;
    Reject(WrongRoad(RouteOf(m_report)));
  }
}

// The engine closes its tunnel before it starts the application again, so that a device behind it
// stays in its bootloader.
void Work::BringBackBehindTunnel(Inquiry& inquiry) {
  const TunnelRoute route = RouteOf(m_report);
  m_view.Note("Looking for the device behind " + RouteText(route) + ".");
  if (!inquiry.OpenTunnelTo(route)) return;
  const DeviceReport behind = AskWhoAnswers(inquiry, Patience::Full);
  if (behind.inBootloader)
    m_view.Note("The device is in its bootloader; starting its application.");
  const bool runs = behind.RunsApplication() || (behind.inBootloader && inquiry.StartApplication());
  if (runs) {
    m_evidence.device = DeviceCondition::OldApplicationRuns;
  } else if (behind.inBootloader) {
    // One that has become silent may have restarted.
    m_evidence.device = inquiry.Ask(kCheckVersion) ? DeviceCondition::BootloaderAsFound
                                                   : DeviceCondition::Untouched;
  } else {
    m_evidence.device = DeviceCondition::Untouched;
    m_failure = Failure{.name = "nobody-behind-tunnel",
                        .code = 0,
                        .text = "the file is for a device behind " + RouteText(route) +
                                "; no device responds there",
                        .hint =
                            "Check that device and its connection to the master, or use the "
                            "update file for the device that is there."};
  }
  inquiry.CloseTunnel();
  m_evidence.tunnel =
      inquiry.OpenTunnel().value_or(0) == 0 ? TunnelCondition::Closed : TunnelCondition::LeftOpen;
}

}  // namespace tavo::tool
