#include "kms/platform/ProcessHandler.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <thread>

#include "support/ProcessRunner.h"

namespace {

// Whether the listing of `name` shows `pid`, waiting up to five seconds for
// it to become `present`.
bool listed(const std::string& name, pid_t pid, bool present) {
  for (int i = 0; i < 500; ++i) {
    const std::vector<pid_t> pids = ProcessHandler(name).getProcessIDs();
    if ((std::find(pids.begin(), pids.end(), pid) != pids.end()) == present) {
      return present;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return !present;
}

// A child whose command name is `name` (argv[0] stays the test's).
pid_t childNamed(const std::string& name, bool exitAtOnce) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_NAME, name.c_str(), 0, 0, 0);
    if (exitAtOnce) {
      ::_exit(0);
    }
    for (;;) {
      ::pause();
    }
  }
  return pid;
}

}  // namespace

TEST(ProcessHandler, FindsProcessesByArgv0BaseNameOrCommandNameButNotTheCallerNorZombies) {
  const std::string name = "kmsph" + std::to_string(::getpid());
  RunningProcess byArgv0 =
      ProcessRunner("/bin/sleep").argv0("/some/dir/" + name).args({"30"}).spawn();
  EXPECT_TRUE(listed(name, byArgv0.pid(), true));
  const pid_t byComm = childNamed(name, false);  // renamed itself
  EXPECT_TRUE(listed(name, byComm, true));
  const std::vector<pid_t> both = ProcessHandler(name).getProcessIDs();
  EXPECT_EQ(both.size(), 2u);
  EXPECT_TRUE(std::is_sorted(both.begin(), both.end()));
  byArgv0.stop();
  ::kill(byComm, SIGKILL);
  ::waitpid(byComm, nullptr, 0);
  for (const std::string& none : {name, std::string(), name.substr(0, name.size() - 1)}) {
    EXPECT_TRUE(ProcessHandler(none).getProcessIDs().empty()) << none;
  }

  const std::string self = "kmsself" + std::to_string(::getpid());
  ASSERT_EQ(::prctl(PR_SET_NAME, self.c_str(), 0, 0, 0), 0);
  EXPECT_FALSE(listed(self, ::getpid(), false));

  const std::string zombieName = "kmszmb" + std::to_string(::getpid());
  const pid_t zombie = childNamed(zombieName, true);
  std::string stat;
  for (int i = 0; i < 500 && stat.find(") Z ") == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::getline(std::ifstream("/proc/" + std::to_string(zombie) + "/stat"), stat);
  }
  ASSERT_NE(stat.find(") Z "), std::string::npos) << stat;
  EXPECT_FALSE(listed(zombieName, zombie, false));
  ::waitpid(zombie, nullptr, 0);
}
