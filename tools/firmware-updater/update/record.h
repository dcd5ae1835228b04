// All that is known when a command that updates has ended: the record that a production line keeps, and
// from which every view takes its last lines.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "device/target_choice.h"
#include "engine/firmware_updater.h"
#include "text/json.h"
#include "update/closing_state.h"
#include "update/course.h"

namespace tavo::tool {

struct Failure {
  std::string name;  // stable, for scripts
  int code = 0;      // the library's; 0 for what was found out without it
  std::string text;  // one sentence or two
  std::string hint;  // what to do next
};

// "succeeded", "failed", "stopped": stable, for scripts.
const char* NameOf(Ending ending);

struct Record {
  Purpose purpose = Purpose::Update;
  std::string file;       // absolute, as all paths here
  std::string log{};      // empty: none is kept, here and below
  std::string traffic{};  // the record that `replay` takes
  std::string journal{};
  std::string station{};
  std::string member{};  // of the archive, whose image the device gets; empty: not known
  UpdateFlags flags{};
  bool quick = false;
  bool verbose = false;
  bool trace = false;
  std::vector<std::string> tags{};  // "NAME=VALUE"
  std::chrono::system_clock::time_point begin{};
  std::chrono::system_clock::time_point end{};
  std::string sha256{};  // of the file, in hexadecimal; empty when it cannot be read
  std::optional<ChosenDevice> device{};  // none: the command ended before one was chosen
  Ending ending = Ending::Failed;
  std::optional<Failure> failure{};
  ClosingState state{};
  DeviceFacts before{};                // as the device reported before it was written
  std::optional<DeviceFacts> after{};  // asked again once it ran
  Transfer transfer{};
  int retries = 0;
  RefusedBytes refused{};                                                // over all requests
  std::vector<std::pair<Phase, std::chrono::milliseconds>> durations{};  // of the phases passed
  std::chrono::milliseconds elapsed{0};
  std::vector<std::string> resetModules{};
  std::vector<std::string>
      lost{};  // the evidence that could not be written: "log", "record", "journal"
};

// The event whose line holds a Record, the last one of every command.
inline constexpr const char* kResultEvent = "result";

// The values that a device has reported, for a person: "device id 0x0101, block size 128".
std::string FactsText(const DeviceFacts& facts);
Json AsJson(const DeviceFacts& facts);

// One line of JSON, without its end.
std::string EventLine(const char* event, const Json& content);
Json BytesJson(const Transfer& transfer);
Json AsJson(const Record& record);

}  // namespace tavo::tool
