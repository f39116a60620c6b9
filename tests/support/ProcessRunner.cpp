#include "support/ProcessRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

struct Pipe {
  int fd[2] = {-1, -1};
  bool open() { return pipe2(fd, O_CLOEXEC) == 0; }
  void closeBoth() {
    for (int& f : fd) {
      if (f >= 0) {
        close(f);
        f = -1;
      }
    }
  }
};

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> result;
  for (std::string& s : strings) {
    result.push_back(&s[0]);
  }
  result.push_back(nullptr);
  return result;
}

int waitFor(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      return -1;
    }
  }
  return status;
}

}  // namespace

RunningProcess::~RunningProcess() {
  stop();
}

void RunningProcess::stop() {
  if (m_terminal >= 0) {
    close(m_terminal);
    m_terminal = -1;
  }
  if (m_pid <= 0) {
    return;
  }
  kill(m_pid, SIGKILL);
  waitFor(m_pid);
  m_pid = -1;
}

bool RunningProcess::awaitOutput(const std::string& text, std::chrono::milliseconds limit,
                                 std::string* seen) {
  const Clock::time_point deadline = Clock::now() + limit;
  const size_t from = seen->size();
  while (seen->find(text, from) == std::string::npos) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd p{m_terminal, POLLIN, 0};
    if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0) {
      return false;
    }
    char buffer[4096];
    const ssize_t n = read(m_terminal, buffer, sizeof(buffer));
    if (n <= 0) {
      return false;
    }
    seen->append(buffer, static_cast<size_t>(n));
  }
  return true;
}

int RunningProcess::awaitExit(std::chrono::milliseconds limit) {
  const Clock::time_point deadline = Clock::now() + limit;
  while (m_pid > 0) {
    int status = 0;
    if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
      m_pid = -1;
      return status;
    }
    if (Clock::now() > deadline) {
      break;
    }
    usleep(10000);
  }
  return -1;
}

ProcessRunner& ProcessRunner::args(std::vector<std::string> args) {
  m_args = std::move(args);
  return *this;
}

ProcessRunner& ProcessRunner::argv0(std::string name) {
  m_argv0 = std::move(name);
  return *this;
}

ProcessRunner& ProcessRunner::env(const std::string& name, const std::string& value) {
  m_env[name] = value;
  return *this;
}

ProcessRunner& ProcessRunner::unsetEnv(const std::string& name) {
  m_env[name] = std::nullopt;
  return *this;
}

ProcessRunner& ProcessRunner::stdinText(std::string text) {
  m_stdin = std::move(text);
  return *this;
}

ProcessRunner& ProcessRunner::timeout(std::chrono::milliseconds limit) {
  m_timeout = limit;
  return *this;
}

std::vector<std::string> ProcessRunner::buildEnvironment() const {
  std::vector<std::string> result;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry = *e;
    const std::string name = entry.substr(0, entry.find('='));
    if (m_env.count(name) == 0) {
      result.push_back(entry);
    }
  }
  for (const auto& [name, value] : m_env) {
    if (value) {
      result.push_back(name + "=" + *value);
    }
  }
  return result;
}

