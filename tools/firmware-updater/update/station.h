// A place on a production line where devices come and go: each port waits for a device, has it updated,
// shows PASS or FAIL until the device is unplugged, and waits again. Nobody touches a keyboard.
#pragma once

#include <chrono>
#include <optional>
#include <vector>

#include "device/target_choice.h"
#include "update/several.h"

namespace tavo::tool {

// What one port decides. It is told the time and whether a device is connected.
class Port {
 public:
  enum class State { Waiting, Working, Passed, Failed, Stopped };

  // True: a device has been connected for a second, so its update may begin. One that comes and goes
  // within a second is a bad contact.
  bool Look(std::chrono::milliseconds now, bool connected);
  void Begin() { m_state = State::Working; }
  // The update of `task` has ended. A device that failed gets one second try, if the result names a
  // command that the station may run: one with the same file and options.
  std::optional<Purpose> End(std::chrono::milliseconds now, const Task& task, const Json& result);

  State Current() const { return m_state; }

 private:
  State m_state = State::Waiting;
  bool m_connected = false;
  bool m_unplugged = false;  // since its end
  bool m_triedTwice = false;
  std::chrono::milliseconds m_since{0};  // so long connected, or not
  std::chrono::milliseconds m_ended{0};
};

// Without targets, every USB port. Ends after `count` devices have passed, 0: on Ctrl-C.
ExitCode RunStation(const Machine& machine, const UpdateOptions& options, const GivenOptions& given,
                    const SeveralTargets& targets, std::uint32_t count);

}  // namespace tavo::tool
