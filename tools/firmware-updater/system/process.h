// A program that runs beside this one, its child. "firmware-updater" as the first word is this very
// program, in any folder, once main has named it. None of this program's files and pipes reaches it, but for its streams.
//
//   Process command({"firmware-updater", "list"}, {"TAVO_SIMULATORS=127.0.0.1:1234"});
//   return command.Wait();
//
//   Process update({"firmware-updater", "update", file, "--json"}, {}, {.out = onLine, .err = onLine});
//   if (!update.Wait(30s)) update.RequestStop();
//   if (!update.Wait(30s)) update.Kill();
//   const int exitCode = update.Wait();
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace tavo::tool {

class Process {
 public:
  using Words = std::vector<std::string>;
  // Gets each line that a child writes, without its end; runs in another thread, one for each stream.
  // Lines of more than 1 MiB come in pieces.
  using OnLine = std::function<void(std::string_view line)>;
  struct Output {
    OnLine out;
    OnLine err;
  };

  // The program that "firmware-updater" stands for. Called by main alone: a test that started itself in the
  // tool's place would do so again, without end.
  static void NameTool(std::string path) { s_tool = std::move(path); }

  // In the foreground: it shares this program's streams. Ctrl-C at the terminal reaches it directly; all
  // other requests to stop that reach this program are passed on to it, until this program ends. One at a
  // time.
  //
  // `environment`: "NAME=value", in addition to this program's own. This constructor and the next throw
  // std::system_error when the program cannot be started.
  Process(const Words& words, const Words& environment);

  // In the background: it reads nothing, and its output is captured. Ctrl-C at the terminal reaches only
  // this program. It is asked to stop, or killed, when this program ends before it; on POSIX already when
  // the thread ends that made it.
  Process(const Words& words, const Words& environment, Output output);

  // Kills a program in the background that still runs, and waits for its end; leaves one in the foreground
  // alone.
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // Returns when the program has ended and all of its lines have been handed over: its exit code; on POSIX
  // 128 + the signal that ended it.
  int Wait();
  // Nothing when it still runs at the end of `limit`.
  std::optional<int> Wait(std::chrono::milliseconds limit);

  // SIGTERM; on Windows an interrupt, which reaches "firmware-updater" alone.
  void RequestStop();
  // Also ends what a program in the background has started itself.
  void Kill();

 private:
  // Empty: not the tool.
  static std::string ToolIn(const Words& words) {
    if (words.front() != "firmware-updater") return {};
    if (!s_tool.empty()) return s_tool;
    throw std::system_error(std::make_error_code(std::errc::no_such_file_or_directory),
                            words.front());
  }

  inline static std::string s_tool{};
  struct Child;
  std::unique_ptr<Child> m_child;
};

}  // namespace tavo::tool
