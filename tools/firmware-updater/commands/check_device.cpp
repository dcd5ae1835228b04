// check-device: judges a device by the rules of the protocol. The device is left as it was, unless --write
// allows more.
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <ostream>

#include "commands/commands.h"
#include "device/device_rules.h"
#include "device/place.h"
#include "device/session.h"
#include "device/target_choice.h"
#include "system/interrupts.h"
#include "text/json.h"
#include "text/log_platform.h"
#include "text/text_format.h"
#include "update/fit.h"
#include "update/update_checks.h"

namespace tavo::tool {
namespace {

constexpr int kDocumentVersion = 1;

struct Options {
  TargetOptionsValues target{};
  std::string through{};
  std::string file{};  // empty: nothing is written
  bool shortLatency = true;
  bool json = false;
};

constexpr std::array kMarkNames{"pass", "hint", "fail", "not-asked"};  // stable, for scripts

// A file is compared with these answers only.
struct NeededAnswer {
  const char* name;
  const char* asks;
  std::size_t length;
};
constexpr std::array kNeededAnswers{
    NeededAnswer{"version", "VERSION", 2}, NeededAnswer{"processor", "PROCESSOR", 3},
    NeededAnswer{"application-size", "SIZE", 2}, NeededAnswer{"hardware-id", "HARDWARE", 2}};

class DeviceCheck {
 public:
  DeviceCheck(const Machine& machine, const Options& options)
      : m_machine(machine),
        m_options(options),
        m_platform(machine.platform, {}, nullptr),
        m_heard(m_platform),
        m_session(machine, m_platform, &m_heard),
        m_interrupts([this](int number) { OnInterrupt(number); }) {}

  ExitCode Run() {
    if (!m_options.file.empty()) m_file = CheckedFile(m_options.file);
    m_place.target = ChooseTarget(m_machine, m_options.target);
    if (m_file) Say("This erases the application and writes " + Displayable(m_options.file) + ".");
    m_session.Open(m_place.target, m_options.shortLatency);
    Inquiry inquiry(m_session.Transport(), m_platform,
                    [this](const std::string& text) { Say(text); });
    CheckEcho(inquiry, m_place, "check-device");
    const DeviceReport found = WhoAnswers(inquiry);
    Examination examination(inquiry, m_session.Transport(), m_heard, m_platform,
                            m_place.target.kind == TransportKind::Usb,
                            [this] { return m_stopped.load(); });
    Examine(found.inBootloader, examination);
    HintAtEscapes(found, examination.Results());
    m_lost = examination.Results().lost;
    if (m_lost) Say("The device was disconnected.");
    if (m_place.behind) inquiry.CloseTunnel();
    return Conclude(found, examination.Results());
  }

 private:
  void Say(const std::string& text) {
    EndProgress();
    m_machine.err << text << std::endl;
  }

  // The line is redrawn until another one follows.
  void ShowProgress(unsigned percent) {
    if (!m_machine.terminal || m_options.json || percent == m_progress) return;
    m_progress = percent;
    m_machine.out << "\r\x1B[KWritten: " << percent << " %" << std::flush;
  }
  void EndProgress() {
    if (m_progress) m_machine.out << std::endl;
    m_progress.reset();
  }

  DeviceReport WhoAnswers(Inquiry& inquiry) {
    DeviceReport report = AskWhoAnswers(inquiry, Patience::Full);
    if (!report.IsMaster()) return report;
    m_place.behind = RouteBehind(m_options.file, m_options.through);
    if (!m_place.behind) {
      throw Refusal{ExitCode::NoDevice, "behind-master",
                    "a master module answers, and the device is behind it",
                    "name the tunnel with --through MASTER.SLAVE"};
    }
    return inquiry.OpenTunnelTo(*m_place.behind) ? AskWhoAnswers(inquiry, Patience::Full)
                                                 : DeviceReport{};
  }

  // WhoAnswers ends with the escape bytes; a receiver that they stop responds to nothing after them.
  void HintAtEscapes(const DeviceReport& found, const Findings& findings) {
    const Asked* const first = findings.Find(found.inBootloader ? "version" : "sign-of-life");
    const bool responded = found.inBootloader || found.RunsApplication();
    if (!responded || first == nullptr || first->heard > 0) return;
    Say("hint: the device responded until it received 1B 1B 1B, which begin no frame");
  }

