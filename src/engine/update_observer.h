// Follows an update while it runs, for programs that use the engine itself: a tool that shows the
// course, a recorder. The exports have none.
//
// Called by the update thread between its steps; a slow call delays the update. It must not throw and
// may call no function of the engine but RequestStop.
#pragma once

#include "engine/status_handler.h"
#include "engine/step.h"

namespace tavo {

class UpdateObserver {
 public:
  virtual ~UpdateObserver() = default;

  // A step is about to be called: for the first time or again (Start), with its answer, or because
  // none came. A stop requested here takes effect before the step.
  virtual void StepCalled(const Step& step, StepPhase phase) = 0;

  // A message is about to go to the console.
  virtual void StatusReported(const StatusMessage& message) = 0;
};

}  // namespace tavo
