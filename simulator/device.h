// A simulated control module: application, bootloader and flash, and for the families with a route
// the master module in front of it. It is fed the bytes of a serial line and hands out the bytes
// of its answers, each not before its time. It does no I/O, knows no USB and has no clock: its
// driver (a USB front, or a test) passes the time, which must never go back.
//
//   Device device(OptionsFor(*FindFamily("tunnel")));
//   device.Receive(requestBytes, now);
//   auto answer = device.Take(256, *device.NextDue());
//
//   power on ──> application ──FD 00──> bootloader ──0x12F──> application
//        └── flash not intact ────────────^   └── flash not intact: stays
//
// In a family with a route the host is connected to a master module, which always runs and answers
// the tunnel requests itself. Until the tunnel of the route is open it also reports the device id
// on behalf of the target, and nothing else reaches the target.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/families.h"
#include "simulator/faults.h"
#include "simulator/flash.h"
#include "simulator/frame.h"
#include "simulator/usb_device.h"

namespace tavosim {

enum class DeviceState { None, Application, Bootloader };  // None = starting up, silent
enum class DeviceIdAnswers { Both, AdminOnly, Neither };   // to 0x100 BB 0A and to 0x802

// Two bytes, low byte first.
inline constexpr std::size_t kAnswerNumberOffset = 8;

struct DeviceOptions {
  Family family = kFamilies[0];
  DeviceState start = DeviceState::Application;  // None is taken for Application
  // The flash holds an old firmware at the start. Without it the device stays in its bootloader,
  // whatever `start` says.
  bool applicationIntact = true;
  std::uint16_t openTunnel = 0;  // master * 256 + slave of a tunnel left open; 0 = none
  // After a written block the write address moves behind it; otherwise it stays, and a block that
  // is sent twice lands in the same place twice.
  bool writeAddressAdvances = false;
  bool answersLeaveInApplication = false;
  // The bootloader starts no incomplete image; else it does, and nothing responds any more.
  bool checksBeforeStart = true;
  bool answersCloseTunnel = true;
  DeviceIdAnswers deviceIdAnswers = DeviceIdAnswers::Both;
  std::vector<std::uint16_t> resetModules{};  // module codes, none of them 0

  SimTime answerDelay = std::chrono::milliseconds(1);
  SimTime eraseTime = std::chrono::milliseconds(100);
  SimTime blockWriteTime = std::chrono::milliseconds(1);
  // Silence between the answer to the request that starts them and readiness.
  SimTime applicationBootTime{0};
  SimTime bootloaderStartTime{0};

  // Puts the number of the request at kAnswerNumberOffset of every answer, behind all that a host
  // reads, so that a test can tell which request an answer belongs to.
  bool numbersAnswers = false;

  std::uint32_t seed = 1;
};

// None when no family has the name.
const Family* FindFamily(std::string_view name);
DeviceOptions OptionsFor(const Family& family);

// One entry of the record of what a host sent.
struct Exchange {
  unsigned number = 0;   // 1 for the first request; 0 for escape bytes
  std::uint16_t id = 0;  // 0 for escape bytes
  std::vector<std::uint8_t> payload{};
  SimTime at{0};
  bool answered = false;  // an answer, spoilt or not, went out or is withheld
};

// "0x100 EB 00"; escape bytes are "1B 1B 1B".
std::string Describe(const Exchange& exchange);

// The state that outlives a run of the simulator.
struct Snapshot {
  std::vector<std::uint8_t> flash{};
  std::optional<std::uint8_t> label{};
  std::uint16_t tunnel = 0;
  DeviceState state = DeviceState::Application;  // never None
};

class Device {
 public:
  explicit Device(DeviceOptions options, std::vector<Fault> faults = {});

  // The serial line. Bytes that arrive while the cable is out are lost.
  void Receive(std::span<const std::uint8_t> bytes, SimTime now);
  std::vector<std::uint8_t> Take(std::size_t max, SimTime now);
  // When Take has bytes to give (possibly in the past); none when nothing is on its way.
  std::optional<SimTime> NextDue() const;

