// Runs a program as a child process: arguments, environment on top of the
// test's own, standard input, output and error captured, a time limit (SIGKILL).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

struct ProcessResult {
  bool exited = false;  // ended by exit(), not by a signal or the time limit
  int exitStatus = -1;
  std::string out;
  std::string err;
};

// A child started by spawn() or spawnOnTerminal(); killed (SIGKILL) and
// reaped by stop() or the destructor.
class RunningProcess {
 public:
  explicit RunningProcess(pid_t pid, int terminal = -1) : m_pid(pid), m_terminal(terminal) {}
  RunningProcess(RunningProcess&& other) noexcept
      : m_pid(other.m_pid), m_terminal(other.m_terminal) {
    other.m_pid = -1;
    other.m_terminal = -1;
  }
  RunningProcess(const RunningProcess&) = delete;
  RunningProcess& operator=(const RunningProcess&) = delete;
  ~RunningProcess();

  pid_t pid() const { return m_pid; }
  void stop();
  // spawnOnTerminal(): the master side of the child's terminal; -1 otherwise.
  int terminal() const { return m_terminal; }
  // Reads the terminal into `seen` until `text` has appeared (true) or `limit` has passed.
  bool awaitOutput(const std::string& text, std::chrono::milliseconds limit, std::string* seen);
  // Waits up to `limit` for the child to end; its wait status, or -1.
  int awaitExit(std::chrono::milliseconds limit);

 private:
  pid_t m_pid;
  int m_terminal;
};

class ProcessRunner {
 public:
  explicit ProcessRunner(std::string program) : m_program(std::move(program)) {}

  ProcessRunner& args(std::vector<std::string> args) { return m_args = std::move(args), *this; }
  ProcessRunner& argv0(std::string name) { return m_argv0 = std::move(name), *this; }
  ProcessRunner& env(const std::string& name, const std::string& value) {
    return m_env[name] = value, *this;
  }
  ProcessRunner& stdinText(std::string text) { return m_stdin = std::move(text), *this; }
  ProcessRunner& timeout(std::chrono::milliseconds limit) { return m_timeout = limit, *this; }
  // Runs the child to its end or the time limit; SIGPIPE is ignored from then on.
  ProcessResult run() const;
  // Starts the child with its standard streams on /dev/null.
  RunningProcess spawn() const;
  // Starts the child on a new pseudo-terminal (its controlling terminal),
  // with SIGINT, SIGQUIT, SIGHUP and SIGTERM at their default actions.
  RunningProcess spawnOnTerminal() const;

 private:
  // Forks (on a new terminal whose master side `terminal` gets), runs `inChild`, executes.
  pid_t start(const std::function<void()>& inChild, int* terminal = nullptr) const;

  std::string m_program;
  std::optional<std::string> m_argv0;
  std::vector<std::string> m_args;
  std::map<std::string, std::string> m_env;
  std::string m_stdin;
  std::chrono::milliseconds m_timeout{30000};
};
