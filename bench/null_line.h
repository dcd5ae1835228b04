// A line that takes requests and gives answers at once, in the same process: what is left is the
// library's own time. Positioning and writing requests are answered by itself with empty answers, so
// that no simulated device takes a share; everything else is answered by whoever is given.
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <functional>
#include <span>
#include <vector>

#include "transport/frame_codec.h"
#include "transport/i_comm_interface.h"

namespace tavo::bench {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;

inline Bytes EmptyAnswer(std::uint16_t id) {
  TavoMessage message;
  message.id = id;
  FrameBuffer frame{};
  kFrameCodecs[0].Encode(message, frame);
  return {frame.begin(), frame.begin() + kFrameOverhead};
}

class NullLine : public ICommInterface {
 public:
  static constexpr std::uint16_t kPosition = 0x133;
  static constexpr std::uint16_t kWrite = 0x134;

  // Gives the bytes that answer those that were sent; empty for silence.
  using Device = std::function<Bytes(std::span<const std::uint8_t>)>;

  NullLine(TavoLink& link, Platform& platform, Logger& log, Device device)
      : ICommInterface(link, platform, log), m_device(std::move(device)) {}

  std::vector<CCommDevDesc>* EnumerateDevices() override { return &m_devices; }
  bool Open(std::uint32_t) override { return true; }
  bool IsOpen() override { return true; }
  void Close() override {}
  bool Reconnect() override { return true; }

  bool SendRawData(const std::uint8_t* data, std::int32_t length) override {
    const Clock::time_point now = Clock::now();
    if (m_answeredAt) m_turnarounds.push_back(now - *std::exchange(m_answeredAt, std::nullopt));
    m_answer = AnswerTo({data, static_cast<std::size_t>(length)});
    return true;
  }

  bool ReceiveRawData(std::uint8_t* buffer, std::int32_t* length) override {
    const bool silent = m_answer.empty();
    std::copy(m_answer.begin(), m_answer.end(), buffer);
    *length = static_cast<std::int32_t>(m_answer.size());
    if (silent) m_platform.Sleep(std::chrono::milliseconds(1));
    m_answer = {};
    if (!silent) m_answeredAt = Clock::now();
    return true;
  }

  // From every answer to the request that followed it.
  std::vector<Clock::duration>& Turnarounds() { return m_turnarounds; }
  unsigned Requests(std::uint16_t id) const { return id == kPosition ? m_positioned : m_written; }

 private:
  std::span<const std::uint8_t> AnswerTo(std::span<const std::uint8_t> request) {
    const auto begins = [&](const Bytes& frame) {
      return request.size() > 3 && request[1] == frame[1] && request[2] == frame[2];
    };
    if (begins(m_positionAnswer)) return ++m_positioned, m_positionAnswer;
    if (begins(m_writeAnswer)) return ++m_written, m_writeAnswer;
    return m_given = m_device(request);
  }

  const Bytes m_positionAnswer = EmptyAnswer(kPosition);
  const Bytes m_writeAnswer = EmptyAnswer(kWrite);
  Device m_device;
  std::vector<CCommDevDesc> m_devices;
  Bytes m_given;
  std::span<const std::uint8_t> m_answer;
  std::optional<Clock::time_point> m_answeredAt;
  std::vector<Clock::duration> m_turnarounds;
  unsigned m_positioned = 0;
  unsigned m_written = 0;
};

}  // namespace tavo::bench
