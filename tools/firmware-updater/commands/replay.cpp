// firmware-updater replay: runs the engine against a recorded update, without a device and without
// waiting, and reports whether it decides as it did then.
#include <algorithm>
#include <memory>
#include <ostream>

#include "commands/commands.h"
#include "device/dialogue.h"
#include "engine/firmware_updater.h"
#include "engine/update_observer.h"
#include "file/file_check.h"
#include "system/system.h"
#include "text/options.h"
#include "text/text_format.h"
#include "transport/i_comm_interface.h"
#include "update/closing_state.h"
#include "update/wire_record.h"

namespace tavo::tool {
namespace {

using std::chrono::milliseconds;

// The largest firmware, 64 MiB, in hexadecimal, with the text around its blocks in a record.
constexpr std::uintmax_t kMaxRecordBytes = 256 * 1024 * 1024;

constexpr const char* kExamples =
    "\nExamples:\n"
    "  firmware-updater update firmware.hex --record failure.ndjson\n"
    "  firmware-updater replay failure.ndjson";

// A clock that a wait moves forward.
class ReplayPlatform final : public Platform {
 public:
  milliseconds MonotonicNow() override { return m_now; }
  std::uint32_t TickCount() override { return static_cast<std::uint32_t>(m_now.count()); }
  std::tm LocalTime() override { return {}; }
  void Sleep(milliseconds duration) override { m_now += duration; }
  std::string ExecutablePath() override { return {}; }
  void Print(std::string_view) override {}
  FileHandle OpenLog(const std::string&, Links links) override {
    return SystemPlatform().OpenLog(kNullFile, links);
  }

 private:
  milliseconds m_now{0};
};

// The recorded device: it expects the requests that were sent then, and answers after the same time as
// it did then.
class RecordedDevice final : public ICommInterface {
 public:
  RecordedDevice(TavoLink& link, Platform& platform, Logger& log, const RecordedRun& run)
      : ICommInterface(link, platform, log), m_run(run) {}

  std::vector<CCommDevDesc>* EnumerateDevices() override { return &m_none; }
  bool Open(std::uint32_t) override { return true; }
  bool IsOpen() override { return m_open; }
  void Close() override {}

  bool SendRawData(const std::uint8_t* data, std::int32_t length) override {
    if (length <= 0) return true;
    const std::span sent(data, static_cast<std::size_t>(length));
    const WireEvent* const event = Next(WireEvent::Kind::Out);
    if (event == nullptr || !Equal(*event, sent)) {
      Diverge("the engine sends " + HexBytes(sent));
      return true;
    }
    m_shift = m_platform.MonotonicNow() - event->time;
    ++m_position;
    return event->ok;
  }

  bool ReceiveRawData(std::uint8_t* buffer, std::int32_t* length) override {
    const std::int32_t capacity = *length;
    *length = 0;
    // Without a device a transport may look for it before it fails.
    if (!m_open && Next(WireEvent::Kind::Reconnect) != nullptr) Reconnect();
    const WireEvent* const event = Next(WireEvent::Kind::In);
    const milliseconds now = m_platform.MonotonicNow();
    const milliseconds wait = event == nullptr ? kPollPace : event->time + m_shift - now;
    if (wait > milliseconds(0)) {
      m_platform.Sleep(std::min(wait, kPollPace));
      return true;
    }
    ++m_position;
    *length = std::min(capacity, static_cast<std::int32_t>(event->bytes.size()));
    std::copy_n(event->bytes.begin(), *length, buffer);
    return event->ok;
  }

  bool Reconnect() override {
    const WireEvent* const event = Next(WireEvent::Kind::Reconnect);
    if (event != nullptr) ++m_position;
    m_open = event != nullptr && event->ok;
    return m_open;
  }

  // Whether the user had requested the stop by now.
  bool StopIsDue() const {
    return m_run.stop && m_platform.MonotonicNow() - m_shift >= *m_run.stop;
  }

  // The place where the engine left the record; empty when it followed the record to its end.
  std::string Divergence() const {
    const auto rest = m_run.events.begin() + static_cast<std::ptrdiff_t>(m_position);
    const bool silent = std::any_of(rest, m_run.events.end(), [](const WireEvent& event) {
      return event.kind == WireEvent::Kind::Out;
    });
    if (m_divergence.empty() && silent) return "the engine ends before the record does";
    return m_divergence;
  }
  std::size_t Requests() const {
    return static_cast<std::size_t>(
        std::ranges::count(m_run.events, WireEvent::Kind::Out, &WireEvent::kind));
  }

 private:
  static constexpr milliseconds kPollPace{10};

  const WireEvent* Next(WireEvent::Kind kind) const {
    const bool follows = m_position < m_run.events.size() && m_run.events[m_position].kind == kind;
    return follows && m_divergence.empty() ? &m_run.events[m_position] : nullptr;
  }

  static bool Equal(const WireEvent& event, std::span<const std::uint8_t> sent) {
    if (event.hidden > 0) return event.hidden == sent.size() && CarriesFirmware(sent);
    return std::ranges::equal(event.bytes, sent);
  }

