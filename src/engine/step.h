// The contract between the runner and the steps.
#pragma once

#include <cstdint>

namespace tavo {

class FirmwareUpdater;

// The reason why a step is called.
enum class StepPhase : std::uint32_t {
  Answer = 0,   // the answer to its request has arrived
  Start = 1,    // for the first time, or to send its request again
  Timeout = 2,  // no answer came in time
};

// The outcome that a step reports.
enum class StepResult : std::uint32_t {
  Wait = 1,    // it has sent a request and waits for its next phase
  Done = 2,    // the next step may begin
  Failed = 3,  // the update has failed; error code and text are stored
};

struct Step {
  StepResult (FirmwareUpdater::*run)(StepPhase phase);
  const char* logName;  // its name in log messages; "-" for a step that sends nothing
};

}  // namespace tavo
