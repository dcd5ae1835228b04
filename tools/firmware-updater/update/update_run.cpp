#include "update/update_run.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <system_error>
#include <utility>
#include <vector>

#include "device/dialogue.h"
#include "device/inquiry.h"
#include "device/refused_text.h"
#include "device/session.h"
#include "file/package_report.h"
#include "platform/platform.h"
#include "system/interrupts.h"
#include "system/system.h"
#include "text/log_platform.h"
#include "text/text_format.h"
#include "update/failure.h"
#include "update/fit.h"
#include "update/journal.h"
#include "update/update_checks.h"
#include "update/views.h"
#include "update/wire_record.h"

namespace tavo::tool {
namespace {

constexpr std::uint8_t kLabellingAdbType = 5;

// As the engine does, this goes by the first image. {-1, -1}: no tunnel.
TunnelRoute RouteOf(const PackageReport& report) {
  return report.images.empty() ? TunnelRoute{-1, -1} : report.images.front().route;
}

bool NeedsTunnel(const PackageReport& report) { return RouteOf(report).master != -1; }

bool SetsLabel(const PackageReport& report) {
  return std::ranges::count(report.images, kLabellingAdbType, &ImageReport::adbType) > 0;
}

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

// The traffic is recorded and decoded.
class Traffic final : public TransportObserver {
 public:
  Traffic(TransportObserver& record, TransportObserver& dialogue)
      : m_observers{&record, &dialogue} {}

  void BytesSent(bool ok, Bytes bytes) override {
    for (TransportObserver* const observer : m_observers) observer->BytesSent(ok, bytes);
  }
  void BytesReceived(bool ok, Bytes bytes, std::chrono::milliseconds took) override {
    for (TransportObserver* const observer : m_observers) observer->BytesReceived(ok, bytes, took);
  }
  void Reconnected(bool ok) override {
    for (TransportObserver* const observer : m_observers) observer->Reconnected(ok);
  }

