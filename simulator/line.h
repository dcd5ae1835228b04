// The serial line between a USB front and a device: it carries bytes both ways at the pace of a
// baud rate and, on lines that do so, lets the sender hear its own bytes. Owned by the front.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <vector>

#include "simulator/device.h"
#include "simulator/usb_device.h"

namespace tavosim {

struct LineOptions {
  std::uint32_t baud = 0;  // 10 bits a byte; 0 = bytes take no time
  bool echo = false;       // the host receives what it sends
};

class Line {
 public:
  Line(Device& device, LineOptions options);

  // Whether `count` more bytes find room on the way to the device.
  bool HasRoom(std::size_t count) const;
  void Send(std::span<const std::uint8_t> bytes, SimTime now);
  // Runs everything that is due until `now`, in order.
  void Advance(SimTime now);
  // How many bytes have arrived at the host's end, and those bytes, at most `max`.
  std::size_t Arrived(SimTime now) const;
  std::vector<std::uint8_t> Receive(std::size_t max, SimTime now);
  // The next moment after `now` at which something moves; call Advance(now) first.
  std::optional<SimTime> NextDue(SimTime now) const;

  // While the two ends disagree about the line settings no bytes get across, but the host's end
  // still hears its own bytes.
  void SetEndsAgree(bool agree) { m_endsAgree = agree; }
  void DropTowardsDevice() { m_towardsDevice.clear(); }
  void DropTowardsHost() { m_towardsHost.clear(); }

  Device& End() const { return m_device; }

 private:
  struct TimedByte {
    std::uint8_t value;
    SimTime arrival;
  };
  using Bytes = std::deque<TimedByte>;

  std::optional<SimTime> NextEvent() const;
  void DeliverToDevice(SimTime at);
  void FetchFromDevice(SimTime at);
  void Queue(Bytes& bytes, std::uint8_t value, SimTime from) const;
  void QueueForHost(std::uint8_t value, SimTime from);
  void NoticeUnplug();

  Device& m_device;
  LineOptions m_options;
  SimTime m_byteTime{0};
  bool m_endsAgree = true;
  unsigned m_unplugsSeen = 0;
  Bytes m_towardsDevice;
  Bytes m_towardsHost;
};

}  // namespace tavosim
