// Processes of this host: the listing by name, secrets read off a terminal, the cluster utility.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "kms/platform/InstallRoot.h"
#include "kms/platform/ProcessHandler.h"
#include "kms/platform/SecureFGets.h"
#include "kms/platform/VRCluster.h"
#include "support/PlatformTestRoot.h"
#include "support/ProcessRunner.h"

namespace {

// Whether the listing of `name` shows `pid`, waiting up to 5 s for it to be `present`.
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

}  // namespace

TEST(ProcessHandler, FindsProcessesByArgv0BaseNameOrCommandNameButNotTheCallerNorZombies) {
  const std::string name = "kmsph" + std::to_string(::getpid());
  TempRoot dir("vrkms-ph");  // a program whose command name is `name`
  ASSERT_EQ(::symlink("/bin/sleep", dir.file(name).c_str()), 0);
  RunningProcess byArgv0 =
      ProcessRunner("/bin/sleep").argv0("/some/dir/" + name).args({"30"}).spawn();
  RunningProcess byComm = ProcessRunner(dir.file(name)).argv0("other").args({"30"}).spawn();
  EXPECT_TRUE(listed(name, byArgv0.pid(), true));
  EXPECT_TRUE(listed(name, byComm.pid(), true));
  byArgv0.stop();
  byComm.stop();
  for (const std::string& none : {name, std::string(), name.substr(0, name.size() - 1)}) {
    EXPECT_TRUE(ProcessHandler(none).getProcessIDs().empty()) << none;
  }
  const std::string self = "kmsself" + std::to_string(::getpid());
  ASSERT_EQ(::prctl(PR_SET_NAME, self.c_str(), 0, 0, 0), 0);
  EXPECT_FALSE(listed(self, ::getpid(), false));
  RunningProcess zombie = ProcessRunner(dir.file(name)).args({"0"}).spawn();
  siginfo_t exited{};
  ASSERT_EQ(::waitid(P_PID, zombie.pid(), &exited, WEXITED | WNOWAIT), 0);  // left a zombie
  EXPECT_FALSE(listed(name, zombie.pid(), false));
}

// (Its bound on a pipe is met by the passphrase dialogue: KMSSpecialOps.)
TEST(SecureFGets, DoesNotEchoOnATerminalAndRestoresItsSettings) {
  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_TRUE(master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0);
  FILE* in = fdopen(open(ptsname(master), O_RDWR | O_NOCTTY), "r");
  ASSERT_NE(in, nullptr);
  struct termios before, now, after;
  ASSERT_EQ(tcgetattr(fileno(in), &before), 0);
  ASSERT_TRUE(before.c_lflag & ECHO);
  char buf[64];
  char* result = nullptr;
  std::thread reader([&] { result = SecureFGets(buf, sizeof(buf) - 1, in); });
  // Type only once echo is off, as a person at the prompt would.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  do {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_EQ(tcgetattr(fileno(in), &now), 0);
  } while ((now.c_lflag & ECHO) && std::chrono::steady_clock::now() < deadline);
  EXPECT_FALSE(now.c_lflag & (ECHO | ECHONL));
  ASSERT_EQ(write(master, "s3cret\n", 7), 7);
  reader.join();
  ASSERT_EQ(result, buf);
  EXPECT_STREQ(buf, "s3cret\n");
  struct pollfd pfd = {master, POLLIN, 0};
  EXPECT_EQ(poll(&pfd, 1, 100), 0) << "something was echoed";
  ASSERT_EQ(tcgetattr(fileno(in), &after), 0);
  EXPECT_EQ(after.c_lflag, before.c_lflag);
  EXPECT_TRUE(SecureFGets(buf, 0, in) == nullptr && SecureFGets(buf, 10, nullptr) == nullptr);
  fclose(in);
  close(master);
}

// The cluster utility (a stand-in answering by its arguments), and failing queries without it.
TEST(VRCluster, RunsTheUtilityAndReadsItsAnswers) {
  PlatformTestRoot root;
  const VRCluster cluster(0);
  ClusterGroupInfo info;
  info.monitoredServices = {"kept"};
  EXPECT_FALSE(cluster.isClustered() || cluster.isNodeClustered());
  EXPECT_NE(cluster.getClusterData(info, nullptr), 0);
  EXPECT_EQ(info.monitoredServices, std::vector<std::string>{"kept"});
  EXPECT_NE(cluster.enableServiceMonitoring("vrkms"), 0);
  const std::string bin = InstallRoot::path("vaultrest/bin");
  std::filesystem::create_directories(bin);
  std::ofstream(bin + "/vrclusterutil")
      << "#!/bin/sh\ncase \"$*\" in\n"
      << "'-np -iscluster') exit 1 ;;\n'-np -isnodeclustered') exit 3 ;;\n"
      << "'-np -listmonitored') printf 'vrpem\\nvrkms\\r\\n\\nvrdb\\n'; exit 0 ;;\n"
      << "'-np -monitor vrkms') exit 0 ;;\nesac\nexit 99\n";
  ::chmod((bin + "/vrclusterutil").c_str(), 0755);
  EXPECT_TRUE(cluster.isClustered() && cluster.isNodeClustered());
  EXPECT_EQ(cluster.getClusterData(info, nullptr), 0);
  EXPECT_EQ(info.monitoredServices, (std::vector<std::string>{"vrpem", "vrkms", "vrdb"}));
  EXPECT_EQ(cluster.enableServiceMonitoring("vrkms"), 0);
  EXPECT_EQ(cluster.enableServiceMonitoring("other"), 99);
}
