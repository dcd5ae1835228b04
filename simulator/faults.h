// Faults between a host and a simulated device. A fault waits for a request and then spoils its
// answer, cuts the power or pulls the cable. Faults are applied in list order,
// several may hit the same request, and everything random comes from a seed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/frame.h"
#include "simulator/usb_device.h"

namespace tavosim {

enum class FaultKind {
  Lose,      // the request is acted upon, its answer never leaves
  Delay,     // the answer comes `time` later
  Damage,    // one bit of the answer frame is flipped
  Repeat,    // the answer comes a second time, `time` after the first
  Cut,       // only the first half of the answer frame comes
  Empty,     // a correct frame without payload comes instead
  OtherId,   // the answer carries the id `otherId`
  Before,    // `bytes` come right before the answer
  After,     // `bytes` come right after the answer
  Withhold,  // the answer comes when the next request arrives
  PowerCut,  // the device restarts instead of acting on the request
  Unplug,    // the request is acted upon, then the cable is pulled
};

// Which requests a fault hits. Requests are counted from 1.
struct FaultTrigger {
  std::optional<std::uint16_t> id{};  // count only requests with this id
  unsigned first = 1;
  bool andAllLater = false;
};

struct Fault {
  FaultKind kind = FaultKind::Lose;
  FaultTrigger trigger{};
  std::optional<SimTime>
      time{};  // Delay, Repeat; Unplug: when it is plugged in again, none = never
  std::optional<std::size_t> bit{};   // Damage: byte * 8 + bit of the frame; none = a random one
  std::uint16_t otherId = 0;          // OtherId
  std::vector<std::uint8_t> bytes{};  // Before, After
  bool intoBootloader = false;        // PowerCut: even with an intact application
};

// The syntax of ParseFault, as a paragraph of a help text.
extern const std::string_view kFaultSyntax;

// Either a fault, or a text that shows how to write one.
struct ParsedFault {
  std::optional<Fault> fault{};
  std::string error{};
};
ParsedFault ParseFault(std::string_view text);

// Bytes that a device puts on the line at `due`.
struct Transmission {
  SimTime due{0};
  std::vector<std::uint8_t> bytes{};
};

// An answer after the faults.
struct SpoiltAnswer {
  std::vector<Transmission> sent{};
  bool withheld = false;  // `sent` goes out when the next request arrives
};

class FaultPlan {
 public:
  FaultPlan() = default;
  FaultPlan(std::vector<Fault> faults, std::uint32_t seed);

  // The faults that hit the `number`th request, which is the `numberOfId`th with its id. The
  // pointers live as long as the plan.
  std::vector<const Fault*> Hitting(unsigned number, std::uint16_t id, unsigned numberOfId) const;

  SpoiltAnswer Spoil(const Frame& answer, SimTime due, std::span<const Fault* const> hits);

 private:
  std::vector<Fault> m_faults;
  std::minstd_rand m_random;
};

}  // namespace tavosim
