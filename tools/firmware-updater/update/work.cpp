#include "update/work.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "platform/platform.h"
#include "system/system.h"
#include "text/text_format.h"
#include "update/failure.h"
#include "update/fit.h"

namespace tavo::tool {
namespace {

constexpr const char* kLogLost = "the log cannot be written";
constexpr const char* kRecordLost = "the record of the traffic cannot be written";
constexpr const char* kTunnelNeeded = "tunnel-needed";

// The content of the flash if the update ends in this phase; `written`: an earlier run has written all.
std::string_view FlashIn(Phase phase, bool written) {
  switch (phase) {
    case Phase::Erase:
    case Phase::Write: return "the application is erased or partly written";
    case Phase::Verify:
    case Phase::Start: return "the firmware is completely written";
    case Phase::Finish: return "the firmware is written and runs; its label may not be set";
    case Phase::BringBack:
      return "the update has ended, and the device is not yet back in its application";
    default: break;
  }
  return written ? "the firmware is completely written" : "nothing has been written yet";
}

using Fact = std::int32_t DeviceFacts::*;
constexpr std::array kFactIn{
    std::pair<const Command*, Fact>{&kRequestDeviceId, &DeviceFacts::deviceId},
    std::pair<const Command*, Fact>{&kRequestDeviceIdAdmin, &DeviceFacts::deviceId},
    std::pair<const Command*, Fact>{&kRequestSoftwareId, &DeviceFacts::softwareId},
    std::pair<const Command*, Fact>{&kCheckVersion, &DeviceFacts::bootloaderVersion},
    std::pair<const Command*, Fact>{&kRequestProcessorId, &DeviceFacts::processorId},
    std::pair<const Command*, Fact>{&kCheckApplicationSize, &DeviceFacts::applicationKiB},
    std::pair<const Command*, Fact>{&kCheckHardwareId, &DeviceFacts::hardwareId},
};

}  // namespace

void CountLost(Record& record) {
  const bool done = record.state.exit == ExitCode::Done;
  if (done && !record.lost.empty()) record.state.exit = ExitCode::EvidenceLost;
}

Work::Work(const Machine& machine, const UpdateOptions& options, const Task& task,
           const PackageReport& report, const LogFile& log, UpdateView& view)
    : m_machine(machine),
      m_task(task),
      m_report(report),
      m_view(view),
      m_platform(machine.platform, log, options.verbose ? &machine.err : nullptr,
                 [this] { WarnOfLoss(kLogLost); }),
      m_recorder(m_platform, options.record, options.recordFirmware,
                 [this] { WarnOfLoss(kRecordLost); }),
      m_dialogue([&machine] { return machine.platform.MonotonicNow(); },
                 options.trace ? &machine.err : nullptr),
      m_traffic(m_recorder, m_dialogue),
      m_session(machine, m_platform, &m_traffic),
      m_engine(m_platform, m_session.Log(), m_session.Holder()),
      m_course(
          machine.platform, view, m_dialogue, [this] { m_engine.RequestStop(); },
          [this] { return m_session.Transport().Refused(); }),
      m_interrupts([this](int number) { OnInterrupt(number); }) {
  m_engine.SetObserver(&m_course);
  m_engine.ShowProgressBar(false);
  for (const ImageReport& image : report.images) m_recorder.AddImage(image.image);
}

void Work::CheckEvidence(const UpdateOptions& options) {
  m_platform.Print("firmware-updater " TAVO_VERSION ": " + CommandLine(m_task) + "\n");
  m_checked = true;
  const auto unwritable = [](const std::string& file, const std::string& option) {
    return Refusal{ExitCode::Usage, "unwritable-file", Displayable(file) + " cannot be written",
                   "name another file with " + option};
  };
  if (m_recorder.HasLost()) throw unwritable(options.record, "--record");
  if (!options.log.empty() && m_platform.HasLost()) throw unwritable(options.log, "--log");
  if (m_platform.HasLost()) WarnOfLoss(kLogLost);
}

void Work::CheckEcho() {
  if (m_task.target.kind != TransportKind::Ftdi) return;
  m_dialogue.TestLine(true);
  const bool echoes = Ask().LineEchoes();
  m_dialogue.TestLine(false);
  if (echoes == m_task.target.echo) return;
  Task corrected = m_task;
  corrected.target.echo = echoes;
  throw EchoRefusal(echoes, CommandLine(corrected));
}

bool Work::Prepare() {
  Inquiry inquiry = Ask();
  if (m_task.purpose == Purpose::Recover || UsesTunnel()) CloseOpenTunnel(inquiry);
  m_found = AskWhoAnswers(inquiry, m_task.quick ? Patience::Hasty : Patience::Brief);
  if (m_found.tunnel.value_or(0) != 0 && !m_task.flags.bootloaderOnly) {
    CloseOpenTunnel(inquiry);
    m_found = AskWhoAnswers(inquiry, Patience::Brief);
  }
  if (m_task.purpose == Purpose::Recover && NeedsTunnel(m_report)) {
    // Some masters give the id of a device that cannot.
    m_found.deviceId = AskValue(inquiry, kRequestDeviceId);
    if (!m_found.deviceId) m_found.deviceId = AskValue(inquiry, kRequestDeviceIdAdmin);
  }
  return !FindMisfit(inquiry);
}

bool Work::Perform() {
  return std::ranges::all_of(Runs(), [this](const UpdateFlags& flags) { return Run(flags); });
}

void Work::Fill(Record& record, bool succeeded) {
  Advice advice = Advice::Again;
  m_dialogue.End();
  record.ending = HowItEnded(succeeded);
  if (record.ending == Ending::Failed) {
    advice = Explain();
    record.failure = m_failure;
  }
  record.before = m_before.value_or(FactsOf(m_found));
  const auto processor = static_cast<std::uint32_t>(record.before.processorId);
  const ImageReport* const image = ImageFor(m_report, processor);
  const bool isArchive = m_report.kind == UpdateFileKind::Zip;
  if (isArchive && record.before.processorId != -1 && image != nullptr) {
    record.member = image->member;
  }
  record.transfer = m_course.Written();
  record.retries = m_course.Retries();
  record.refused = m_course.Refused();
  for (const PhaseDescription& row : kPhaseTable) {
    if (m_course.Duration(row.phase).count() > 0) {
      record.durations.emplace_back(row.phase, m_course.Duration(row.phase));
    }
  }
  while (const auto name =
             m_engine.ResettedModule(static_cast<std::uint32_t>(record.resetModules.size()))) {
    record.resetModules.push_back(*name);
  }
  record.state = CloseWith(m_evidence, record.ending, advice, m_task);
  if (m_evidence.device == DeviceCondition::Untouched) {
    const std::string_view usual = SentenceOf(m_evidence.device);
    record.state.sentence.replace(0, usual.size(), Untouched(usual, record.refused));
  }
}

void Work::AddLost(Record& record) const {
  if (m_platform.HasLost()) record.lost.emplace_back("log");
  if (m_recorder.HasLost()) record.lost.emplace_back("record");
  CountLost(record);
}

DeviceFacts Work::AskApplication() {
  Inquiry inquiry = Ask();
  return {.deviceId = OrUnknown(AskValue(inquiry, kRequestDeviceId)),
          .softwareId = OrUnknown(AskSoftwareId(inquiry))};
}

std::string_view Work::Untouched(std::string_view usual, const RefusedBytes& refused) const {
  if (m_found.IsMaster()) {
    return "The master responded; the device behind it was not reached, and its flash was not "
           "changed.";
  }
  const bool silent = !m_found.AnythingAnswered();
  return silent && refused.Total() > 0
             ? "The device sent bytes, but no answer; its flash was not changed."
             : usual;
}

// Once the update is under way. Until then a loss may still be a refusal.
void Work::WarnOfLoss(const char* what) {
  if (m_checked) m_view.Note(std::string("Warning: ") + what + ".");
}

Inquiry Work::Ask() {
  return {m_session.Transport(), m_platform,
          [this](const std::string& text) { m_view.Note(text); }};
}

std::optional<std::uint16_t> Work::AskSoftwareId(Inquiry& inquiry) const {
  Command softwareId = kRequestSoftwareId;
  softwareId.id = m_report.images.front().requestId;
  return AskValue(inquiry, softwareId);
}

// A tunnel that was left open on the right route would be used as it stands, and the devices behind it
// do not answer any more: it has to be opened afresh. On a wrong route, requests would reach another
// device; a recovery must not write there.
void Work::CloseOpenTunnel(Inquiry& inquiry) {
  if (inquiry.OpenTunnel().value_or(0) == 0) return;
  m_view.Note("A tunnel was left open; closing it first.");
  inquiry.CloseTunnel();
  if (inquiry.OpenTunnel().value_or(0) == 0 || m_task.purpose == Purpose::Update) return;
  throw Refusal{ExitCode::FailedUnknown, "tunnel-open",
                "a tunnel to another device is open and cannot be closed",
                "switch the master's power off and on, then run the command again",
                RecoverCommand(m_task)};
}

// True: the file is not for the device. Only answers count here; silence is left to the engine, which
// is more patient.
bool Work::FindMisfit(Inquiry& inquiry) {
  const bool behind = NeedsTunnel(m_report);
  const bool unexpected = m_found.IsMaster() && (!behind || m_task.flags.bootloaderOnly);
  if (unexpected) m_found = AskWhoAnswers(inquiry, Patience::Full);
  // An application may leave ALIVE unanswered, or have no time for it.
  if (unexpected && m_found.IsMaster()) m_found.softwareId = AskSoftwareId(inquiry);
  if (unexpected && m_found.IsMaster()) {
    return Reject(behind ? TunnelNeeded() : WrongRoad(RouteOf(m_report)));
  }
  if (!m_found.inBootloader) return false;
  if (behind && m_found.tunnel.value_or(0) == 0) return Reject(WrongRoad(RouteOf(m_report)));
  AskBootloaderFacts(inquiry, m_found);
  const auto misfit = Misfit(m_report, FactsOf(m_found), m_task.flags);
  return misfit && Reject(*misfit);
}

Failure Work::TunnelNeeded() {
  return {.name = kTunnelNeeded,
          .code = 0,
          .text = "the device is behind a master module, and --bootloader-only opens no tunnel",
          .hint = "leave out --bootloader-only"};
}

bool Work::Reject(const Failure& failure) {
  m_failure = failure;
  m_evidence.device = m_found.inBootloader        ? DeviceCondition::BootloaderAsFound
                      : m_found.RunsApplication() ? DeviceCondition::OldApplicationRuns
                                                  : DeviceCondition::Untouched;
  return true;
}

// A device in its bootloader cannot give its ids, and needs only the bootloader's part of the plan;
// behind a tunnel, which that part does not open, all but the ids. With its application back it may
// still lack its label, which the full plan sets.
std::vector<UpdateFlags> Work::Runs() const {
  UpdateFlags flags = m_task.flags;
  flags.bootloaderOnly |= m_task.quick;
  flags.inBootloader = m_task.quick && m_found.inBootloader;
  if (flags.bootloaderOnly) flags.checkHardware = flags.checkIdentity;
  const bool tunnel = NeedsTunnel(m_report);
  const bool asUsual = m_task.purpose == Purpose::Update ||
                       (tunnel ? m_found.deviceId.has_value() : !m_found.inBootloader);
  if (asUsual) return {flags};
  UpdateFlags reduced = flags;
  reduced.checkHardware = flags.checkIdentity;
  reduced.checkIdentity = flags.checkIdentity && !tunnel;
  reduced.bootloaderOnly = !tunnel;
  return SetsLabel(m_report) ? std::vector{reduced, flags} : std::vector{reduced};
}

bool Work::Run(const UpdateFlags& flags) {
  if (m_course.IsStopping()) return false;
  const FirmwareUpdater::Run run(m_engine);
  m_engine.SetFlags(flags);
  m_recorder.RunBegins(flags);
  m_engine.Start(run, m_report.Firmware());
  m_recorder.RunEnds(OutcomeOf(m_engine));
  m_course.End(LastPhaseEnd());
  DeviceEvidence evidence = m_engine.DeviceState();
  // Behind a tunnel the id is the first question; without it, no other shows what runs there.
  if (m_written && m_course.FailedForIdentity()) {
    evidence.device = DeviceCondition::OldApplicationRuns;
  }
  m_evidence = {Following(m_evidence.device, evidence.device), evidence.tunnel};
  m_written = RunsNewFirmware(m_evidence.device);
  if (!m_before) m_before = ReportedFacts();
  return m_engine.Succeeded();
}

// An answer that was too short holds no value.
DeviceFacts Work::ReportedFacts() const {
  DeviceFacts facts = m_engine.Facts();
  for (const auto& [command, fact] : kFactIn) {
    if (m_dialogue.ShortlyAnswered().command == command) facts.*fact = -1;
  }
  return facts;
}

bool Work::RunsNewFirmware(DeviceCondition condition) {
  return RunsApplication(condition) && condition != DeviceCondition::OldApplicationRuns;
}

Ending Work::HowItEnded(bool succeeded) const {
  if (succeeded) return Ending::Succeeded;
  const bool failed = m_failure || m_course.Failure() != ErrorCode::None;
  return m_course.IsStopping() && !failed ? Ending::Stopped : Ending::Failed;
}

// After a failure the last phase is the way back to an application.
PhaseEnd Work::LastPhaseEnd() const {
  if (m_engine.Succeeded()) return PhaseEnd::Ok;
  if (m_course.Failure() == ErrorCode::None && m_course.IsStopping()) return PhaseEnd::Stopped;
  return RunsApplication(m_engine.DeviceState().device) ? PhaseEnd::Ok : PhaseEnd::Failed;
}

// In another thread, which must wait for nothing that the update may hold.
void Work::OnInterrupt(int number) {
  if (m_exit >= 0) {
    if (!OutputTakesText()) std::_Exit(m_exit);  // the record waits for a reader
    return;
  }
  if (number == 1) {
    m_course.Stop();
    m_recorder.Stop();
    if (!OutputTakesText()) return;
    m_view.Note("Stopping before the next request; " +
                std::string(FlashIn(m_course.Current(), m_written)) +
                ". Ctrl-C again ends the program at once, in the middle of its work.");
    return;
  }
  SayLast("\n" + InLines(m_machine, EndedAtOnce()) + "\n");
  std::_Exit(static_cast<int>(ExitCode::Stopped));
}

std::string Work::EndedAtOnce() const {
  const Phase phase = m_course.Current();
  return "Ended at once: " + std::string(FlashIn(phase, m_written)) +
         (phase == Phase::Finish ? "." : ". The device may be in its bootloader.") +
         (m_task.flags.dryRun ? " To lead it back, run: " : " To recover it, run: ") +
         RecoverCommand(m_task);
}

bool Work::UsesTunnel() const { return NeedsTunnel(m_report) && !m_task.flags.bootloaderOnly; }

bool Work::TunnelIsMissing() const { return m_failure->name == kTunnelNeeded; }

}  // namespace tavo::tool
