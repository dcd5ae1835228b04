#include "simulator/faults.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

namespace tavosim {

const std::string_view kFaultSyntax =
    "Faults, each KIND:[id=ID:]WHICH[:HOW]:\n"
    "  WHICH                  5 = the 5th request, 5+ = the 5th and all later ones, * = every one\n"
    "  id=ID                  count only the requests with this id: lose:id=0x134:5\n"
    "  lose:5                 the answer is lost\n"
    "  delay:5:1500ms         the answer comes later (us, ms or s)\n"
    "  damage:5:2.7           bit 7 of byte 2 of the answer is flipped; damage:5 flips any bit\n"
    "  repeat:5[:20ms]        the answer comes twice, at once or after a time\n"
    "  cut:5                  only the first half of the answer comes\n"
    "  empty:5                the answer has no payload\n"
    "  otherid:5:0x121        the answer carries another id\n"
    "  before:5:A3FF00        these bytes come before the answer\n"
    "  after:5:A3FF00         these bytes come after the answer\n"
    "  withhold:5             the answer comes when the next request arrives\n"
    "  powercut:5             the device restarts instead of acting on the request\n"
    "  powercut:5:bootloader  the same, and it comes up in its bootloader\n"
    "  unplug:5[:2s]          the cable is pulled, and plugged in again after a time\n";

namespace {

struct Answer {
  Frame frame;
  SimTime due;
  std::vector<std::uint8_t> bytes;  // the encoded frame, with the damage done to it
  std::vector<SimTime> repeats{};   // after `due`
  bool lost = false;
  bool withheld = false;
};

using Random = std::minstd_rand;
using Apply = void (*)(const Fault&, Answer&, Random&);
// Reads what follows the request selection; false when it makes no sense.
using ReadHow = bool (*)(std::string_view, Fault&);

void Leave(const Fault&, Answer&, Random&) {}  // the device handles power and cable
void Lose(const Fault&, Answer& answer, Random&) { answer.lost = true; }
void Withhold(const Fault&, Answer& answer, Random&) { answer.withheld = true; }

void Delay(const Fault& fault, Answer& answer, Random&) {
  answer.due += fault.time.value_or(SimTime{0});
}

void Damage(const Fault& fault, Answer& answer, Random& random) {
  if (answer.bytes.empty()) return;
  const auto bit = fault.bit.value_or(random()) % (answer.bytes.size() * 8);
  answer.bytes[bit / 8] ^= static_cast<std::uint8_t>(1U << (bit % 8));
}

void Repeat(const Fault& fault, Answer& answer, Random&) {
  answer.repeats.push_back(fault.time.value_or(SimTime{0}));
}

void Cut(const Fault&, Answer& answer, Random&) { answer.bytes.resize(answer.bytes.size() / 2); }

void Empty(const Fault&, Answer& answer, Random&) {
  answer.frame.payload.clear();
  answer.bytes = EncodeFrame(answer.frame);
}

void OtherId(const Fault& fault, Answer& answer, Random&) {
  answer.frame.id = fault.otherId;
  answer.bytes = EncodeFrame(answer.frame);
}

void Before(const Fault& fault, Answer& answer, Random&) {
  answer.bytes.insert(answer.bytes.begin(), fault.bytes.begin(), fault.bytes.end());
}

void After(const Fault& fault, Answer& answer, Random&) {
  answer.bytes.insert(answer.bytes.end(), fault.bytes.begin(), fault.bytes.end());
}

template <typename Number>
bool ReadNumber(std::string_view text, Number& number, int base = 10) {
  const auto* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number, base);
  return result.ec == std::errc{} && result.ptr == end;
}

bool ReadId(std::string_view text, std::uint16_t& id) {
  const bool hex = text.starts_with("0x") || text.starts_with("0X");
  return ReadNumber(text.substr(hex ? 2 : 0), id, hex ? 16 : 10) && id <= 0x3FFF;
}

bool ReadNothing(std::string_view text, Fault&) { return text.empty(); }

bool ReadTime(std::string_view text, Fault& fault) {
  static constexpr std::pair<std::string_view, unsigned> kUnits[]{
      {"us", 1}, {"ms", 1000}, {"s", 1000000}};
  for (const auto& [unit, microseconds] : kUnits) {
    std::uint32_t count = 0;
    if (!text.ends_with(unit)) continue;
    if (!ReadNumber(text.substr(0, text.size() - unit.size()), count)) continue;
    fault.time = SimTime(static_cast<SimTime::rep>(count) * microseconds);
    return true;
  }
  return false;
}

bool ReadOptionalTime(std::string_view text, Fault& fault) {
  return text.empty() || ReadTime(text, fault);
}

bool ReadBit(std::string_view text, Fault& fault) {
  if (text.empty()) return true;
  const auto dot = text.find('.');
  std::uint8_t byte = 0;
  std::uint8_t bit = 0;
  if (dot == text.npos || !ReadNumber(text.substr(0, dot), byte)) return false;
  if (!ReadNumber(text.substr(dot + 1), bit) || bit > 7) return false;
  fault.bit = byte * std::size_t{8} + bit;
  return true;
}

bool ReadOtherId(std::string_view text, Fault& fault) { return ReadId(text, fault.otherId); }

bool ReadStart(std::string_view text, Fault& fault) {
  fault.intoBootloader = text == "bootloader";
  return text.empty() || fault.intoBootloader;
}

bool ReadBytes(std::string_view text, Fault& fault) {
  if (text.empty() || text.size() % 2 != 0) return false;
  for (; !text.empty(); text.remove_prefix(2)) {
    if (!ReadNumber(text.substr(0, 2), fault.bytes.emplace_back(), 16)) return false;
  }
  return true;
}

struct Rule {
  FaultKind kind;
  std::string_view name;
  ReadHow readHow;
  Apply apply;
};

// clang-format off
constexpr std::array kRules{
  Rule{FaultKind::Lose,     "lose",     ReadNothing,      Lose},
  Rule{FaultKind::Delay,    "delay",    ReadTime,         Delay},
  Rule{FaultKind::Damage,   "damage",   ReadBit,          Damage},
  Rule{FaultKind::Repeat,   "repeat",   ReadOptionalTime, Repeat},
  Rule{FaultKind::Cut,      "cut",      ReadNothing,      Cut},
  Rule{FaultKind::Empty,    "empty",    ReadNothing,      Empty},
  Rule{FaultKind::OtherId,  "otherid",  ReadOtherId,      OtherId},
  Rule{FaultKind::Before,   "before",   ReadBytes,        Before},
  Rule{FaultKind::After,    "after",    ReadBytes,        After},
  Rule{FaultKind::Withhold, "withhold", ReadNothing,      Withhold},
  Rule{FaultKind::PowerCut, "powercut", ReadStart,        Leave},
  Rule{FaultKind::Unplug,   "unplug",   ReadOptionalTime, Leave},
};
// clang-format on

constexpr bool RulesStandInKindOrder() {
  for (std::size_t i = 0; i < kRules.size(); ++i) {
    if (kRules[i].kind != static_cast<FaultKind>(i)) return false;
  }
  return true;
}
static_assert(RulesStandInKindOrder(), "FaultKind is the index into the rules");

// Cuts the part up to the next colon off the front of `text`.
std::string_view TakePart(std::string_view& text) {
  const auto colon = std::min(text.find(':'), text.size());
  const auto part = text.substr(0, colon);
  text.remove_prefix(std::min(colon + 1, text.size()));
  return part;
}

bool ReadTrigger(std::string_view& text, FaultTrigger& trigger) {
  auto part = TakePart(text);
  if (part.starts_with("id=")) {
    if (!ReadId(part.substr(3), trigger.id.emplace())) return false;
    part = TakePart(text);
  }
  trigger.andAllLater = part == "*" || part.ends_with('+');
  if (part == "*") return true;
  if (trigger.andAllLater) part.remove_suffix(1);
  return ReadNumber(part, trigger.first) && trigger.first > 0;
}

ParsedFault Refuse(std::string_view text, std::string_view why) {
  std::string error = "fault \"";
  return {std::nullopt, error.append(text).append("\": ").append(why)};
}

}  // namespace

