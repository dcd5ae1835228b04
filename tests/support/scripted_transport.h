// A device that follows a script, one message at a time: no frames, no line. Each request is noted
// as text and answered by the rule given last whose text it begins with; without a rule the answer
// is empty. An answer that does not come costs the answer timeout on the virtual clock.
#pragma once

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/virtual_platform.h"
#include "transport/i_comm_interface.h"

namespace tavo::test {

using Texts = std::vector<std::string>;
using Bytes = std::vector<std::uint8_t>;

struct Reply {
  enum class Kind { Answer, Silence, Refusal };  // refusal: the request cannot be sent
  Kind kind;
  Bytes payload{};
};

inline Reply Answer(Bytes payload) { return {Reply::Kind::Answer, std::move(payload)}; }
inline const Reply kSilence{Reply::Kind::Silence};
inline const Reply kRefusal{Reply::Kind::Refusal};

class ScriptedTransport : public ICommInterface {
 public:
  ScriptedTransport(TavoLink& link, VirtualPlatform& platform, Logger& log)
      : ICommInterface(link, platform, log), m_clock(platform) {}

  Texts requests;                                     // every one, those refused included
  std::function<void(const std::string&)> onRequest;  // called before the reply is looked up

  // The last reply repeats.
  template <typename... Replies>
  void On(const std::string& beginning, const Replies&... replies) {
    m_rules.push_back({beginning, {replies...}});
  }

  static std::string Text(std::span<const std::uint8_t> bytes) {
    std::string text;
    std::array<char, 4> digits{};
    for (const std::uint8_t byte : bytes) {
      std::snprintf(digits.data(), digits.size(), "%s%.2X", text.empty() ? "" : " ", byte);
      text += digits.data();
    }
    return text;
  }
  static std::string Text(std::uint32_t id, std::span<const std::uint8_t> payload) {
    std::array<char, 16> name{};
    std::snprintf(name.data(), name.size(), payload.empty() ? "0x%.3X" : "0x%.3X ", id);
    return name.data() + Text(payload);
  }

  bool SendRawData(const std::uint8_t* data, std::int32_t length) override {
    requests.push_back(Text({data, static_cast<std::size_t>(length)}));
    return true;
  }
  bool ReceiveRawData(std::uint8_t*, std::int32_t* length) override {
    *length = 0;
    return true;
  }

  bool SendTavoMessage(std::uint32_t, std::uint32_t, std::uint32_t id, const std::uint8_t* data,
                       std::int32_t length) override {
    if (length > kMaxPayload) return false;
    requests.push_back(Text(id, {data, static_cast<std::size_t>(length)}));
    if (onRequest) onRequest(requests.back());
    m_pending = ReplyTo(requests.back());
    if (m_pending->kind == Reply::Kind::Refusal) m_pending.reset();
    m_awaited.id = static_cast<std::uint16_t>(id);
    return m_pending.has_value();
  }

  // Throws when no request is under way: nothing would ever end the wait.
  bool ReceiveTavoMessage(TavoMessage* out, bool* timedOut) override {
    if (!m_pending) throw std::logic_error("an answer is awaited, but nothing was asked");
    const Reply reply = *std::exchange(m_pending, std::nullopt);
    *timedOut = reply.kind == Reply::Kind::Silence;
    if (*timedOut) m_clock.Advance(std::chrono::milliseconds(TavoLink::kAnswerTimeoutMs));
    if (*timedOut) return true;
    *out = m_awaited;
    out->length = static_cast<std::uint8_t>(reply.payload.size());
    std::copy(reply.payload.begin(), reply.payload.end(), out->payload.begin());
    return true;
  }

  std::vector<CCommDevDesc>* EnumerateDevices() override { return nullptr; }
  bool Open(std::uint32_t) override { return true; }
  bool IsOpen() override { return true; }
  void Close() override {}
  bool Reconnect() override { return true; }

 private:
  struct Rule {
    std::string beginning;
    std::vector<Reply> replies;
  };

  Reply ReplyTo(const std::string& request) {
    const auto rule = std::find_if(m_rules.rbegin(), m_rules.rend(), [&](const Rule& candidate) {
      return request.starts_with(candidate.beginning);
    });
    if (rule == m_rules.rend()) return Answer({});
    Reply reply = rule->replies.front();
    if (rule->replies.size() > 1) rule->replies.erase(rule->replies.begin());
    return reply;
  }

  VirtualPlatform& m_clock;
  std::vector<Rule> m_rules;
  TavoMessage m_awaited;
  std::optional<Reply> m_pending;
};

}  // namespace tavo::test
