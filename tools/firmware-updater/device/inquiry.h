// Single questions to an open device, without an update around them: which identity it has, whether a
// tunnel is open, who answers at all. Most of them leave the device as it is; those that open or close a
// tunnel, or start the application, say so.
//
//   Inquiry inquiry(session.Transport(), platform, [](const std::string& text) { ... });
//   const DeviceReport report = AskWho(inquiry);
//
// Every question begins on a quiet line: what is left of an earlier one is dropped first. A very late
// answer can be taken for the next question's if both share a message id, because answers carry nothing
// else to tell them apart. Every wait is bounded, and one that takes longer than a second is announced.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "package/hardware_identity.h"
#include "protocol/commands.h"
#include "text/refusal.h"
#include "transport/i_comm_interface.h"

namespace tavo::tool {

// How long a question waits for its answer.
enum class Patience {
  Hasty,  // a tenth of a second, for an update in a hurry
  Brief,  // half a second: an answer proves something, silence does not
  Full,   // four seconds, which is the protocol's own bound
};

class Inquiry {
 public:
  // Gets a line for the user: "Waiting up to 4 s for an answer from a bootloader.". A wait that repeats
  // the last one gets none.
  using Announce = std::function<void(const std::string& text)>;

  // The transport is open, and no update uses it. Both must outlive the inquiry.
  Inquiry(ICommInterface& transport, Platform& platform, Announce announce = nullptr)
      : m_transport(transport), m_platform(platform), m_announce(std::move(announce)) {}

  // Sends the request once and waits for its answer. None: it was not answered in time, or could not
  // be sent. `arguments` follow the command's payload head.
  std::optional<TavoMessage> Ask(const Command& command,
                                 std::span<const std::uint8_t> arguments = {},
                                 Patience patience = Patience::Full);
  std::optional<TavoMessage> Ask(const Command& command, Patience patience) {
    return Ask(command, {}, patience);
  }

  // The next question follows a clean answer, after which nothing has to be dropped.
  void LeaveOutDiscarding() { m_discards = false; }

  // The bytes that came meanwhile and became no answer.
  const RefusedBytes& Refused() const { return m_refused; }

  // Whether the line returns the bytes sent, whatever the transport has been told. Takes a second at
  // most, and needs no device.
  bool LineEchoes();

  // master * 256 + slave of the tunnel that is open, 0 when none is. None: not answered.
  std::optional<std::uint16_t> OpenTunnel(Patience patience = Patience::Full);

  // Opens the tunnel and gives the master the six seconds that it takes. False: not answered.
  bool OpenTunnelTo(const TunnelRoute& route);

  // Asks for the tunnel to be closed, gives the master the five seconds that it takes, and listens
  // until the line is quiet; not every master answers. OpenTunnel shows the result.
  void CloseTunnel();

  // Asks a bootloader to start the application, and waits up to 25 s for its sign of life.
  bool StartApplication();

 private:
  bool Send(const Command& command, std::span<const std::uint8_t> arguments);
  std::optional<TavoMessage> AwaitAnswer(const Command& command, std::chrono::milliseconds longest);
  bool ReturnsRequests();

  ICommInterface& m_transport;
  Platform& m_platform;
  Announce m_announce;
  std::string m_announced{};  // the last line
  RefusedBytes m_refused;
  bool m_discards = true;
};

// The reason to end a command whose --echo is not as the line is; `command` is the right one.
Refusal EchoRefusal(bool echoes, const std::string& command);

// The two bytes of an answer, low byte first; none: not answered, or too short.
std::optional<std::uint16_t> AskValue(Inquiry& inquiry, const Command& command);

// A device's answers about itself; none: it was not asked, or has not answered.
struct DeviceReport {
  std::optional<std::uint16_t> tunnel{};  // as Inquiry::OpenTunnel returns it
  std::optional<std::uint16_t> deviceId{};
  std::optional<std::uint16_t> softwareId{};
  bool signOfLife = false;
  bool inBootloader = false;
  std::optional<std::uint8_t> bootloaderVersion{};
  std::optional<std::uint8_t> blockSize{};  // bytes
  std::optional<std::uint32_t> processorId{};
  std::optional<std::uint32_t> applicationKiB{};
  std::optional<std::uint16_t> hardwareId{};

  // Only an application gives its software id or a sign of life. A device id may also come from the
  // master module in front of a device, on its behalf.
  bool RunsApplication() const { return signOfLife || softwareId.has_value(); }
  bool AnythingAnswered() const { return RunsApplication() || inBootloader || tunnel || deviceId; }
  // A master that hides the device behind it: somebody answers, but neither an application nor a
  // bootloader.
  bool IsMaster() const { return AnythingAnswered() && !RunsApplication() && !inBootloader; }
};

// How a command ends that has failed with this device.
ExitCode FailedWith(const DeviceReport& report);

// Finds out who answers: within a second if an application or a bootloader does, within ten otherwise. In
// haste a bootloader is found after one short silence; if nobody answers so fast, the search is brief.
DeviceReport AskWhoAnswers(Inquiry& inquiry, Patience patience);

// Whether a bootloader answers, with its version and block size; whatever else answers has not both.
bool AskBootloader(Inquiry& inquiry, Patience patience, DeviceReport& report);

// The facts that only a bootloader knows: processor, hardware id and size.
void AskBootloaderFacts(Inquiry& inquiry, DeviceReport& report);

// The same as AskWhoAnswers with all identities; half a minute at most, when nobody answers.
DeviceReport AskWho(Inquiry& inquiry);

}  // namespace tavo::tool
