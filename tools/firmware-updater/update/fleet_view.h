// The updates of several devices, shown as one: on a terminal, a table that is redrawn in place; elsewhere
// lines, each with its device; and as JSON, the lines of all processes with the device in each.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "device/target.h"
#include "text/json.h"
#include "text/live_lines.h"
#include "text/machine.h"
#include "update/course.h"

namespace tavo::tool {

// The last that the process of one device has reported.
class DeviceProgress {
 public:
  explicit DeviceProgress(const Target& target);

  void Take(const Json& line);

  // "usb-4-2", "ftdi-TAVO0001": for screens, file names and JSON.
  const std::string& Name() const { return m_name; }
  // Null before its end.
  const Json& Result() const { return m_result; }
  Phase Current() const { return m_phase; }
  // Its row of the table, of at most that many characters.
  LiveLine Row(std::size_t nameWidth, std::size_t room) const;
  // What it does, in a few words: "Writing  43 %".
  std::string Doing() const;

 private:
  std::string m_name;
  Phase m_phase = Phase::None;
  std::string m_trouble{};  // a request that was not answered
  int m_percent = -1;       // -1: nothing is written
  Json m_result{};
};

class FleetView {
 public:
  virtual ~FleetView() = default;
  // `device` has taken the line.
  virtual void Reported(const DeviceProgress& device, const Json& line) = 0;
  // Some time has passed.
  virtual void Refresh(const std::vector<DeviceProgress>& devices) = 0;
  // All have ended.
  virtual void Close(const std::vector<DeviceProgress>& devices) = 0;
};

// With `others` writing to the screen too, no table is drawn. The machine must outlive the view.
std::unique_ptr<FleetView> MakeFleetView(const Machine& machine, bool json, bool others,
                                         std::size_t devices);

// A line of a device for a person; empty when it says nothing new.
std::string TextOf(const DeviceProgress& device, const Json& line);

// The failure, and the state of the device with the command that helps.
void ShowOutcome(const Machine& machine, const DeviceProgress& device);

}  // namespace tavo::tool
