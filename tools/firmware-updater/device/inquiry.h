// Single questions to an open device, without an update around them: who it is, whether a tunnel is
// open. What it asks with leaves the device as it is; only CloseTunnel changes anything, and it does
// what its name says. It never calls a bootloader, never leaves one and never opens a tunnel.
//
//   Inquiry inquiry(session.Transport(), platform);
//   const DeviceReport report = AskWho(inquiry);
//
// Every question begins on a quiet line: what is left of an earlier one is dropped first. An answer
// that is later than that can be taken for the next one's, if both share a message id: answers carry
// nothing else to tell them apart. Every wait is bounded.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "protocol/commands.h"
#include "transport/i_comm_interface.h"

namespace tavo::tool {

class Inquiry {
 public:
  // The transport is open, and no update uses it. Both must outlive the inquiry.
  Inquiry(ICommInterface& transport, Platform& platform)
      : m_transport(transport), m_platform(platform) {}

  // Sends the request once and waits for its answer, some four seconds. None: it was not answered in
  // time, or could not be sent. `arguments` follow the command's payload head.
  std::optional<TavoMessage> Ask(const Command& command,
                                 std::span<const std::uint8_t> arguments = {});

  // master * 256 + slave of the tunnel that is open, 0 when none is. None: not answered.
  std::optional<std::uint16_t> OpenTunnel();

  // Asks for the tunnel to be closed, gives the master the five seconds that it takes, and listens
  // until the line is quiet; not every master answers. OpenTunnel tells what came of it.
  void CloseTunnel();

 private:
  bool Send(const Command& command, std::span<const std::uint8_t> arguments);

  ICommInterface& m_transport;
  Platform& m_platform;
};

// The two bytes of an answer, low byte first; none: not answered.
std::optional<std::uint16_t> AskValue(Inquiry& inquiry, const Command& command);

// What a device tells of itself; none: it was not asked, or has not answered.
struct DeviceReport {
  std::optional<std::uint16_t> tunnel{};  // as Inquiry::OpenTunnel tells it
  std::optional<std::uint16_t> deviceId{};
  std::optional<std::uint16_t> softwareId{};
  bool inBootloader = false;
  std::optional<std::uint8_t> bootloaderVersion{};
  std::optional<std::uint8_t> blockSize{};  // bytes
  std::optional<std::uint32_t> processorId{};
  std::optional<std::uint32_t> applicationKiB{};
  std::optional<std::uint16_t> hardwareId{};

  // Only an application tells its software id. A device id may also come from the master module in
  // front of a device, on its behalf.
  bool RunsApplication() const { return softwareId.has_value(); }
  bool AnythingAnswered() const { return inBootloader || tunnel || deviceId || softwareId; }
};

// At most half a minute, when nobody answers. A bootloader answers nothing that an application is
// asked, and the other way round, so four seconds of silence are part of every report.
DeviceReport AskWho(Inquiry& inquiry);

}  // namespace tavo::tool