  void Diverge(const std::string& what) {
    if (m_divergence.empty()) {
      m_divergence = what + " after " + std::to_string(m_position) + " events of the record";
    }
  }

  const RecordedRun& m_run;
  std::vector<CCommDevDesc> m_none;
  bool m_open = true;
  std::size_t m_position = 0;
  milliseconds m_shift{0};  // from the record's time to the clock's
  std::string m_divergence;
};

// The engine calls its observer before every step: early enough for a recorded stop.
class StopAtItsTime final : public UpdateObserver {
 public:
  StopAtItsTime(FirmwareUpdater& engine, const TransportHolder& holder)
      : m_engine(engine), m_holder(holder) {}

  void StepCalled(const Step&, StepPhase) override {
    const auto& device = static_cast<const RecordedDevice&>(*m_holder.Transport());
    if (device.StopIsDue()) m_engine.RequestStop();
  }
  void StatusReported(const StatusMessage&) override {}

 private:
  FirmwareUpdater& m_engine;
  const TransportHolder& m_holder;
};

// Empty when the engine decided as in the record, otherwise the difference.
std::string Replay(const RecordedRun& run, const std::vector<FirmwareImage>& images,
                   std::ostream& out) {
  ReplayPlatform platform;
  Logger log(platform);
  TavoLink link;
  TransportHolder holder(platform, [&](TransportKind) {
    return std::make_unique<RecordedDevice>(link, platform, log, run);
  });
  FirmwareUpdater engine(platform, log, holder);
  StopAtItsTime observer(engine, holder);
  holder.SelectTransport(TransportKind::Usb);
  engine.SetObserver(&observer);
  engine.SetFlags(run.flags);
  {
    const FirmwareUpdater::Run right(engine);
    engine.Start(right, images);
  }
  const auto& device = static_cast<const RecordedDevice&>(*holder.Transport());
  if (const std::string divergence = device.Divergence(); !divergence.empty()) return divergence;
  const RunOutcome outcome = OutcomeOf(engine);
  if (outcome != run.outcome) {
    return "the update ends otherwise: " + Describe(outcome) +
           ", recorded: " + Describe(run.outcome);
  }
  out << device.Requests() << " requests, " << Describe(outcome) << '\n';
  return {};
}

void Decode(const RecordedRun& run, std::ostream& out) {
  milliseconds now{0};
  Dialogue dialogue([&] { return now; }, &out);
  for (const WireEvent& event : run.events) {
    now = event.time;
    switch (event.kind) {
      case WireEvent::Kind::Out:
        if (event.hidden > 0) {
          dialogue.HiddenBlockSent(event.ok, event.hidden);
        } else {
          dialogue.BytesSent(event.ok, event.bytes);
        }
        break;
      case WireEvent::Kind::In: dialogue.BytesReceived(event.ok, event.bytes, {}); break;
      case WireEvent::Kind::Reconnect: dialogue.Reconnected(event.ok); break;
    }
  }
  dialogue.End();
}

struct Options {
  std::string path{};
  bool decode = false;
};

ExitCode RunReplay(const Machine& machine, const Options& options) try {
  const std::string& path = options.path;
  const FileProblem obstacle = CheckReadable(path, kMaxRecordBytes);
  if (obstacle.Exists()) {
    Complain(machine, path + ": " + obstacle.text, obstacle.hint);
    return ExitCode::BadFile;
  }
  WireRecord record;
  if (const std::string problem = ReadWireRecord(path, record); !problem.empty()) {
    Complain(machine, path + ": " + problem, "records are written by update --record FILE");
    return ExitCode::BadFile;
  }
  for (std::size_t i = 0; i < record.runs.size(); ++i) {
    machine.out << "run " << i + 1 << " of " << record.runs.size() << ": ";
    if (options.decode) {
      machine.out << Describe(record.runs[i].outcome) << '\n';
      Decode(record.runs[i], machine.out);
      continue;
    }
    const std::string difference = Replay(record.runs[i], record.images, machine.out);
    if (difference.empty()) continue;
    machine.out << "decided otherwise" << std::endl;
    Complain(machine, path + ": " + difference, "the engine or the record has changed since");
    return ExitCode::FailedRuns;
  }
  return ExitCode::Done;
} catch (const std::exception& error) {
  Complain(machine, options.path + ": " + error.what(), "");
  return ExitCode::BadFile;
}

}  // namespace

void AddReplayCommand(CLI::App& app, const Machine& machine, ExitCode& exit) {
  CommandOptions command(app, "replay",
                         "Run the engine against a recorded update, without a device");
  command.Footer(kExamples);
  const auto options = std::make_shared<Options>();
  command.Value("FILE", options->path, "Record of an update, from update --record").Required();
  command.Flag("--decode", options->decode, "Show the recorded dialogue, decoded; run nothing");
  command.OnRun(exit, [&machine, options] { return RunReplay(machine, *options); });
}

}  // namespace tavo::tool
