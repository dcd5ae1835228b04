#include "serve/event_log.h"

namespace tavo::tool {

EventLog::Reader::Reader(EventLog& log) : m_log(log) {
  const std::lock_guard lock(m_log.m_lock);
  ++m_log.m_readers;
  m_log.m_changed.notify_all();
}

EventLog::Reader::~Reader() {
  const std::lock_guard lock(m_log.m_lock);
  --m_log.m_readers;
}

std::optional<std::string> EventLog::Reader::Next(std::chrono::milliseconds limit) {
  std::unique_lock lock(m_log.m_lock);
  const auto ready = [this] { return m_log.m_closed || m_log.m_last > m_position; };
  m_log.m_changed.wait_for(lock, limit, ready);
  if (m_log.m_last == m_position && m_log.m_closed) return std::nullopt;
  std::string text;
  for (auto event = m_log.m_events.upper_bound(m_position); event != m_log.m_events.end();
       ++event) {
    text += "data: " + event->second.text + "\n\n";
  }
  m_position = m_log.m_last;
  return text;
}

void EventLog::Publish(const std::string& key, const Json& event) {
  std::string text = event.Text();
  const std::lock_guard lock(m_lock);
  std::uint64_t& number = m_numbers[key];
  m_events.erase(number);
  number = ++m_last;
  m_events[number] = {key, std::move(text)};
  m_changed.notify_all();
}

void EventLog::Forget(const std::string& prefix) {
  const std::lock_guard lock(m_lock);
  auto entry = m_numbers.lower_bound(prefix);
  while (entry != m_numbers.end() && entry->first.starts_with(prefix)) {
    m_events.erase(entry->second);
    entry = m_numbers.erase(entry);
  }
}

void EventLog::Close() {
  const std::lock_guard lock(m_lock);
  m_closed = true;
  m_changed.notify_all();
}

bool EventLog::AwaitReader(std::chrono::milliseconds limit) const {
  std::unique_lock lock(m_lock);
  return m_changed.wait_for(lock, limit, [this] { return m_readers > 0; });
}

std::size_t EventLog::Readers() const {
  const std::lock_guard lock(m_lock);
  return m_readers;
}

}  // namespace tavo::tool