  // The rules of each stage are shown before the next begins: above all the bootloader's values before
  // the application is started.
  void Examine(bool inBootloader, Examination& examination) {
    const Findings& findings = examination.Results();
    if (!inBootloader) examination.AskApplication();
    Show(Stage::Application, findings);
    const bool called = findings.Find("call") != nullptr;
    examination.AskBootloader(called);
    Show(Stage::Bootloader, findings);
    if (m_file && examination.Results().lost) m_notWritten = "the device was disconnected";
    if (const FirmwareImage* const image = ImageToWrite(findings)) {
      Say("Erasing and writing. An answer to ERASE is awaited for up to a minute.");
      examination.onWritten = [this](unsigned percent) { ShowProgress(percent); };
      examination.Write(*image);
      EndProgress();
    }
    Show(Stage::Writing, findings);
    const bool erased = findings.Find("erase") != nullptr;
    if (erased ? findings.Written() : called) examination.StartApplication(erased);
    Show(Stage::Start, findings);
  }

  // Null when there is none, or none that fits the device; a misfit is kept.
  const FirmwareImage* ImageToWrite(const Findings& findings) {
    if (!m_file || m_stopped || !m_notWritten.empty()) return nullptr;
    for (const NeededAnswer& needed : kNeededAnswers) {
      const Asked* const asked = findings.Find(needed.name);
      if (asked != nullptr && asked->answer && asked->answer->length >= needed.length) continue;
      m_notWritten = std::string("the bootloader has not answered ") + needed.asks +
                     (asked != nullptr && asked->answer ? " in full" : "");
      return nullptr;
    }
    const DeviceFacts device{
        .blockSize = static_cast<std::int32_t>(findings.BlockSize()),
        .processorId = static_cast<std::int32_t>(findings.Processor()),
        .hardwareId = static_cast<std::int32_t>(findings.Value("hardware-id", 0, 2)),
        .applicationKiB = static_cast<std::int32_t>(findings.Value("application-size", 0, 2))};
    const std::optional<Failure> misfit = Misfit(*m_file, device, {});
    if (misfit) m_notWritten = misfit->text;
    if (device.blockSize > kMaxPayload) m_notWritten = "the device's blocks fit in no frame";
    return m_notWritten.empty() ? &ImageFor(*m_file, findings.Processor())->image : nullptr;
  }

  void Show(Stage stage, const Findings& findings) {
    for (const Rule& rule : Rules()) {
      if (rule.stage != stage) continue;
      const Ruling ruling = Judge(rule, findings);
      const auto mark = static_cast<std::size_t>(ruling.mark);
      ++m_counts[mark];
      m_rules.Add({{"name", rule.name},
                   {"asks", rule.asks},
                   {"verdict", kMarkNames[mark]},
                   {"text", ruling.text},
                   {"sentence", rule.sentence}});
      if (m_options.json) continue;
      m_machine.out << Format("%-10s %-22s %s: ", kMarkNames[mark], rule.name, rule.asks)
                    << ruling.text << '\n';
      if (ruling.mark != Mark::NotAsked) {
        m_machine.out << "           \"" << rule.sentence << "\"\n";
      }
    }
    m_machine.out.flush();
  }

  DeviceCondition ConditionOf(const DeviceReport& found, const Findings& findings) const {
    using enum DeviceCondition;
    if (m_lost) return Unknown;
    const bool erased = findings.Find("erase") != nullptr;
    const Asked* const start = findings.Find("application-start");
    if (start != nullptr && start->answer) {
      if (!erased) return OldApplicationRuns;
      return findings.Find("verified") != nullptr ? UpdatedAndVerified : UpdatedNotVerified;
    }
    if (start != nullptr) return Unknown;
    const Asked* const remains = findings.Find("still-in-bootloader");
    if (erased) return remains != nullptr && remains->answer ? BootloaderFlashErased : Unknown;
    return found.inBootloader        ? BootloaderAsFound
           : found.RunsApplication() ? OldApplicationRuns
                                     : Untouched;
  }

