#include "simulator/line.h"

#include <algorithm>
#include <limits>

namespace tavosim {
namespace {

// Far more than any dialogue of one request at a time; a host that sends or leaves more behind
// must wait, or loses bytes as at any overrun.
constexpr std::size_t kMaxOnTheWay = 4096;

constexpr SimTime ByteTime(std::uint32_t baud) {
  constexpr SimTime::rep kBitsPerByte = 10;
  return baud == 0 ? SimTime{0} : SimTime(kBitsPerByte * 1000000 / baud);
}

template <typename Times>
std::optional<SimTime> Earliest(const Times& times) {
  std::optional<SimTime> earliest;
  for (const auto& time : times) {
    if (time && (!earliest || *time < *earliest)) earliest = time;
  }
  return earliest;
}

}  // namespace

Line::Line(Device& device, LineOptions options)
    : m_device(device),
      m_options(options),
      m_byteTime(ByteTime(options.baud)),
      m_unplugsSeen(device.Unplugs()) {}

bool Line::HasRoom(std::size_t count) const {
  // An empty line takes any amount at once.
  return m_towardsDevice.empty() || m_towardsDevice.size() + count <= kMaxOnTheWay;
}

void Line::Send(std::span<const std::uint8_t> bytes, SimTime now) {
  for (const auto byte : bytes) Queue(m_towardsDevice, byte, now);
}

void Line::Advance(SimTime now) {
  // Every round takes at least one byte off a queue, so this ends.
  for (auto next = NextEvent(); next && *next <= now; next = NextEvent()) {
    DeliverToDevice(*next);
    FetchFromDevice(*next);
    NoticeUnplug();
  }
  NoticeUnplug();
}

std::size_t Line::Arrived(SimTime now) const {
  const auto end = std::find_if(m_towardsHost.begin(), m_towardsHost.end(),
                                [&](const TimedByte& byte) { return byte.arrival > now; });
  return static_cast<std::size_t>(end - m_towardsHost.begin());
}

std::vector<std::uint8_t> Line::Receive(std::size_t max, SimTime now) {
  std::vector<std::uint8_t> bytes(std::min(max, Arrived(now)));
  for (auto& byte : bytes) {
    byte = m_towardsHost.front().value;
    m_towardsHost.pop_front();
  }
  return bytes;
}

std::optional<SimTime> Line::NextDue(SimTime now) const {
  const auto arriving = Arrived(now);
  const auto toHost = arriving < m_towardsHost.size()
                          ? std::optional(m_towardsHost[arriving].arrival)
                          : std::nullopt;
  return Earliest(std::initializer_list<std::optional<SimTime>>{NextEvent(), toHost});
}

std::optional<SimTime> Line::NextEvent() const {
  const auto toDevice =
      m_towardsDevice.empty() ? std::nullopt : std::optional(m_towardsDevice.front().arrival);
  return Earliest(std::initializer_list<std::optional<SimTime>>{toDevice, m_device.NextDue()});
}

void Line::DeliverToDevice(SimTime at) {
  std::vector<std::uint8_t> arrived;
  while (!m_towardsDevice.empty() && m_towardsDevice.front().arrival <= at) {
    arrived.push_back(m_towardsDevice.front().value);
    m_towardsDevice.pop_front();
  }
  // The echo has taken its time on the way out already.
  if (m_options.echo) {
    for (const auto byte : arrived) QueueForHost(byte, at - m_byteTime);
  }
  if (m_endsAgree && !arrived.empty()) m_device.Receive(arrived, at);
}

void Line::FetchFromDevice(SimTime at) {
  for (const auto byte : m_device.Take(std::numeric_limits<std::size_t>::max(), at)) {
    if (m_endsAgree) QueueForHost(byte, at);
  }
}

void Line::QueueForHost(std::uint8_t value, SimTime from) {
  if (m_towardsHost.size() < kMaxOnTheWay) Queue(m_towardsHost, value, from);
}

void Line::Queue(Bytes& bytes, std::uint8_t value, SimTime from) const {
  const auto free = bytes.empty() ? from : std::max(from, bytes.back().arrival);
  bytes.push_back({value, free + m_byteTime});
}

void Line::NoticeUnplug() {
  if (m_device.Unplugs() == m_unplugsSeen) return;
  m_unplugsSeen = m_device.Unplugs();
  DropTowardsDevice();
  DropTowardsHost();
}

}  // namespace tavosim
