#include "support/ProcessRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

// Pointers into `strings`, ended by a null pointer, for execve.
std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> result;
  for (std::string& s : strings) {
    result.push_back(&s[0]);
  }
  result.push_back(nullptr);
  return result;
}

std::string readAll(int fd) {
  std::string text;
  char buffer[4096];
  ::lseek(fd, 0, SEEK_SET);
  for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;) {
    text.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);
  return text;
}

}  // namespace

RunningProcess::~RunningProcess() {
  stop();
}

void RunningProcess::stop() {
  if (m_terminal >= 0)
    close(m_terminal);
  m_terminal = -1;
  if (m_pid > 0) {
    kill(m_pid, SIGKILL);
    while (waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    m_pid = -1;
  }
}

bool RunningProcess::awaitOutput(const std::string& text, std::chrono::milliseconds limit,
                                 std::string* seen) {
  const Clock::time_point deadline = Clock::now() + limit;
  const size_t from = seen->size();
  while (seen->find(text, from) == std::string::npos) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd p{m_terminal, POLLIN, 0};
    char buffer[4096];
    ssize_t n = 0;
    if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0 ||
        (n = read(m_terminal, buffer, sizeof(buffer))) <= 0)
      return false;
    seen->append(buffer, static_cast<size_t>(n));
  }
  return true;
}

int RunningProcess::awaitExit(std::chrono::milliseconds limit) {
  const Clock::time_point deadline = Clock::now() + limit;
  for (int status = 0; m_pid > 0 && Clock::now() <= deadline; usleep(10000)) {
    if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
      m_pid = -1;
      return status;
    }
  }
  return -1;
}

pid_t ProcessRunner::start(const std::function<void()>& inChild, int* terminal) const {
  std::vector<std::string> argvText{m_argv0.value_or(m_program)};
  argvText.insert(argvText.end(), m_args.begin(), m_args.end());
  std::vector<std::string> envText;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry = *e;
    if (m_env.count(entry.substr(0, entry.find('='))) == 0)
      envText.push_back(entry);
  }
  for (const auto& [name, value] : m_env) {
    envText.push_back(name + "=" + value);
  }
  std::vector<char*> argv = pointers(argvText);
  std::vector<char*> envp = pointers(envText);
  const pid_t pid = terminal != nullptr ? forkpty(terminal, nullptr, nullptr, nullptr) : fork();
  if (pid == 0) {
    inChild();  // async-signal-safe calls only
    execve(m_program.c_str(), argv.data(), envp.data());
    static const char kFailed[] = "exec failed\n";
    ssize_t ignored = write(STDERR_FILENO, kFailed, sizeof kFailed - 1);
    (void)ignored;
    _exit(127);
  }
  return pid;
}

RunningProcess ProcessRunner::spawn() const {
  return RunningProcess(start([] {
    const int devNull = open("/dev/null", O_RDWR);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
      dup2(devNull, fd);
    }
  }));
}

RunningProcess ProcessRunner::spawnOnTerminal() const {
  int master = -1;
  const pid_t pid = start(
      [] {
        // The signals a terminal sends take effect even where the test ignores them.
        for (const int signal : {SIGINT, SIGQUIT, SIGHUP, SIGTERM}) {
          ::signal(signal, SIG_DFL);
        }
      },
      &master);
  if (pid < 0)
    return RunningProcess(-1);
  fcntl(master, F_SETFD, FD_CLOEXEC);
  return RunningProcess(pid, master);
}

ProcessResult ProcessRunner::run() const {
  ProcessResult result;
  // Standard input: a pipe holding the whole text; output and error: memory files.
  int in[2] = {-1, -1};
  const int out = memfd_create("out", MFD_CLOEXEC), err = memfd_create("err", MFD_CLOEXEC);
  if (pipe2(in, O_CLOEXEC) != 0 || out < 0 || err < 0) {
    result.err = std::string("cannot run: ") + std::strerror(errno);
    return result;
  }
  fcntl(in[1], F_SETPIPE_SZ, static_cast<int>(m_stdin.size()) + 1);
  const bool fed =
      write(in[1], m_stdin.data(), m_stdin.size()) == static_cast<ssize_t>(m_stdin.size());
  close(in[1]);
  signal(SIGPIPE, SIG_IGN);
  const pid_t pid = start([&] {
    dup2(in[0], STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
  });
  close(in[0]);
  int status = -1;
  const Clock::time_point deadline = Clock::now() + m_timeout;
  while (pid > 0 && waitpid(pid, &status, WNOHANG) == 0) {
    if (Clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  result.out = readAll(out);
  result.err = (fed ? "" : "standard input not written whole\n") + readAll(err);
  if (status >= 0 && WIFEXITED(status)) {
    result.exited = true;
    result.exitStatus = WEXITSTATUS(status);
  }
  return result;
}