ParsedFault ParseFault(std::string_view text) {
  auto rest = text;
  const auto name = TakePart(rest);
  const auto* const rule =
      std::find_if(kRules.begin(), kRules.end(), [&](const Rule& r) { return r.name == name; });
  if (rule == kRules.end()) {
    return Refuse(text,
                  "begin with lose, delay, damage, repeat, cut, empty, otherid, before, after, "
                  "withhold, powercut or unplug, as in \"lose:5\"");
  }
  Fault fault;
  fault.kind = rule->kind;
  if (!ReadTrigger(rest, fault.trigger)) {
    return Refuse(text, "name the request after the first colon: 5, 5+, * or id=0x134:5");
  }
  if (!rule->readHow(rest, fault)) {
    return Refuse(text,
                  "write the part behind the request as one of these: 1500ms (delay, repeat, "
                  "unplug), 2.7 = byte.bit (damage), 0x121 (otherid), A3FF00 (before, "
                  "after), nothing (all others)");
  }
  return {std::move(fault), {}};
}

FaultPlan::FaultPlan(std::vector<Fault> faults, std::uint32_t seed)
    : m_faults(std::move(faults)), m_random(seed) {}

std::vector<const Fault*> FaultPlan::Hitting(unsigned number, std::uint16_t id,
                                             unsigned numberOfId) const {
  std::vector<const Fault*> hits;
  for (const auto& fault : m_faults) {
    const auto& trigger = fault.trigger;
    if (trigger.id && *trigger.id != id) continue;
    const auto count = trigger.id ? numberOfId : number;
    if (count == trigger.first || (trigger.andAllLater && count > trigger.first)) {
      hits.push_back(&fault);
    }
  }
  return hits;
}

SpoiltAnswer FaultPlan::Spoil(const Frame& frame, SimTime due, std::span<const Fault* const> hits) {
  Answer answer{frame, due, EncodeFrame(frame)};
  for (const auto* hit : hits) {
    kRules[static_cast<std::size_t>(hit->kind)].apply(*hit, answer, m_random);
  }
  if (answer.lost) return {};
  SpoiltAnswer spoilt{{{answer.due, answer.bytes}}, answer.withheld};
  for (const auto after : answer.repeats) spoilt.sent.push_back({answer.due + after, answer.bytes});
  return spoilt;
}

}  // namespace tavosim
