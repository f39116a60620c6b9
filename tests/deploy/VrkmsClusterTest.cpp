// vrclusterutil on CIB files (CIB_file, no cluster daemons) of this host and "peer" made
// from dist/pacemaker; then the service on such a CIB as systemd starts it (NOTIFY_SOCKET).
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/utsname.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <tuple>

#include "server/ServiceSandbox.h"

namespace {

const std::string kSbin = "/usr/sbin/";

std::string thisNode() {
  utsname host{};
  ::uname(&host);
  return host.nodename;
}

ProcessResult tool(const std::string& cib, const std::string& program,
                   std::vector<std::string> args) {
  return ProcessRunner(program).args(std::move(args)).env("CIB_file", cib).run();
}

enum class Placement { kHere, kPeer, kStopped, kUnmonitored };

// Writes a CIB with the recipe's group placed as asked and acted on; false if a tool fails.
bool writeCib(const std::string& path, Placement placement) {
  writeFile(path,
            "<cib validate-with='pacemaker-3.0' epoch='1' num_updates='0' admin_epoch='0'>"
            "<configuration><crm_config><cluster_property_set id='o'><nvpair id='o-s' "
            "name='stonith-enabled' value='false'/><nvpair id='o-q' name='no-quorum-policy' "
            "value='ignore'/></cluster_property_set></crm_config><nodes><node id='1' uname='" +
                thisNode() +
                "'/><node id='2' uname='peer'/></nodes><resources/><constraints/>"
                "</configuration><status/></cib>\n");
  const std::string node = placement == Placement::kPeer ? "peer" : thisNode();
  std::vector<std::vector<std::string>> steps = {
      {"cibadmin", "-C", "-o", "resources", "-x",
       VRKMS_SOURCE_DIR "/dist/pacemaker/vrkms-resources.xml"},
      {"cibadmin", "-C", "-o", "constraints", "-X",
       "<rsc_location id='at' rsc='vrkms' node='" + node + "' score='INFINITY'/>"}};
  if (placement == Placement::kStopped) {
    steps.push_back(
        {"crm_resource", "-r", "vrkms", "--meta", "-p", "target-role", "-v", "Stopped"});
  }
  if (placement == Placement::kUnmonitored) {
    steps.push_back({"cibadmin", "-D", "-X", "<primitive id='vrkms-service'/>"});
  }
  steps.push_back(
      {"crm_simulate", "-x", path, "-u", thisNode(), "-u", "peer", "-S", "-O", path + ".new"});
  for (const std::vector<std::string>& step : steps) {
    const ProcessResult r = tool(path, kSbin + step[0], {step.begin() + 1, step.end()});
    EXPECT_EQ(r.exitStatus, 0) << step[0] << ": " << r.err;
    if (r.exitStatus != 0) {
      return false;
    }
  }
  return ::rename((path + ".new").c_str(), path.c_str()) == 0;
}

ProcessResult clusterUtil(const std::string& cib, std::vector<std::string> args) {
  args.insert(args.begin(), "-np");
  return tool(cib, VRCLUSTERUTIL_BINARY, std::move(args));
}

}  // namespace

