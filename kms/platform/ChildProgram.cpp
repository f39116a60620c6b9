#include "kms/platform/ChildProgram.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

extern char** environ;

ChildProgramResult ChildProgram::run(const std::vector<std::string>& argvText, bool quietErrors) {
  ChildProgramResult result;
  if (argvText.empty()) {
    return result;
  }
  std::vector<std::string> words = argvText;
  std::vector<char*> argv;
  for (std::string& word : words) {
    argv.push_back(&word[0]);
  }
  argv.push_back(nullptr);

  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) {
    return result;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  if (quietErrors) {
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  }
  pid_t pid = -1;
  const int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  if (rc != 0) {
    close(out[0]);
    return result;
  }
  char buffer[4096];
  for (;;) {
    const ssize_t n = read(out[0], buffer, sizeof(buffer));
    if (n > 0) {
      result.output.append(buffer, static_cast<size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      break;
    }
  }
  close(out[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      return result;
    }
  }
  // An exec failure inside the child shows as exit status 127.
  if (WIFEXITED(status)) {
    result.ran = true;
    result.exitStatus = WEXITSTATUS(status);
  }
  return result;
}