  // Replaces the faults and counts requests from 1 again.
  void SetFaults(std::vector<Fault> faults);
  // Ends all faults; the counting goes on.
  void ClearFaults() { m_faults = FaultPlan(); }
  // The device restarts: answers on their way are lost, the tunnel closes. It comes up in its
  // application when that is intact, unless it is made to stay in its bootloader.
  void PowerCut(SimTime now, bool intoBootloader = false);
  // Pulls the cable; the device itself keeps running. None = never plugged in again.
  void Unplug(SimTime now, std::optional<SimTime> replugAfter);
  bool Connected(SimTime now) const { return now >= m_connectedFrom; }
  // None when the cable is in or stays out for good.
  std::optional<SimTime> ReplugAt(SimTime now) const;
  unsigned Unplugs() const { return m_unplugs; }  // how often the cable was pulled

  // The oldest entries are forgotten after some ten thousand; ClearJournal keeps the counting.
  const std::vector<Exchange>& Journal() const { return m_journal; }
  void ClearJournal() { m_journal.clear(); }

  DeviceState State(SimTime now) const { return now < m_readyAt ? DeviceState::None : m_mode; }
  const Flash& ApplicationFlash() const { return m_flash; }
  std::uint16_t OpenTunnel() const { return m_tunnel; }  // master * 256 + slave, 0 = none
  std::optional<std::uint8_t> Label() const { return m_label; }
  const DeviceOptions& Options() const { return m_options; }

  Snapshot Save() const;
  // False, and nothing changed, when the flash content has another size than this device's.
  bool Restore(const Snapshot& snapshot);

 private:
  struct Reply {
    std::vector<std::uint8_t> payload{};
    SimTime work{0};                          // time until the answer, besides the answer delay
    std::optional<DeviceState> startsThen{};  // what the device becomes once it has answered
  };
  using Payload = std::span<const std::uint8_t>;
  using MaybeReply = std::optional<Reply>;
  enum class Unit { Master, Identity, Application, Bootloader };
  struct Command {
    Unit unit;
    std::uint16_t id;
    std::uint8_t prefixLength;
    std::array<std::uint8_t, 2> prefix;  // the payload must begin with it
    MaybeReply (Device::*handle)(Payload);
  };
  static const std::array<Command, 21> kCommands;

  void Handle(const Frame& request, SimTime now);
  void Record(Exchange exchange);
  MaybeReply Dispatch(const Frame& request, SimTime now);
  bool Matches(const Command& command, const Frame& request) const;
  bool Reachable(Unit unit, SimTime now) const;
  bool BehindClosedTunnel() const;
  void Number(std::vector<std::uint8_t>& payload) const;
  SimTime Schedule(const Reply& reply, SimTime now);
  void Transmit(Transmission transmission);
  void ReleaseWithheld(SimTime now);
  void StartUp(DeviceState mode, SimTime from);
  void ForgetAnswers();

  MaybeReply TunnelStatus(Payload);
  MaybeReply OpenTunnelTo(Payload);
  MaybeReply CloseTunnel(Payload);
  MaybeReply DeviceId(Payload);
  MaybeReply AdminDeviceId(Payload);
  MaybeReply SignOfLife(Payload);
  MaybeReply SoftwareId(Payload);
  MaybeReply EnterBootloader(Payload);
  MaybeReply StoreLabel(Payload);
  MaybeReply ResetModule(Payload);
  MaybeReply LeaveInApplication(Payload);
  MaybeReply BootloaderVersion(Payload);
  MaybeReply ProcessorId(Payload);
  MaybeReply HardwareId(Payload);
  MaybeReply ApplicationSize(Payload);
  MaybeReply EraseFlash(Payload);
  MaybeReply PositionFlash(Payload);
  MaybeReply WriteFlash(Payload);
  MaybeReply Checksums(Payload);
  MaybeReply StartApplication(Payload);

  DeviceOptions m_options;
  FaultPlan m_faults;
  Flash m_flash;
  DeviceState m_mode = DeviceState::Application;
  SimTime m_readyAt{0};
  SimTime m_busyUntil{0};
  SimTime m_connectedFrom{0};
  unsigned m_unplugs = 0;
  std::uint16_t m_tunnel = 0;
  std::optional<std::uint8_t> m_label;

  FrameReader m_reader;
  std::deque<Transmission> m_outgoing;  // in the order of their due times
  std::vector<Transmission> m_withheld;
  std::vector<Exchange> m_journal;
  unsigned m_requests = 0;
  std::map<std::uint16_t, unsigned> m_requestsById;
};

}  // namespace tavosim