TEST(VrkmsCluster, TheUtilityAnswersFromTheCibAndTheServiceFollowsIt) {
  if (::access((kSbin + "crm_simulate").c_str(), X_OK) != 0) {
    GTEST_SKIP() << "Pacemaker's tools (pacemaker-cli-utils) are not installed";
  }
  ServiceSandbox service;
  const auto cibOf = [&](const std::string& name) { return service.root().file(name + ".xml"); };
  // Each CIB (no placement: none at all) and the answers to -iscluster, -isnodeclustered,
  // -isactive and -listmonitored (status and output).
  const std::tuple<const char*, std::optional<Placement>, int, int, int, int, const char*> cases[] =
      {{"here", Placement::kHere, 1, 1, 1, 0, "vrkms\n"},
       {"peer", Placement::kPeer, 1, 1, 0, 0, "vrkms\n"},
       {"stopped", Placement::kStopped, 1, 1, 0, 0, "vrkms\n"},
       {"unmonitored", Placement::kUnmonitored, 1, 1, 1, 0, ""},
       {"none", std::nullopt, 0, 0, 1, 1, ""}};
  for (const auto& [name, placement, cluster, nodeClustered, active, listed, monitored] : cases) {
    SCOPED_TRACE(name);
    const std::string cib = cibOf(name);
    ASSERT_TRUE(!placement || writeCib(cib, *placement));
    EXPECT_EQ(clusterUtil(cib, {"-iscluster"}).exitStatus, cluster);
    EXPECT_EQ(clusterUtil(cib, {"-isnodeclustered"}).exitStatus, nodeClustered);
    EXPECT_EQ(clusterUtil(cib, {"-isactive"}).exitStatus, active);
    const ProcessResult list = clusterUtil(cib, {"-listmonitored"});
    EXPECT_EQ(list.exitStatus, listed);
    EXPECT_EQ(list.out, monitored);
  }
  EXPECT_EQ(clusterUtil(cibOf("none"), {"-monitor", "vrkms"}).exitStatus, 1);
  EXPECT_EQ(clusterUtil(cibOf("here"), {"-bogus"}).exitStatus, 2);
  // The service started as systemd starts it, the utility installed.
  ASSERT_TRUE(service.makeStore());
  const std::string bin = service.root().file("vaultrest/bin");
  std::filesystem::create_directories(bin);
  ASSERT_EQ(::symlink(VRCLUSTERUTIL_BINARY, (bin + "/vrclusterutil").c_str()), 0);
  // A service manager's notification socket; next(): a message, or "" after a minute.
  const int notify = ::socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  service.root().file("notify.sock").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(notify, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::setenv("NOTIFY_SOCKET", address.sun_path, 1);
  ::setenv("WATCHDOG_USEC", "200000", 1);
  const auto next = [&] {
    pollfd ready{notify, POLLIN, 0};
    char buffer[4096];
    const ssize_t n = ::poll(&ready, 1, 60000) == 1 ? ::recv(notify, buffer, sizeof buffer, 0) : 0;
    return std::string(buffer, n > 0 ? static_cast<size_t>(n) : 0);
  };
  // Passive: the refusal is the unit's status, and no failure of the process.
  ::setenv("CIB_file", cibOf("peer").c_str(), 1);
  service.launch({"-console"});
  EXPECT_EQ(service.waitForExit(std::chrono::seconds(60)), 0);
  EXPECT_EQ(next(),
            "STATUS=This host is an inactive node of a cluster. The key management service was "
            "not started.");
  // Active, not yet monitored: ready once advertised, fed, monitored; -monitor is idempotent.
  const std::string cib = cibOf("unmonitored");
  ::setenv("CIB_file", cib.c_str(), 1);
  service.launch({"-console"});
  EXPECT_EQ(next(), "READY=1");
  EXPECT_EQ(::access(service.iorPath().c_str(), F_OK), 0);
  EXPECT_EQ(next(), "WATCHDOG=1");
  EXPECT_EQ(next(), "WATCHDOG=1");
  EXPECT_EQ(clusterUtil(cib, {"-listmonitored"}).out, "vrkms\n");
  const std::string once = readFile(cib);
  EXPECT_EQ(clusterUtil(cib, {"-monitor", "vrkms"}).exitStatus, 0);
  EXPECT_EQ(readFile(cib), once);
  EXPECT_NE(once.find("<primitive id=\"vrkms-service\" class=\"systemd\" type=\"vrkms\">"),
            std::string::npos);
  EXPECT_EQ(service.terminate().second, 0);
  for (const char* name : {"CIB_file", "NOTIFY_SOCKET", "WATCHDOG_USEC"}) {
    ::unsetenv(name);
  }
  ::close(notify);
}