RunningProcess ProcessRunner::spawn() const {
  std::vector<std::string> argvText{m_argv0.value_or(m_program)};
  argvText.insert(argvText.end(), m_args.begin(), m_args.end());
  std::vector<std::string> envText = buildEnvironment();
  std::vector<char*> argv = pointers(argvText);
  std::vector<char*> envp = pointers(envText);

  const pid_t pid = fork();
  if (pid == 0) {
    const int devNull = open("/dev/null", O_RDWR);
    dup2(devNull, STDIN_FILENO);
    dup2(devNull, STDOUT_FILENO);
    dup2(devNull, STDERR_FILENO);
    execve(m_program.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  return RunningProcess(pid);
}

RunningProcess ProcessRunner::spawnOnTerminal() const {
  std::vector<std::string> argvText{m_argv0.value_or(m_program)};
  argvText.insert(argvText.end(), m_args.begin(), m_args.end());
  std::vector<std::string> envText = buildEnvironment();
  std::vector<char*> argv = pointers(argvText);
  std::vector<char*> envp = pointers(envText);

  int master = -1;
  const pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
  if (pid == 0) {
    // As on a terminal of its own: the signals a terminal sends take effect
    // even where the test runs with them ignored (in the background).
    for (const int signal : {SIGINT, SIGQUIT, SIGHUP, SIGTERM}) {
      ::signal(signal, SIG_DFL);
    }
    execve(m_program.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  if (pid < 0) {
    return RunningProcess(-1);
  }
  fcntl(master, F_SETFD, FD_CLOEXEC);
  return RunningProcess(pid, master);
}

ProcessResult ProcessRunner::run() const {
  ProcessResult result;
  std::vector<std::string> argvText{m_argv0.value_or(m_program)};
  argvText.insert(argvText.end(), m_args.begin(), m_args.end());
  std::vector<std::string> envText = buildEnvironment();
  std::vector<char*> argv = pointers(argvText);
  std::vector<char*> envp = pointers(envText);

  Pipe in, out, err, execError;
  if (!in.open() || !out.open() || !err.open() || !execError.open()) {
    result.err = std::string("pipe failed: ") + std::strerror(errno);
    in.closeBoth(), out.closeBoth(), err.closeBoth(), execError.closeBoth();
    return result;
  }

  const pid_t pid = fork();
  if (pid < 0) {
    result.err = std::string("fork failed: ") + std::strerror(errno);
    in.closeBoth(), out.closeBoth(), err.closeBoth(), execError.closeBoth();
    return result;
  }
  if (pid == 0) {
    // Only async-signal-safe calls from here on.
    dup2(in.fd[0], STDIN_FILENO);
    dup2(out.fd[1], STDOUT_FILENO);
    dup2(err.fd[1], STDERR_FILENO);
    execve(m_program.c_str(), argv.data(), envp.data());
    const int error = errno;
    ssize_t ignored = write(execError.fd[1], &error, sizeof(error));
    (void)ignored;
    _exit(127);
  }

  close(in.fd[0]), close(out.fd[1]), close(err.fd[1]), close(execError.fd[1]);
  in.fd[0] = out.fd[1] = err.fd[1] = execError.fd[1] = -1;

  int execErrno = 0;
  const bool execFailed = read(execError.fd[0], &execErrno, sizeof(execErrno)) ==
                          static_cast<ssize_t>(sizeof(execErrno));
  execError.closeBoth();

  // Feed stdin and drain stdout/stderr together, so that no pipe fills up.
  signal(SIGPIPE, SIG_IGN);
  size_t written = 0;
  if (m_stdin.empty()) {
    in.closeBoth();
  }
  const Clock::time_point deadline = Clock::now() + m_timeout;
  while (out.fd[0] >= 0 || err.fd[0] >= 0) {
    std::vector<pollfd> fds;
    if (in.fd[1] >= 0) {
      fds.push_back({in.fd[1], POLLOUT, 0});
    }
    if (out.fd[0] >= 0) {
      fds.push_back({out.fd[0], POLLIN, 0});
    }
    if (err.fd[0] >= 0) {
      fds.push_back({err.fd[0], POLLIN, 0});
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
      result.timedOut = true;
      kill(pid, SIGKILL);
      break;
    }
    const int ready = poll(fds.data(), fds.size(), static_cast<int>(left));
    if (ready < 0 && errno != EINTR) {
      break;
    }
    for (const pollfd& p : fds) {
      if (p.revents == 0) {
        continue;
      }
      if (p.fd == in.fd[1]) {
        const ssize_t n = write(p.fd, m_stdin.data() + written, m_stdin.size() - written);
        if (n > 0) {
          written += static_cast<size_t>(n);
        }
        if (n < 0 || written == m_stdin.size()) {
          in.closeBoth();
        }
        continue;
      }
      char buffer[4096];
      const ssize_t n = read(p.fd, buffer, sizeof(buffer));
      std::string& sink = p.fd == out.fd[0] ? result.out : result.err;
      if (n > 0) {
        sink.append(buffer, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        (p.fd == out.fd[0] ? out : err).closeBoth();
      }
    }
  }
  in.closeBoth(), out.closeBoth(), err.closeBoth();

  const int status = waitFor(pid);
  if (execFailed) {
    result.err += std::string("exec failed: ") + std::strerror(execErrno);
    return result;
  }
  result.started = true;
  if (status >= 0 && WIFEXITED(status)) {
    result.exited = true;
    result.exitStatus = WEXITSTATUS(status);
  } else if (status >= 0 && WIFSIGNALED(status)) {
    result.termSignal = WTERMSIG(status);
  }
  return result;
}