 private:
  const std::array<TransportObserver*, 2> m_observers;
};

ClosingState NothingChanged(const char* sentence) {
  return {.device = std::string(NameOf(DeviceCondition::Untouched)),
          .tunnel = "not-asked",
          .sentence = sentence,
          .command = ""};
}

// Lost evidence is no success.
void CountLost(Record& record) {
  const bool done = record.state.exit == ExitCode::Done;
  if (done && !record.lost.empty()) record.state.exit = ExitCode::EvidenceLost;
}

// Everything that lives while one command works on one open device.
class Work {
 public:
  Work(const Machine& machine, const UpdateOptions& options, const Task& task,
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

  // A first line goes into the log, and shows whether there is room for more. A log that nobody has
  // named must not prevent an update.
  void CheckEvidence(const UpdateOptions& options) {
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

  void Open(bool shortLatency) { m_session.Open(m_task.target, shortLatency); }

  // The echo needs no device, so it is the first thing to know: without it, our own requests would be
  // taken for answers, and with too much of it, answers for echoes.
  void CheckEcho() {
    if (m_task.target.kind != TransportKind::Ftdi) return;
    m_dialogue.TestLine(true);
    const bool echoes = Ask().LineEchoes();
    m_dialogue.TestLine(false);
    if (echoes == m_task.target.echo) return;
    Task corrected = m_task;
    corrected.target.echo = echoes;
    throw EchoRefusal(echoes, CommandLine(corrected));
  }

  // Closes a tunnel that was left open, and looks who answers. False: the file is not for the device,
  // and the reason is kept for the record.
  bool Prepare() {
    Inquiry inquiry = Ask();
    if (m_task.purpose == Purpose::Recover || UsesTunnel()) CloseOpenTunnel(inquiry);
    m_found = AskWhoAnswers(inquiry, Patience::Brief);
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

  bool Perform() {
    return std::ranges::all_of(Runs(), [this](const UpdateFlags& flags) { return Run(flags); });
  }

  void Fill(Record& record, bool succeeded) {
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

  // Comes last: anything before it may lose more.
  void AddLost(Record& record) const {
    if (m_platform.HasLost()) record.lost.emplace_back("log");
    if (m_recorder.HasLost()) record.lost.emplace_back("record");
    CountLost(record);
  }

  // The exit code is decided and about to be written; no Ctrl-C changes it any more.
  void Decide(ExitCode exit) { m_exit = static_cast<int>(exit); }

  // The ids of the application that runs now.
  DeviceFacts AskApplication() {
    Inquiry inquiry = Ask();
    return {.deviceId = OrUnknown(AskValue(inquiry, kRequestDeviceId)),
            .softwareId = OrUnknown(AskSoftwareId(inquiry))};
  }

 private:
  std::string_view Untouched(std::string_view usual, const RefusedBytes& refused) const {
    if (m_found.IsMaster()) {
      return "The master responded; the device behind it was not reached, and its flash was not "
             "changed.";
    }
    const bool silent = !m_found.AnythingAnswered();
    return silent && refused.Total() > 0
               ? "The device sent bytes, but no answer; its flash was not changed."
               : usual;
  }

  static constexpr const char* kLogLost = "the log cannot be written";
  static constexpr const char* kRecordLost = "the record of the traffic cannot be written";

  // Once the update is under way. Until then a loss may still be a refusal.
  void WarnOfLoss(const char* what) {
    if (m_checked) m_view.Note(std::string("Warning: ") + what + ".");
  }

  Inquiry Ask() {
    return {m_session.Transport(), m_platform,
            [this](const std::string& text) { m_view.Note(text); }};
  }

  std::optional<std::uint16_t> AskSoftwareId(Inquiry& inquiry) const {
    Command softwareId = kRequestSoftwareId;
    softwareId.id = m_report.images.front().requestId;
    return AskValue(inquiry, softwareId);
  }

  bool UsesTunnel() const { return NeedsTunnel(m_report) && !m_task.flags.bootloaderOnly; }

  // A tunnel that was left open on the right route would be used as it stands, and the devices behind it
  // do not answer any more: it has to be opened afresh. On a wrong route, requests would reach another
  // device; a recovery must not write there.
  void CloseOpenTunnel(Inquiry& inquiry) {
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
  bool FindMisfit(Inquiry& inquiry) {
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

  static constexpr const char* kTunnelNeeded = "tunnel-needed";

  static Failure TunnelNeeded() {
    return {.name = kTunnelNeeded,
            .code = 0,
            .text = "the device is behind a master module, and --bootloader-only opens no tunnel",
            .hint = "leave out --bootloader-only"};
  }
  bool TunnelIsMissing() const { return m_failure->name == kTunnelNeeded; }

  bool Reject(const Failure& failure) {
    m_failure = failure;
    m_evidence.device = m_found.inBootloader        ? DeviceCondition::BootloaderAsFound
                        : m_found.RunsApplication() ? DeviceCondition::OldApplicationRuns
                                                    : DeviceCondition::Untouched;
    return true;
  }

  // A device in its bootloader cannot give its ids, and needs only the bootloader's part of the plan;
  // behind a tunnel, which that part does not open, all but the ids. With its application back it may
  // still lack its label, which the full plan sets.
  std::vector<UpdateFlags> Runs() const {
    UpdateFlags flags = m_task.flags;
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

  bool Run(const UpdateFlags& flags) {
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
  DeviceFacts ReportedFacts() const {
    DeviceFacts facts = m_engine.Facts();
    for (const auto& [command, fact] : kFactIn) {
      if (m_dialogue.ShortlyAnswered().command == command) facts.*fact = -1;
    }
    return facts;
  }

  static bool RunsNewFirmware(DeviceCondition condition) {
    return RunsApplication(condition) && condition != DeviceCondition::OldApplicationRuns;
  }

  Ending HowItEnded(bool succeeded) const {
    if (succeeded) return Ending::Succeeded;
    const bool failed = m_failure || m_course.Failure() != ErrorCode::None;
    return m_course.IsStopping() && !failed ? Ending::Stopped : Ending::Failed;
  }

  // After a failure the last phase is the way back to an application.
  PhaseEnd LastPhaseEnd() const {
    if (m_engine.Succeeded()) return PhaseEnd::Ok;
    if (m_course.Failure() == ErrorCode::None && m_course.IsStopping()) return PhaseEnd::Stopped;
    return RunsApplication(m_engine.DeviceState().device) ? PhaseEnd::Ok : PhaseEnd::Failed;
  }

  // --- after a failure ---

  // Finds out what the engine's failure leaves open, as far as questions can.
  Advice Explain() {
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
  void ExplainAnswer() {
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

  void ExplainSilence(const SentRequest& request, const RefusedBytes& refused) {
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
  Advice ExplainNoId() {
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
  void LookAround() {
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
      m_evidence.tunnel = inquiry.OpenTunnel().value_or(0) == 0 ? TunnelCondition::Closed
                                                                : TunnelCondition::LeftOpen;
      Reject(WrongRoad(RouteOf(m_report)));
    }
  }

  // The engine closes its tunnel before it starts the application again, so that a device behind it
  // stays in its bootloader.
  void BringBackBehindTunnel(Inquiry& inquiry) {
    const TunnelRoute route = RouteOf(m_report);
    m_view.Note("Looking for the device behind " + RouteText(route) + ".");
    if (!inquiry.OpenTunnelTo(route)) return;
    const DeviceReport behind = AskWhoAnswers(inquiry, Patience::Full);
    if (behind.inBootloader)
      m_view.Note("The device is in its bootloader; starting its application.");
    const bool runs =
        behind.RunsApplication() || (behind.inBootloader && inquiry.StartApplication());
    if (runs) {
      m_evidence.device = DeviceCondition::OldApplicationRuns;
    } else if (behind.inBootloader) {
      m_evidence.device = DeviceCondition::BootloaderAsFound;
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

  // In another thread, which must wait for nothing that the update may hold.
  void OnInterrupt(int number) {
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

  std::string EndedAtOnce() const {
    const Phase phase = m_course.Current();
    return "Ended at once: " + std::string(FlashIn(phase, m_written)) +
           (phase == Phase::Finish ? "." : ". The device may be in its bootloader.") +
           (m_task.flags.dryRun ? " To lead it back, run: " : " To recover it, run: ") +
           RecoverCommand(m_task);
  }

  const Machine& m_machine;

  const Task m_task;
  const PackageReport& m_report;
  UpdateView& m_view;
  bool m_checked = false;  // the evidence, by CheckEvidence
  LogPlatform m_platform;
  WireRecorder m_recorder;
  Dialogue m_dialogue;
  Traffic m_traffic;
  Session m_session;
  FirmwareUpdater m_engine;
  Course m_course;
  DeviceReport m_found;       // who answered when we looked
  DeviceEvidence m_evidence;  // over all runs
  std::optional<Failure> m_failure;
  std::optional<DeviceFacts> m_before;
  std::atomic<bool> m_written = false;
  std::atomic<int> m_exit = -1;  // -1: not decided
  Interrupts m_interrupts;       // the last to be made: it uses all the others
};

// Empty stays empty.
std::string AbsolutePath(const std::string& path) {
  if (path.empty()) return path;
  std::error_code error;
  const std::filesystem::path absolute = std::filesystem::absolute(path, error);
  return error ? path : absolute.lexically_normal().string();
}

// The result has room for one value of each name.
void CheckTags(const std::vector<std::string>& tags) {
  std::set<std::string> names;
  for (const std::string& tag : tags) {
    const std::string name = tag.substr(0, tag.find('='));
    if (names.insert(name).second) continue;
    throw Refusal{ExitCode::Usage, "repeated-tag", "--tag names " + Displayable(name) + " twice",
                  "give each name one value"};
  }
}

// From the check of the file to the state of the device at the end; all of it goes into the record.
class UpdateRun {
 public:
  UpdateRun(const Machine& machine, Purpose purpose, const UpdateOptions& options)
      : m_machine(machine),
        m_options(options),
        m_view(MakeView(machine, options.json, options.verbose || options.trace)) {
    m_record.purpose = purpose;
    m_record.file = AbsolutePath(options.file);
    m_record.traffic = AbsolutePath(options.record);
    m_record.station = options.station.empty() ? HostName() : options.station;
    m_record.flags = options.flags;
    m_record.tags = options.tags;
    Begin();
  }

  const Record& Run() {
    try {
      UpdateChosen();
    } catch (const Refusal& refusal) {
      m_record.ending = refusal.exit == ExitCode::Stopped ? Ending::Stopped : Ending::Failed;
      m_record.failure =
          Failure{.name = refusal.name, .code = 0, .text = refusal.text, .hint = refusal.hint};
      if (m_record.ending == Ending::Stopped) m_record.failure.reset();
      m_record.state.exit = refusal.exit;
      m_record.state.command = refusal.command;
      m_record.state.tries = true;
      Close();
      m_view->Show(m_record);
    }
    return m_record;
  }

 private:
  void Begin() {
    m_record.begin = std::chrono::system_clock::now();
    m_begin = m_machine.platform.MonotonicNow();
  }

  void Close() {
    m_record.end = std::chrono::system_clock::now();
    m_record.elapsed = m_machine.platform.MonotonicNow() - m_begin;
    if (m_record.journal.empty() || AppendToJournal(m_record.journal, m_record)) return;
    m_record.lost.emplace_back("journal");
    CountLost(m_record);
  }

  ChosenDevice Device() {
    if (m_options.wait.empty()) return ChooseDevice(m_machine, m_options.target);
    std::atomic<bool> stopped = false;
    const Interrupts interrupts([&](int /*number*/) { stopped = true; });
    ChosenDevice device = AwaitDevice(m_machine, m_options.target,
                                      {SecondsOf(m_options.wait), [&] { return stopped.load(); },
                                       [this](const std::string& text) { m_view->Note(text); }});
    Begin();
    return device;
  }

  // Shows the record while Ctrl-C is still handled, or throws a Refusal.
  void UpdateChosen() {
    m_record.state = NothingChanged("No device was opened; nothing was changed.");
    CheckTags(m_options.tags);
    const PackageReport report = CheckedFile(m_options.file);
    m_record.sha256 = report.sha256;
    CheckOutputs(m_machine, m_options);
    m_record.device = Device();
    m_record.journal = AbsolutePath(m_options.journal);
    const LogFile log = LogOf(m_machine, m_options, *m_record.device, *m_view);
    m_record.log = AbsolutePath(log.path);

    const UpdateFlags& flags = m_options.flags;
    Work work(m_machine, m_options,
              {m_record.purpose, m_options.file, m_record.device->target, flags}, report, log,
              *m_view);
    work.CheckEvidence(m_options);
    work.Open(m_options.shortLatency);
    m_record.state = NothingChanged("The device was only asked questions; nothing was changed.");
    work.CheckEcho();
    if (!flags.checkIdentity) {
      m_view->Note(
          "The hardware id and the device id are not checked; the processor and the size are.");
    }
    const bool succeeded = work.Prepare() && work.Perform();
    work.Fill(m_record, succeeded);
    // Behind a tunnel, which is closed by now, nobody can be asked.
    if (succeeded && m_options.json && !flags.dryRun && !NeedsTunnel(report)) {
      m_record.after = work.AskApplication();
    }
    work.AddLost(m_record);
    Close();
    work.Decide(m_record.state.exit);
    m_view->Show(m_record);
  }

  const Machine& m_machine;
  const UpdateOptions& m_options;
  const std::unique_ptr<UpdateView> m_view;
  Record m_record;
  std::chrono::milliseconds m_begin{0};
};

// Lost output is no success.
ExitCode ExitOf(const Machine& machine, const ClosingState& state) {
  if (machine.out) return state.exit;
  Complain(machine, "standard output cannot be written; the result was lost. " + state.Line(), "");
  return state.exit == ExitCode::Done ? ExitCode::EvidenceLost : state.exit;
}

}  // namespace

void AddUpdateOptions(CommandOptions& command, UpdateOptions& to) {
  command.Value("FILE", to.file, "Update file: .hex, or .zip with .hex files inside").Required();
  AddTargetOptions(command, to.target);
  AddLatencyOption(command, to.shortLatency);
  command
      .FlagOrValue("--wait", "86400", to.wait,
                   "Wait for the device to be connected, for a day or SECONDS")
      .Seconds();
  command.Flag("--skip-identity-check", to.flags.checkIdentity,
               "Do not ask for device ids, do not check the hardware id, set no label", false);
  command.Flag("--extended-erase", to.flags.extendedErase, "Erase mode 3 instead of 1");
  command.Flag("--json", to.json, "Report as JSON, one object a line, and nothing else");
  command
      .Value("--log", to.log,
             "File to append the library's log to, instead of the device's own in the user's state "
             "folder")
      .Shown("FILE")
      .NotEmpty();
  Option record = command.Value("--record", to.record,
                                "File to record the traffic with the device in, for the command "
                                "replay; the firmware is left out");
  record.Shown("FILE").NotEmpty();
  command.Flag("--record-firmware", to.recordFirmware, "Record the firmware too").Needs(record);
  command
      .Value("--journal", to.journal,
             "File to append the result to as one line, for the command history; several updates "
             "may share it")
      .Shown("FILE")
      .NotEmpty();
  command
      .Value("--station", to.station,
             "Name of this place in the result of --json, instead of the host's")
      .Shown("NAME");
  command.Values("--tag", to.tags, "NAME=VALUE to add to the result of --json; repeatable")
      .Shown("NAME=VALUE")
      .Checked([](const std::string& tag) {
        return tag.find('=') + 1 > 1 ? "" : "write it as NAME=VALUE";
      });
  command.Flag("--verbose", to.verbose, "Show the library's log as well");
  command.Flag("--trace", to.trace, kTraceHelp);
}

ExitCode RunUpdate(const Machine& machine, Purpose purpose, const UpdateOptions& options) {
  SurviveLostOutput();
  return ExitOf(machine, UpdateRun(machine, purpose, options).Run().state);
}

}  // namespace tavo::tool
