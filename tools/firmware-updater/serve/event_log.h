// The state of the bench, as the events that lead to it. A page that comes late gets all that still hold, in
// order, then each new one. A page that reads slowly costs nothing: it skips the events that a later one
// has replaced, and nobody waits for it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "text/json.h"

namespace tavo::tool {

class EventLog {
 public:
  // One page. Threads may have one each.
  class Reader {
   public:
    explicit Reader(EventLog& log);
    ~Reader();
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // The new events, as server-sent events; empty when none came within `limit`, nothing when the log is closed
    // and read.
    std::optional<std::string> Next(std::chrono::milliseconds limit);

   private:
    EventLog& m_log;
    std::uint64_t m_position = 0;
  };

  // Replaces an earlier event with the same key.
  void Publish(const std::string& key, const Json& event);
  // A page that comes later does not get the events whose keys begin with `prefix`.
  void Forget(const std::string& prefix);
  // The last event has been published.
  void Close();

  std::size_t Readers() const;
  // Waits for a reader at most until `limit`; whether there is one.
  bool AwaitReader(std::chrono::milliseconds limit) const;

 private:
  struct Event {
    std::string key;
    std::string text;
  };

  mutable std::mutex m_lock;
  mutable std::condition_variable m_changed;
  std::map<std::uint64_t, Event> m_events;         // by number, from 1
  std::map<std::string, std::uint64_t> m_numbers;  // by key
  std::uint64_t m_last = 0;
  std::size_t m_readers = 0;
  bool m_closed = false;
};

}  // namespace tavo::tool
