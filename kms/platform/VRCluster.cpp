#include "kms/platform/VRCluster.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>

#include "kms/platform/InstallRoot.h"

extern char** environ;

namespace {

// Result of one run of the utility: `ran` is false when it could not be
// started or did not exit normally.
struct UtilityResult {
  bool ran = false;
  int exitStatus = -1;
  std::string output;
};

UtilityResult runUtility(const std::vector<std::string>& args) {
  UtilityResult result;
  const std::string program = VRCluster::utilityPath();
  if (access(program.c_str(), X_OK) != 0) {
    return result;
  }
  std::vector<std::string> argvText;
  argvText.push_back(program);
  argvText.insert(argvText.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& arg : argvText) {
    argv.push_back(&arg[0]);
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
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
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
  if (WIFEXITED(status)) {
    result.ran = true;
    result.exitStatus = WEXITSTATUS(status);
  }
  return result;
}

}  // namespace

VRCluster::VRCluster(int /*flags*/) {}

std::string VRCluster::utilityPath() {
  return InstallRoot::path("vaultrest/bin/vrclusterutil");
}

bool VRCluster::isClustered() const {
  const UtilityResult result = runUtility({"-np", "-iscluster"});
  return result.ran && result.exitStatus != 0;
}

bool VRCluster::isNodeClustered() const {
  const UtilityResult result = runUtility({"-np", "-isnodeclustered"});
  return result.ran && result.exitStatus != 0;
}

int VRCluster::getClusterData(ClusterGroupInfo& info, void* /*reserved*/) const {
  const UtilityResult result = runUtility({"-np", "-listmonitored"});
  if (!result.ran || result.exitStatus != 0) {
    return result.ran ? result.exitStatus : -1;
  }
  ClusterGroupInfo fresh;
  std::istringstream lines(result.output);
  std::string line;
  while (std::getline(lines, line)) {
    if (!line.empty() && line.back() == '\r') {
      line.pop_back();
    }
    if (!line.empty()) {
      fresh.monitoredServices.push_back(line);
    }
  }
  info = std::move(fresh);
  return 0;
}

int VRCluster::enableServiceMonitoring(const char* name) const {
  if (name == nullptr || name[0] == '\0') {
    return -1;
  }
  const UtilityResult result = runUtility({"-np", "-monitor", name});
  if (!result.ran) {
    return -1;
  }
  return result.exitStatus;
}
