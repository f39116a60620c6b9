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

bool listed(const std::string& name, pid_t pid) {
  const std::vector<pid_t> pids = ProcessHandler(name).getProcessIDs();
  return std::find(pids.begin(), pids.end(), pid) != pids.end();
}

// Waits up to five seconds for the listing of `name` to show (or not show) `pid`.
bool eventually(const std::string& name, pid_t pid, bool present) {
  for (int i = 0; i < 500; ++i) {
    if (listed(name, pid) == present) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

char stateOf(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t close = stat.rfind(')');
  return close != std::string::npos && close + 2 < stat.size() ? stat[close + 2] : '?';
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

TEST(ProcessHandler, FindsProcessesByArgv0BaseNameOrByCommandName) {
  const std::string name = "kmsph" + std::to_string(::getpid());

  // argv[0] "/some/dir/<name>" of a sleep: found by the base name of argv[0].
  RunningProcess byArgv0 =
      ProcessRunner("/bin/sleep").argv0("/some/dir/" + name).args({"30"}).spawn();
  EXPECT_TRUE(eventually(name, byArgv0.pid(), true));

  // A process that renamed itself: found by its command name.
  const pid_t byComm = childNamed(name, false);
  EXPECT_TRUE(eventually(name, byComm, true));
  const std::vector<pid_t> both = ProcessHandler(name).getProcessIDs();
  EXPECT_EQ(both.size(), 2u);
  EXPECT_TRUE(std::is_sorted(both.begin(), both.end()));

  byArgv0.stop();
  ::kill(byComm, SIGKILL);
  ::waitpid(byComm, nullptr, 0);
  EXPECT_TRUE(ProcessHandler(name).getProcessIDs().empty());
  EXPECT_TRUE(ProcessHandler("").getProcessIDs().empty());
  EXPECT_TRUE(ProcessHandler(name.substr(0, name.size() - 1)).getProcessIDs().empty());
}

TEST(ProcessHandler, LeavesOutTheCallerAndZombies) {
  const std::string name = "kmsself" + std::to_string(::getpid());
  ASSERT_EQ(::prctl(PR_SET_NAME, name.c_str(), 0, 0, 0), 0);
  EXPECT_FALSE(listed(name, ::getpid()));

  const std::string zombieName = "kmszmb" + std::to_string(::getpid());
  const pid_t zombie = childNamed(zombieName, true);
  for (int i = 0; i < 500 && stateOf(zombie) != 'Z'; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(stateOf(zombie), 'Z');
  EXPECT_FALSE(listed(zombieName, zombie));
  ::waitpid(zombie, nullptr, 0);
}

// Processes that exit while their /proc entries are being read: every read
// error is a skipped process, never an exception out of the listing.
TEST(ProcessHandler, ToleratesProcessesVanishingMidRead) {
  const std::string name = "kmsrace" + std::to_string(::getpid());
  const pid_t spawner = ::fork();
  if (spawner == 0) {
    for (;;) {
      const pid_t child = ::fork();
      if (child == 0) {
        ::prctl(PR_SET_NAME, name.c_str(), 0, 0, 0);
        ::_exit(0);
      }
      ::waitpid(child, nullptr, 0);
    }
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(4);
  for (int i = 0; i < 3000 && !HasFailure() && std::chrono::steady_clock::now() < deadline; ++i) {
    EXPECT_NO_THROW(ProcessHandler(name).getProcessIDs());
    EXPECT_NO_THROW(ProcessHandler("kmsnomatch").getProcessIDs());
  }
  ::kill(spawner, SIGKILL);
  ::waitpid(spawner, nullptr, 0);
}
