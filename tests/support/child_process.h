// Programs as child processes of a test, each with its output in a file. Every wait has an end, and
// no child outlives the test: it is killed when its object goes, and by the system when the test
// process itself is killed.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/temporary_folder.h"

namespace tavo::test {

using Words = std::vector<std::string>;

// True as soon as `condition` is; false when that takes longer than `limit`.
template <typename Condition>
bool WaitUntil(Condition condition, std::chrono::seconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

class ChildProcess {
 public:
  // Runs `command` in `folder` with only the `environment` ("NAME=value"); both of its outputs go
  // to the file `output` there. Throws std::runtime_error when it cannot be started.
  ChildProcess(const std::filesystem::path& folder, Words command, Words environment,
               const std::string& output)
      : m_output(folder / output) {
    command.insert(command.begin(), {"setpriv", "--pdeathsig", "KILL"});
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, m_output.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
    const int failure = posix_spawnp(&m_pid, "setpriv", &actions, nullptr, Pointers(command).data(),
                                     Pointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    if (failure != 0) throw std::runtime_error(command.back() + " cannot be started");
  }
  ChildProcess(ChildProcess&& from) noexcept
      : m_output(std::move(from.m_output)),
        m_pid(std::exchange(from.m_pid, 0)),
        m_exitCode(from.m_exitCode) {}
  ChildProcess& operator=(ChildProcess&&) = delete;
  ~ChildProcess() {
    if (m_pid == 0 || m_exitCode) return;
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
  }

  // Its exit code, 128 + the signal that ended it, or nothing when it still runs at the end of
  // `limit`.
  std::optional<int> Wait(std::chrono::seconds limit) {
    WaitUntil([this] { return Ended(); }, limit);
    return m_exitCode;
  }
  void Send(int signal) {
    if (!Ended()) kill(m_pid, signal);
  }
  std::optional<int> AskToEnd(std::chrono::seconds limit) {
    Send(SIGTERM);
    return Wait(limit);
  }
  std::string Output() const { return FileText(m_output); }

 private:
  static std::vector<char*> Pointers(Words& words) {
    std::vector<char*> pointers;
    for (std::string& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);
    return pointers;
  }

  bool Ended() {
    int status = 0;
    if (!m_exitCode && waitpid(m_pid, &status, WNOHANG) == m_pid) {
      m_exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return m_exitCode.has_value();
  }

  std::filesystem::path m_output;
  pid_t m_pid = 0;
  std::optional<int> m_exitCode{};
};

}  // namespace tavo::test
