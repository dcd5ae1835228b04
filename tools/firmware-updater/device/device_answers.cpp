#include "device/device_answers.h"

#include <atomic>
#include <cstdlib>
#include <ostream>

#include "device/dialogue.h"
#include "device/session.h"
#include "system/interrupts.h"
#include "text/log_platform.h"

namespace tavo::tool {
namespace {

class Asking {
 public:
  Asking(const Machine& machine, Place place, const Questions& questions)
      : m_questions(questions),
        m_quiet(machine.platform, {}, nullptr),
        m_dialogue([this] { return m_quiet.MonotonicNow(); },
                   questions.trace ? &machine.err : nullptr),
        m_session(machine, m_quiet, &m_dialogue) {
    m_answers.place = std::move(place);
    m_session.Open(m_answers.place.target);
    m_inquiry.emplace(m_session.Transport(), m_quiet,
                      [&machine](const std::string& text) { machine.err << text << std::endl; });
    if (questions.flash) m_interrupts.emplace([this](int number) { OnInterrupt(number); });
  }

  DeviceAnswers Run() {
    m_dialogue.TestLine(true);
    CheckEcho(*m_inquiry, m_answers.place, m_questions.command);
    m_dialogue.TestLine(false);
    Ask();
    if (m_questions.route && m_answers.report.IsMaster()) AskBehind(*m_questions.route);
    m_dialogue.End();
    m_answers.refused = m_inquiry->Refused();
    m_answers.stopped = m_stopped;
    return m_answers;
  }

 private:
  void Ask() {
    m_answers.report = AskWho(*m_inquiry);
    if (!m_questions.flash) return;
    m_answers.flash =
        CheckFlash(*m_inquiry, m_quiet, m_answers.report, [this] { return m_stopped.load(); });
  }

  // A tunnel that is opened here is closed again.
  void AskBehind(const TunnelRoute& route) {
    m_answers.place.behind = route;
    m_answers.report = {};
    if (!m_inquiry->OpenTunnelTo(route)) return;
    Ask();
    m_inquiry->CloseTunnel();
    m_answers.report.tunnel = m_inquiry->OpenTunnel();
  }

  // The first ends the questions; the device is still led back.
  void OnInterrupt(int number) {
    m_stopped = true;
    if (number > 1) std::_Exit(static_cast<int>(ExitCode::Stopped));
  }

  const Questions& m_questions;
  LogPlatform m_quiet;
  Dialogue m_dialogue;
  Session m_session;
  std::optional<Inquiry> m_inquiry;
  DeviceAnswers m_answers;
  std::atomic<bool> m_stopped = false;
  std::optional<Interrupts> m_interrupts;  // the last: it uses the others
};

}  // namespace

DeviceAnswers AskDevice(const Machine& machine, const TargetOptionsValues& named,
                        const Questions& questions) {
  return Asking(machine, {ChooseTarget(machine, named), std::nullopt}, questions).Run();
}

}  // namespace tavo::tool
