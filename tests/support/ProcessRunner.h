// Runs a program as a child process for process-level tests: chosen argv[0]
// and arguments, environment on top of the test's own, text on its standard
// input, standard output and error captured, exit status, and a time limit
// after which the child is killed.
//
//   ProcessResult r = ProcessRunner(VRKMS_BINARY)
//                         .args({"-info"})
//                         .env("VREST_ROOT", root.path())
//                         .run();
//   EXPECT_EQ(r.exitStatus, 252);
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

struct ProcessResult {
  bool started = false;  // false: fork or exec failed (see `err`)
  bool exited = false;   // ended by exit(); exitStatus is valid
  int exitStatus = -1;
  int termSignal = 0;     // the signal that ended it, when it did not exit
  bool timedOut = false;  // killed by the runner after the time limit
  std::string out;
  std::string err;
};

// A child started by ProcessRunner::spawn() or spawnOnTerminal(). The
// destructor kills (SIGKILL) and reaps it if it still runs, and closes the
// terminal.
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
  // Sends SIGKILL and waits for the child. Safe to call twice.
  void stop();

  // spawnOnTerminal(): the master side of the child's terminal (tcgetattr on
  // it gives the child's settings); -1 otherwise.
  int terminal() const { return m_terminal; }
  // Reads the terminal until `text` has appeared (true) or `limit` has passed;
  // everything read is appended to `seen`.
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

  // The arguments after argv[0].
  ProcessRunner& args(std::vector<std::string> args);
  // argv[0]; the program path by default.
  ProcessRunner& argv0(std::string name);
  // Sets one variable in the child's environment (the test's environment is
  // inherited otherwise).
  ProcessRunner& env(const std::string& name, const std::string& value);
  ProcessRunner& unsetEnv(const std::string& name);
  // Written to the child's standard input, which is then closed. Without it
  // the child reads end of file at once.
  ProcessRunner& stdinText(std::string text);
  // 30 seconds by default.
  ProcessRunner& timeout(std::chrono::milliseconds limit);

  // Runs the child to its end (or the time limit) and gives what happened.
  // SIGPIPE is ignored in the calling process from then on, so that a child
  // that leaves its input unread cannot end the test.
  ProcessResult run() const;

  // Starts the child with standard input, output and error on /dev/null and
  // returns at once.
  RunningProcess spawn() const;
  // Starts the child with a new pseudo-terminal as its standard input, output
  // and error (and controlling terminal), SIGINT, SIGQUIT, SIGHUP and SIGTERM
  // at their default actions, and returns at once.
  RunningProcess spawnOnTerminal() const;

 private:
  std::vector<std::string> buildEnvironment() const;

  std::string m_program;
  std::optional<std::string> m_argv0;
  std::vector<std::string> m_args;
  std::map<std::string, std::optional<std::string>> m_env;
  std::string m_stdin;
  std::chrono::milliseconds m_timeout{30000};
};
