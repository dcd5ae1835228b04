// The three ways in which an update is shown: on a terminal, where one line for each phase is redrawn
// in place; as plain lines, for a file or a pipe; and as JSON, one object a line, for programs.
#pragma once

#include <memory>

#include "text/machine.h"
#include "update/course.h"
#include "update/record.h"

namespace tavo::tool {

class UpdateView : public View {
 public:
  // Further news for the user: a tunnel is closed first, a stop was requested.
  virtual void Note(const std::string& text) = 0;
  // The last call: the outcome, and the state of the device.
  virtual void Show(const Record& record) = 0;
};

// One line for each update, for a command that goes on. The machine must outlive the view.
std::unique_ptr<UpdateView> MakeRoundView(const Machine& machine);

// With `others` writing to the screen too, no line is redrawn. The machine must outlive the view.
std::unique_ptr<UpdateView> MakeView(const Machine& machine, bool json, bool others);

}  // namespace tavo::tool