  ExitCode Conclude(const DeviceReport& found, const Findings& findings) {
    const DeviceCondition condition = ConditionOf(found, findings);
    const bool runs = RunsApplication(condition);
    const Task task{Purpose::Recover, m_options.file, m_place.target};
    const std::string next = runs || !m_file ? "" : RecoverCommand(task);
    m_options.json ? WriteJson(found, condition, next) : WriteEnd(condition, next);
    if (m_stopped) return ExitCode::Stopped;
    if (!found.RunsApplication() && !found.inBootloader) return ExitCode::FailedUnknown;
    if (!m_lost && Count(Mark::Fail) == 0 && m_notWritten.empty()) return ExitCode::Done;
    if (condition == DeviceCondition::Unknown) return ExitCode::FailedUnknown;
    return runs ? ExitCode::FailedRuns : ExitCode::FailedInBootloader;
  }

  void WriteEnd(DeviceCondition condition, const std::string& next) const {
    if (!m_notWritten.empty()) m_machine.out << "Nothing was written: " << m_notWritten << ".\n";
    m_machine.out << Format("Passed %d, failed %d, hints %d, not asked %d. ", Count(Mark::Pass),
                            Count(Mark::Fail), Count(Mark::Hint), Count(Mark::NotAsked))
                  << SentenceOf(condition) << (next.empty() ? "" : " To recover it, run: ") << next
                  << '\n';
  }

  void WriteJson(const DeviceReport& found, DeviceCondition condition,
                 const std::string& next) const {
    const auto orNull = [](const std::string& text) { return text.empty() ? Json() : Json(text); };
    const Json document{{"version", kDocumentVersion},
                        {"kind", KindName(m_place.target.kind)},
                        {"address", m_place.target.address},
                        {"through", m_place.behind ? Json{{"master", m_place.behind->master},
                                                          {"slave", m_place.behind->slave}}
                                                   : Json()},
                        {"found", found.RunsApplication() ? "application"
                                  : found.inBootloader    ? "bootloader"
                                                          : "silent"},
                        {"rules", m_rules},
                        {"passed", Count(Mark::Pass)},
                        {"failed", Count(Mark::Fail)},
                        {"hints", Count(Mark::Hint)},
                        {"notAsked", Count(Mark::NotAsked)},
                        {"notWritten", orNull(m_notWritten)},
                        {"state", NameOf(condition)},
                        {"next", orNull(next)}};
    m_machine.out << document.Text(2) << '\n';
  }

  int Count(Mark mark) const { return m_counts[static_cast<std::size_t>(mark)]; }

  // The first ends the questions; the device is still led back.
  void OnInterrupt(int number) {
    m_stopped = true;
    if (number > 1) std::_Exit(static_cast<int>(ExitCode::Stopped));
  }

  const Machine& m_machine;
  const Options& m_options;
  std::optional<PackageReport> m_file;
  Place m_place;
  LogPlatform m_platform;
  Heard m_heard;
  Session m_session;
  Json m_rules = Json::Array();
  std::array<int, kMarkNames.size()> m_counts{};
  std::string m_notWritten;              // why, although it should have been
  std::optional<unsigned> m_progress{};  // as shown in the last line
  bool m_lost = false;                   // the device, before all was asked
  std::atomic<bool> m_stopped = false;
  Interrupts m_interrupts;  // the last to be made: it uses the others
};

}  // namespace

void AddCheckDeviceCommand(CLI::App& app, const Machine& machine, ExitCode& exit) {
  CommandOptions command(app, "check-device", "Judge a device by the rules of the protocol");
  const auto options = std::make_shared<Options>();
  AddTargetOptions(command, options->target);
  const Option write = command.Value("--write", options->file,
                                     "Check erasing and writing too: ERASES the application, then "
                                     "writes this update file, which also names the tunnel");
  AddThroughOption(command, options->through).Excludes(Option(write).Shown("FILE").NotEmpty());
  AddLatencyOption(command, options->shortLatency);
  command.Flag("--json", options->json, "Write one JSON document");
  command.Footer(
      "For those who build devices. A running application is asked first, then its bootloader; "
      "then it is started again. A device found in its bootloader stays there.\n\n"
      "Examples:\n"
      "  firmware-updater check-device\n"
      "  firmware-updater check-device --ftdi TAVO0001 --baud 115200 --json\n"
      "  firmware-updater check-device --usb 4-2 --write firmware.hex");
  command.OnRun(exit, [&machine, options] { return DeviceCheck(machine, *options).Run(); });
}

}  // namespace tavo::tool
