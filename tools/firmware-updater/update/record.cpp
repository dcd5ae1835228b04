#include "update/record.h"

#include <algorithm>

#include "device/refused_text.h"
#include "text/text_format.h"

namespace tavo::tool {
namespace {

constexpr int kJsonVersion = 1;

Json IdOrNull(std::int32_t value) { return value < 0 ? Json() : Json(value); }

Json TextOrNull(const std::string& text) { return text.empty() ? Json() : Json(text); }

Json AsJson(const std::optional<ChosenDevice>& device) {
  if (!device) return {};
  const Target& target = device->target;
  Json json{{"kind", KindName(target.kind)}, {"address", target.address}};
  if (target.kind == TransportKind::Ftdi) {
    json.Set("baud", target.baudRate);
    json.Set("echo", target.echo);
  }
  json.Set("usb", device->usb ? device->usb->AsJson() : Json());
  return json;
}

Json AsJson(const std::optional<Failure>& failure) {
  if (!failure) return {};
  return {{"name", failure->name},
          {"code", failure->code},
          {"text", failure->text},
          {"hint", failure->hint}};
}

// RFC 3339, in UTC.
std::string TimeText(std::chrono::system_clock::time_point time) {
  using namespace std::chrono;
  const auto day = floor<days>(time);
  const year_month_day date{day};
  const hh_mm_ss clock{floor<seconds>(time - day)};
  return Format("%04d-%02u-%02uT%02d:%02d:%02dZ", int{date.year()}, unsigned{date.month()},
                unsigned{date.day()}, static_cast<int>(clock.hours().count()),
                static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()));
}

// --dry-run, which decides on the meaning of the whole record, stands beside these.
Json FlagsJson(const Record& record) {
  return {{"skipIdentityCheck", !record.flags.checkIdentity},
          {"extendedErase", record.flags.extendedErase},
          {"bootloaderOnly", record.flags.bootloaderOnly},
          {"quick", record.quick},
          {"verbose", record.verbose},
          {"trace", record.trace}};
}

Json TagsJson(const std::vector<std::string>& tags) {
  Json json = Json::Object();
  for (const std::string& tag : tags) {
    const std::size_t equals = tag.find('=');
    json.Set(tag.substr(0, equals), tag.substr(equals + 1));
  }
  return json;
}

Json ChecksumJson(std::int64_t value) { return value < 0 ? Json() : Json(value); }

}  // namespace

std::string FactsText(const DeviceFacts& facts) {
  std::string text;
  const auto add = [&](const char* name, std::int32_t value, const std::string& shown) {
    if (value >= 0) text += (text.empty() ? "" : ", ") + std::string(name) + " " + shown;
  };
  const auto hex = [](std::int32_t value, int digits = 4) {
    return Hex(static_cast<std::uint32_t>(value), digits);
  };
  add("device id", facts.deviceId, hex(facts.deviceId));
  add("software id", facts.softwareId, hex(facts.softwareId));
  add("bootloader version", facts.bootloaderVersion, std::to_string(facts.bootloaderVersion));
  add("block size", facts.blockSize, std::to_string(facts.blockSize));
  add("processor", facts.processorId, hex(facts.processorId, 6));
  add("application section", facts.applicationKiB, std::to_string(facts.applicationKiB) + " KiB");
  add("hardware id", facts.hardwareId, hex(facts.hardwareId));
  return text;
}

Json AsJson(const DeviceFacts& facts) {
  return {{"deviceId", IdOrNull(facts.deviceId)},
          {"softwareId", IdOrNull(facts.softwareId)},
          {"processorId", IdOrNull(facts.processorId)},
          {"hardwareId", IdOrNull(facts.hardwareId)},
          {"bootloaderVersion", IdOrNull(facts.bootloaderVersion)},
          {"blockSize", IdOrNull(facts.blockSize)},
          {"applicationKiB", IdOrNull(facts.applicationKiB)}};
}

const char* NameOf(Ending ending) {
  switch (ending) {
    case Ending::Succeeded: return "succeeded";
    case Ending::Failed: return "failed";
    case Ending::Stopped: break;
  }
  return "stopped";
}

std::string EventLine(const char* event, const Json& content) {
  Json line{{"version", kJsonVersion}, {"event", event}};
  line.Append(content);
  return line.Text();
}

// Blank blocks that had to be written are left out, so that the count ends at the announced total.
Json BytesJson(const Transfer& transfer) {
  return {{"written", std::min(transfer.done, transfer.total)}, {"due", transfer.total}};
}

Json AsJson(const Record& record) {
  Json durations = Json::Object();
  for (const auto& [phase, time] : record.durations) {
    durations.Set(DescriptionOf(phase).name, Seconds(time));
  }
  return {{"command", NameOf(record.purpose)},
          {"file", record.file},
          {"sha256", TextOrNull(record.sha256)},
          {"member", TextOrNull(record.member)},
          {"log", TextOrNull(record.log)},
          {"record", TextOrNull(record.traffic)},
          {"journal", TextOrNull(record.journal)},
          {"station", record.station},
          {"dryRun", record.flags.dryRun},
          {"flags", FlagsJson(record)},
          {"tags", TagsJson(record.tags)},
          {"tool", TAVO_VERSION},
          {"begin", TimeText(record.begin)},
          {"end", TimeText(record.end)},
          {"target", AsJson(record.device)},
          {"ending", NameOf(record.ending)},
          {"exit", static_cast<int>(record.state.exit)},
          {"failure", AsJson(record.failure)},
          {"state",
           {{"device", record.state.device},
            {"tunnel", record.state.tunnel},
            {"text", record.state.sentence},
            {"next", TextOrNull(record.state.command)}}},
          {"before", AsJson(record.before)},
          {"after", record.after ? AsJson(*record.after) : Json()},
          {"verification",
           {{"calculated", ChecksumJson(record.before.checksum)},
            {"expected", ChecksumJson(record.before.expectedChecksum)}}},
          {"bytes", BytesJson(record.transfer)},
          {"retries", record.retries},
          {"refused", RefusedJson(record.refused)},
          {"resetModules", record.resetModules},
          {"durations", durations},
          {"lost", record.lost},
          {"seconds", Seconds(record.elapsed)}};
}

}  // namespace tavo::tool
