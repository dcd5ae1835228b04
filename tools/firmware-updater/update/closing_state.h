// The last line of every command that may have changed a device: the state of the device, and the
// command that recovers it or tries again. It rests on the engine's evidence, and on answers to questions
// asked afterwards; what they leave open is called unknown.
#pragma once

#include <string>

#include "device/target.h"
#include "engine/firmware_updater.h"
#include "text/exit_code.h"
#include "text/json.h"

namespace tavo::tool {

enum class Ending { Succeeded, Failed, Stopped };

enum class Purpose { Update, Recover };

// "update", "recover": the command's name, and stable for scripts.
const char* NameOf(Purpose purpose);

// A command's request, so that the next command can repeat it.
struct Task {
  Purpose purpose = Purpose::Update;
  std::string file{};
  Target target{};
  UpdateFlags flags{};
  bool quick = false;  // only what the bootloader needs
};

// The next command, if there is one.
enum class Advice {
  Again,         // with the same file
  SkipIdentity,  // the same, without the identity check
  OpenTunnel,    // the same, with all of the plan
  AnotherFile,   // only a device that is in its bootloader needs a command, with another file
};

struct ClosingState {
  std::string device;      // stable name of the condition, for scripts: "updated-and-verified"
  std::string tunnel;      // the same: "closed", "left-open", "not-asked", "unknown"
  std::string sentence;    // what a person reads: "The device runs its old firmware."
  std::string command;     // what to run next; empty when there is nothing to do
  bool tries = false;      // the command tries again, rather than recovers the device
  bool needsFile = false;  // FILE in the command stands for the right update file
  ExitCode exit = ExitCode::FailedUnknown;

  // Sentence and command in one line.
  std::string Line() const;
};

ClosingState CloseWith(const DeviceEvidence& evidence, Ending ending, Advice advice,
                       const Task& task);

// As the result of another process reports it.
ClosingState ClosingStateIn(const Json& result);

// A file for a command line, where one that begins with a hyphen would be taken for an option.
std::string FileWord(const std::string& file);

// The task as a command line.
std::string CommandLine(const Task& task);

// The command for a device of which nothing is known.
std::string RecoverCommand(const Task& task);

// The condition after two runs. The later one alone knows only what it has done itself.
DeviceCondition Following(DeviceCondition earlier, DeviceCondition later);

// Whether the device is known to run an application, old or new.
bool RunsApplication(DeviceCondition condition);

// Stable, for scripts: "updated-and-verified".
std::string_view NameOf(DeviceCondition condition);

std::string_view SentenceOf(DeviceCondition condition);

}  // namespace tavo::tool
