#include "update/wire_record.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <nlohmann/json.hpp>
#include <utility>

#include "device/dialogue.h"
#include "package/adb_view.h"
#include "protocol/commands.h"
#include "system/system.h"
#include "text/text_format.h"
#include "update/closing_state.h"

namespace tavo::tool {
namespace {

using std::chrono::milliseconds;
using WireJson = nlohmann::ordered_json;

constexpr int kVersion = 1;
constexpr std::uint8_t kBlank = 0xFF;
constexpr std::size_t kTrailerBytes = 12;
constexpr std::int64_t kAdbAddressFromEnd = 9;
constexpr std::int64_t kAdbBytes = 16;
constexpr std::int64_t kLongestIdList = 1024;  // bytes of one list of hardware ids
constexpr std::size_t kMaxImageBytes = std::size_t{0xFFFF} * 1024;  // of all images
constexpr double kMaxSeconds = 1e6;

// --- bytes as text ---

std::string Hexadecimal(std::span<const std::uint8_t> bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) text += Format("%02X", byte);
  return text;
}

std::vector<std::uint8_t> BytesOf(const std::string& text) {
  const bool isHexadecimal = std::ranges::all_of(
      text, [](char digit) { return std::isxdigit(static_cast<unsigned char>(digit)) != 0; });
  if (!isHexadecimal || text.size() % 2 != 0) throw std::invalid_argument("no bytes");
  std::vector<std::uint8_t> bytes;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

// Runs of one value, [count, value]: most of an image without its program is made of them.
WireJson RunsOf(const std::vector<std::uint8_t>& data) {
  WireJson runs = WireJson::array();
  for (auto begin = data.begin(); begin != data.end();) {
    const auto end = std::find_if(begin, data.end(), [begin](auto byte) { return byte != *begin; });
    runs.push_back({end - begin, *begin});
    begin = end;
  }
  return runs;
}

std::vector<std::uint8_t> DataOf(const WireJson& runs, std::size_t most) {
  std::vector<std::uint8_t> data;
  for (const WireJson& run : runs) {
    const std::size_t count = run.at(0);
    if (count > most - data.size()) throw std::out_of_range("an image is too long");
    data.insert(data.end(), count, run.at(1).get<std::uint8_t>());
  }
  return data;
}

// --- events ---

struct KindRow {
  WireEvent::Kind kind;
  const char* name;
};
constexpr std::array kKinds{KindRow{WireEvent::Kind::Out, "out"},
                            KindRow{WireEvent::Kind::In, "in"},
                            KindRow{WireEvent::Kind::Reconnect, "reconnect"}};

milliseconds TimeOf(const WireJson& line) {
  const double seconds = line.at("t");
  if (!(seconds >= 0 && seconds < kMaxSeconds)) throw std::out_of_range("no time of an update");
  return milliseconds(std::llround(seconds * 1000));
}

WireEvent EventOf(WireEvent::Kind kind, const WireJson& line) {
  return {.kind = kind,
          .time = TimeOf(line),
          .ok = line.at("ok"),
          .bytes = BytesOf(line.value("bytes", "")),
          .hidden = line.value("hidden", std::size_t{0})};
}

UpdateFlags FlagsOf(const WireJson& flags) {
  return {.checkIdentity = flags.at("checkIdentity"),
          .extendedErase = flags.at("extendedErase"),
          .bootloaderOnly = flags.at("bootloaderOnly"),
          .dryRun = flags.at("dryRun"),
          .checkHardware = flags.at("checkHardware"),
          .inBootloader = flags.value("inBootloader", false)};
}

WireJson AsJson(const UpdateFlags& flags) {
  return {{"checkIdentity", flags.checkIdentity},   {"extendedErase", flags.extendedErase},
          {"bootloaderOnly", flags.bootloaderOnly}, {"dryRun", flags.dryRun},
          {"checkHardware", flags.checkHardware},   {"inBootloader", flags.inBootloader}};
}

RecordedRun& LastRun(WireRecord& record) {
  if (record.runs.empty()) throw std::out_of_range("traffic before the first run");
  return record.runs.back();
}

FirmwareImage ImageOf(const WireJson& line, const std::vector<FirmwareImage>& others) {
  std::size_t room = kMaxImageBytes;
  for (const FirmwareImage& other : others) room -= other.data.size();
  return {DataOf(line.at("runs"), room), line.at("start")};
}

void TakeLine(const WireJson& line, WireRecord& record) {
  const std::string event = line.at("event");
  if (const auto row = std::ranges::find(kKinds, event, &KindRow::name); row != kKinds.end()) {
    LastRun(record).events.push_back(EventOf(row->kind, line));
  } else if (event == "image") {
    record.images.push_back(ImageOf(line, record.images));
  } else if (event == "run") {
    record.runs.push_back({.flags = FlagsOf(line.at("flags"))});
  } else if (event == "stop") {
    LastRun(record).stop = TimeOf(line);
  } else if (event == "ended") {
    LastRun(record).outcome = {line.at("succeeded"), line.at("code"), line.at("device")};
  }
}

// --- what describes a firmware ---

// Copies the bytes at an address of the image, as far as the image reaches.
void Keep(const FirmwareImage& from, FirmwareImage& to, std::int64_t address, std::int64_t bytes) {
  const auto size = static_cast<std::int64_t>(from.data.size());
  const std::int64_t begin = std::clamp<std::int64_t>(address - from.startAddress, 0, size);
  const std::int64_t end = std::clamp<std::int64_t>(address - from.startAddress + bytes, 0, size);
  std::copy(from.data.begin() + begin, from.data.begin() + end, to.data.begin() + begin);
}

void KeepEntries(const AdbView& view, const FirmwareImage& from, FirmwareImage& to) {
  constexpr std::int64_t kListAddress = 4;
  std::vector<std::uint16_t> ids;
  for (std::int32_t index = 0; index < view.EntryCount(); ++index) {
    const std::int64_t entry = view.EntryAddress(index);
    Keep(from, to, entry, view.EntryStride());
    view.HardwareIdList(index, ids);
    const auto withItsEnd = static_cast<std::int64_t>(2 * (ids.size() + 1));
    Keep(from, to, view.ReadAddress(entry + kListAddress), std::min(withItsEnd, kLongestIdList));
  }
}

}  // namespace

RunOutcome OutcomeOf(const FirmwareUpdater& engine) {
  return {.succeeded = engine.Succeeded(),
          .code = engine.Succeeded() ? 0 : static_cast<int>(engine.LastError()),
          .device = std::string(NameOf(engine.DeviceState().device))};
}

std::string Describe(const RunOutcome& outcome) {
  return (outcome.succeeded ? "succeeded" : "failed with code " + std::to_string(outcome.code)) +
         ", device " + Displayable(outcome.device);
}

FirmwareImage WithoutProgram(const FirmwareImage& image) {
  FirmwareImage bare{std::vector<std::uint8_t>(image.data.size()), image.startAddress};
  std::ranges::transform(image.data, bare.data.begin(), [](std::uint8_t byte) {
    return byte == kBlank ? kBlank : std::uint8_t{0};
  });
  const AdbView view(image);
  Keep(image, bare, view.EndAddress() - static_cast<std::int64_t>(kTrailerBytes), kTrailerBytes);
  Keep(image, bare, view.ReadAddress(view.EndAddress() - kAdbAddressFromEnd), kAdbBytes);
  if (view.HasEntryTable()) KeepEntries(view, image, bare);
  return bare;
}

bool CarriesFirmware(std::span<const std::uint8_t> frame) {
  const std::optional<TavoMessage> message = MessageIn(frame);
  return message && message->id == kWriteFlash.id;
}

std::string ReadWireRecord(const std::string& path, WireRecord& record) {
  std::ifstream file(PathOf(path));
  if (!file) return "the record cannot be read";
  std::size_t number = 0;
  try {
    for (std::string line; std::getline(file, line);) {
      ++number;
      const WireJson json = WireJson::parse(line);
      const bool heading = json.at("event") == "recording" && json.at("version") == kVersion;
      if (number == 1 && !heading) return "this is no record of an update, or of another version";
      TakeLine(json, record);
    }
  } catch (const std::exception&) {
    return "line " + std::to_string(number) + " is no line of a record";
  }
  if (record.runs.empty()) return "the record holds no update";
  const bool whole = std::ranges::none_of(
      record.runs, [](const RecordedRun& run) { return run.outcome.device.empty(); });
  return whole ? "" : "the record breaks off before the end of its update";
}

WireRecorder::WireRecorder(Platform& platform, const std::string& path, bool withFirmware,
                           std::function<void()> onLost)
    : m_platform(platform), m_withFirmware(withFirmware), m_onLost(std::move(onLost)) {
  if (path.empty()) return;
  m_file.open(PathOf(path), std::ios::trunc | std::ios::binary);
  Write(WireJson{{"version", kVersion}, {"event", "recording"}}.dump());
}

// Every line is flushed: a loss shows at once, and a record of a killed update ends in its last line.
void WireRecorder::Write(const std::string& line) {
  m_file << line << std::endl;
  if (!m_file && !m_lost.exchange(true)) m_onLost();
}

double WireRecorder::Now() const {
  return std::chrono::duration<double>(m_platform.MonotonicNow() - m_begin).count();
}

void WireRecorder::AddImage(const FirmwareImage& image) {
  if (!m_file.is_open()) return;
  const FirmwareImage shown = m_withFirmware ? image : WithoutProgram(image);
  Write(WireJson{{"event", "image"}, {"start", shown.startAddress}, {"runs", RunsOf(shown.data)}}
            .dump());
}

void WireRecorder::RunBegins(const UpdateFlags& flags) {
  const std::lock_guard lock(m_lock);
  m_running = m_file.is_open();
  m_begin = m_platform.MonotonicNow();
  if (m_running) Write(WireJson{{"event", "run"}, {"flags", AsJson(flags)}}.dump());
}

void WireRecorder::RunEnds(const RunOutcome& outcome) {
  const std::lock_guard lock(m_lock);
  if (!std::exchange(m_running, false)) return;
  Write(WireJson{{"event", "ended"},
                 {"t", Now()},
                 {"succeeded", outcome.succeeded},
                 {"code", outcome.code},
                 {"device", outcome.device}}
            .dump());
}

void WireRecorder::Add(WireEvent::Kind kind, bool ok, Bytes bytes) {
  const std::lock_guard lock(m_lock);
  if (!m_running) return;
  WireJson line{
      {"event", std::ranges::find(kKinds, kind, &KindRow::kind)->name}, {"t", Now()}, {"ok", ok}};
  const bool hide = kind == WireEvent::Kind::Out && !m_withFirmware && CarriesFirmware(bytes);
  if (hide) {
    line["hidden"] = bytes.size();
  } else if (!bytes.empty()) {
    line["bytes"] = Hexadecimal(bytes);
  }
  Write(line.dump());
}

void WireRecorder::Stop() {
  const std::lock_guard lock(m_lock);
  if (m_running) Write(WireJson{{"event", "stop"}, {"t", Now()}}.dump());
}

}  // namespace tavo::tool
