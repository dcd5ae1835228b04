// The state of the bench, as the events that lead to it. A page that comes late gets all that still hold, in
// order, then each new one. A page that reads slowly costs nothing: it skips the events that a later one
// has replaced, and nobody waits for it. Any thread may call.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "text/json.h"

namespace tavo::tool {

class EventLog {
 public:
  std::atomic<int> readers = 0;  // the open pages

  // Replaces an earlier event with the same subject and key, unless it equals that.
  void Publish(const std::string& subject, const std::string& key, const Json& event) {
    std::string text = event.Text();
    const std::lock_guard lock(m_lock);
    const auto old = std::ranges::find_if(m_events, [&](const auto& entry) {
      return entry.second.key == key && entry.second.subject == subject;
    });
    if (old != m_events.end() && old->second.text == text) return;
    if (old != m_events.end()) m_events.erase(old);
    m_events[++m_last] = {subject, key, std::move(text)};
    m_changed.notify_all();
  }

  // A page that comes later gets no event of this subject.
  void Forget(const std::string& subject) {
    const std::lock_guard lock(m_lock);
    std::erase_if(m_events, [&](const auto& entry) { return entry.second.subject == subject; });
  }

  // The last event has been published. Returns when all pages have it and are closed, or after two seconds.
  void Close() {
    {
      const std::lock_guard lock(m_lock);
      m_closed = true;
      m_changed.notify_all();
    }
    constexpr std::chrono::milliseconds kPace{20};
    for (int left = 100; left > 0 && readers > 0; --left) std::this_thread::sleep_for(kPace);
  }

  // The events that are new to a page at this place, as server-sent events; empty when none came within `limit`, nothing
  // when the log is closed and read.
  std::optional<std::string> Next(std::uint64_t& place, std::chrono::milliseconds limit) {
    std::unique_lock lock(m_lock);
    m_changed.wait_for(lock, limit, [&] { return m_closed || m_last > place; });
    if (m_closed && m_last == place) return std::nullopt;
    std::string text;
    for (auto event = m_events.upper_bound(place); event != m_events.end(); ++event) {
      text += "data: " + event->second.text + "\n\n";
    }
    place = m_last;
    return text;
  }

 private:
  struct Event {
    std::string subject;
    std::string key;
    std::string text;
  };

  std::mutex m_lock;
  std::condition_variable m_changed;
  std::map<std::uint64_t, Event> m_events;  // by number, from 1
  std::uint64_t m_last = 0;
  bool m_closed = false;
};

}  // namespace tavo::tool
