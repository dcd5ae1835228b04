// Command lines of the tool as a user types them, run in this process.
//
//   CommandRun run(platform, usb, adapters, folder);
//   EXPECT_EQ(run("update @firmware.hex"), ExitCode::NoDevice);
//   EXPECT_EQ(run.Err(), "...");
#pragma once

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <iomanip>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "app.h"
#include "simulator/firmware_builder.h"
#include "system/interrupts.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/transcript.h"
#include "text/json.h"

#ifndef _WIN32
#include <signal.h>
#include <unistd.h>
#endif

namespace tavo::tool {

inline void PrintTo(const Json& json, std::ostream* out) { *out << json.Text(2); }
// A text without its quotation marks, or any other value.
inline std::string Plain(const Json& json) {
  std::string text = json.Text();
  std::erase(text, '"');
  return text;
}
inline void PrintTo(ExitCode code, std::ostream* out) { *out << "exit " << static_cast<int>(code); }

class CommandRun {
 public:
  CommandRun(Platform& platform, LibUsb& usb, D2xx& adapters, std::filesystem::path folder)
      : machine{platform, usb, adapters, m_out, m_err}, m_folder(std::move(folder)) {}

  // Blanks divide the words; "" is an empty one. In a word "@" stands for the folder.
  ExitCode operator()(const std::string& line) {
    m_text.str({});
    m_err.str({});
    std::vector<std::string> words{"firmware-updater"};
    std::istringstream stream(line);
    for (std::string word; stream >> std::quoted(word);) {
      const std::size_t at = word.find('@');
      words.push_back(at == std::string::npos ? word : word.replace(at, 1, Path("").string()));
    }
    std::vector<const char*> arguments;
    for (const std::string& word : words) arguments.push_back(word.c_str());
#ifndef _WIN32
    // This process goes on after a command, so it still has to end by a signal.
    sigset_t signals;
    pthread_sigmask(SIG_SETMASK, nullptr, &signals);
    const int exit = RunTool(static_cast<int>(arguments.size()), arguments.data(), machine);
    pthread_sigmask(SIG_SETMASK, &signals, nullptr);
    return ExitCode{exit};
#else
    return ExitCode{RunTool(static_cast<int>(arguments.size()), arguments.data(), machine)};
#endif
  }

  // Sends a signal to this process. True as soon as the tool has said something, false if it does not: it
  // gets time enough on any machine, or a moment if nothing is expected.
  bool Signal(int number, bool isHandled = true) const {
    const int before = m_text.flushes;
    const int mostTries = isHandled ? 10'000 : 100;
#ifdef _WIN32
    Interrupts::Bring(number == SIGINT);
#else
    kill(getpid(), number);
#endif
    for (int tries = 0; tries < mostTries && m_text.flushes == before; ++tries) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return m_text.flushes != before;
  }

  std::string Out() const { return m_text.str(); }
  std::string Err() const { return m_err.str(); }
  bool Says(const std::string& text) const { return Out().find(text) != std::string::npos; }
  bool Complains(const std::string& text) const { return Err().find(text) != std::string::npos; }

  // The closing line of an update, and the command named in it; empty when there is none.
  std::string LastLine() const { return test::LinesOf(Out()).back(); }
  std::string Recommended() const {
    const std::string line = LastLine();
    const std::string program = ": firmware-updater ";
    const std::size_t at = line.find(program);
    return at == std::string::npos ? "" : line.substr(at + program.size());
  }

  std::filesystem::path Path(const std::string& name) const { return m_folder / name; }
  void Write(const std::string& name, std::string_view content) const {
    tavosim::WriteFile(Path(name), content);
  }
  std::string Read(const std::string& name) const { return test::FileText(Path(name)); }

 private:
  // Another thread may see that something was written.
  struct CountedText : std::stringbuf {
    int sync() override { return ++flushes, 0; }
    std::atomic<int> flushes = 0;
  };

  CountedText m_text{};
  std::ostream m_out{&m_text};
  std::ostringstream m_err{};

 public:
  Machine machine;

 private:
  std::filesystem::path m_folder;
};

}  // namespace tavo::tool
