// What a program that works with the engine itself may watch while an update runs: a tool that shows
// its course, a recorder. The exports have none.
//
// Called by the thread that runs the update, between its steps; a call that takes long delays the
// update. Nothing may be thrown, and of the engine only RequestStop may be called.
#pragma once

#include "engine/status_handler.h"
#include "engine/step.h"

namespace tavo {

class UpdateObserver {
 public:
  virtual ~UpdateObserver() = default;

  // A step is about to be called: for the first time or again (Start), with its answer, or because
  // none came. A stop that is requested here comes before it.
  virtual void StepCalled(const Step& step, StepPhase phase) = 0;

  // What the console is told too, before it is.
  virtual void StatusReported(const StatusMessage& message) = 0;
};

}  // namespace tavo
