// Runs the built vrkms under a private installation root and looks at what it
// prints, logs and exits with.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>

#include "kms/platform/ProcessHandler.h"
#include "support/ProcessRunner.h"
#include "support/TempRoot.h"

namespace {

const char kUsage[] =
    "\nUSAGE: Vaultrest key management service\n\n"
    "   vrkms [ -createemptydb | -info | -resethmk | -resetkpk ]\n";

class Vrkms : public ::testing::Test {
 protected:
  ProcessResult run(std::vector<std::string> args) const {
    return ProcessRunner(VRKMS_BINARY)
        .args(std::move(args))
        .env("VREST_ROOT", m_root.path())
        .timeout(std::chrono::seconds(60))
        .run();
  }

  void writeConf(const std::string& text) const {
    ::mkdir(m_root.file("etc").c_str(), 0700);
    std::ofstream(m_root.file("etc/vr.conf"), std::ios::trunc) << text;
  }

  std::string readLog(const std::string& name) const {
    std::ifstream in(m_root.file("logs/vrkms/" + name));
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  std::string debugLog() const { return readLog("vrkms_debug.log"); }
  std::string appLog() const { return readLog("vrkms_app.log"); }

  // Whether the application log holds message `id` of the start gates.
  bool gateLogged(int id) const {
    return appLog().find("286-" + std::to_string(id) + " vrkms_main: ") != std::string::npos;
  }

  TempRoot m_root{"vrkms-proc"};
};

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

TEST_F(Vrkms, HelpUnknownOptionsAndBareWordsPrintTheUsageAndExitZero) {
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{{"-help"},
                                                                                    {"-h"},
                                                                                    {"-HELP"},
                                                                                    {"-H"},
                                                                                    {"-bogus"},
                                                                                    {"-infox"},
                                                                                    {"-h", "-info"},
                                                                                    {"word"},
                                                                                    {""}}) {
    const ProcessResult r = run(args);
    ASSERT_TRUE(r.exited) << args[0] << r.err;
    EXPECT_EQ(r.exitStatus, 0) << args[0];
    EXPECT_EQ(r.err, kUsage) << args[0];
    EXPECT_EQ(r.out, "") << args[0];
  }
}

TEST_F(Vrkms, OperationsOffTheMasterServerReportTheirCodeWith252) {
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"-createemptydb", "-randomhmk", "-randomkpk"},
                                             {"-RESETKPK"},
                                             {"-info", "ignored", "words"}}) {
    const ProcessResult r = run(args);
    ASSERT_TRUE(r.exited) << args[0];
    EXPECT_EQ(r.exitStatus, 252) << args[0];
    EXPECT_TRUE(contains(r.err, "\nEXIT STATUS = 1271\n")) << r.err;
    EXPECT_FALSE(contains(r.err, "USAGE")) << r.err;
    EXPECT_EQ(r.out, "");
  }
  const std::string log = debugLog();
  EXPECT_TRUE(contains(log, "Actual Error Code: 1271 (")) << log;
  EXPECT_TRUE(contains(log, "kmsExit: Exiting with Status: 252 (")) << log;
  EXPECT_TRUE(contains(log, "FIPS mode DISABLED in configuration")) << log;
}

TEST_F(Vrkms, LoggedCommandLineNeverShowsAPassphrase) {
  run({"-resethmk", "-hmkpass", "secret1"});
  run({"-resethmk", "-HMKPASS", "secret2", "-overwrite"});
  run({"-createemptydb", "-kpkpass", "secret3", "-hmkpass"});
  const std::string log = debugLog();
  EXPECT_TRUE(contains(log, "Command Line Args: " VRKMS_BINARY " -resethmk -hmkpass ****** "))
      << log;
  EXPECT_TRUE(contains(log, " -resethmk -HMKPASS ****** -overwrite ")) << log;
  EXPECT_TRUE(contains(log, " -createemptydb -kpkpass ****** -hmkpass ****** ")) << log;
  EXPECT_FALSE(contains(log, "secret")) << log;
}

TEST_F(Vrkms, StartIsRefusedQuietlyOffTheMasterServer) {
  // "-terminate" skips the running-service gate, which any vrkms of a test
  // running alongside would trip; the other gates run as for a plain start.
  ProcessResult r = run({"-terminate"});
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_TRUE(gateLogged(30)) << appLog();
  EXPECT_TRUE(contains(appLog(), "286-32 ")) << appLog();  // no configuration

  writeConf("SERVER = 192.0.2.1\nSERVER = localhost\n");
  r = run({"-TERMINATE", "ignored"});
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_EQ(r.err, "");

  // On the master server the start passes all gates and reaches the
  // framework, which finds no service to stop.
  writeConf("SERVER = localhost\n");
  r = run({"-terminate"});
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.exitStatus, 1);
  EXPECT_TRUE(contains(debugLog(), "No vrkms service is running")) << debugLog();
}

TEST_F(Vrkms, StartIsRefusedQuietlyOnAnInactiveClusterNode) {
  writeConf("SERVER = localhost\n");
  ::mkdir(m_root.file("vaultrest").c_str(), 0755);
  ::mkdir(m_root.file("vaultrest/bin").c_str(), 0755);
  const std::string utility = m_root.file("vaultrest/bin/vrclusterutil");
  std::ofstream(utility) << "#!/bin/sh\ncase \"$2\" in -iscluster) exit 1 ;; esac\nexit 0\n";
  ::chmod(utility.c_str(), 0755);

  const ProcessResult r = run({"-terminate"});
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_TRUE(gateLogged(86)) << appLog();
  EXPECT_FALSE(gateLogged(30)) << appLog();
}

TEST_F(Vrkms, PlainStartIsRefusedWhileTheServiceRuns) {
  writeConf("SERVER = localhost\n");
  RunningProcess service = ProcessRunner("/bin/sleep").argv0("vrkms").args({"30"}).spawn();
  for (int i = 0; i < 500 && ProcessHandler("vrkms").getProcessIDs().empty(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  const ProcessResult plain = run({});
  const ProcessResult console = run({"-console", "-info"});
  const ProcessResult terminate = run({"-terminate"});
  service.stop();

  ASSERT_TRUE(plain.exited);
  EXPECT_EQ(plain.exitStatus, 0);
  EXPECT_EQ(plain.err, "");
  ASSERT_TRUE(console.exited);
  EXPECT_EQ(console.exitStatus, 0);
  EXPECT_EQ(console.err, "");  // "-info" after "-console" is never run
  EXPECT_TRUE(gateLogged(31)) << appLog();
  // "-terminate" goes past the first gate; the stand-in wrote no pid file,
  // so there is nothing it may stop.
  ASSERT_TRUE(terminate.exited);
  EXPECT_EQ(terminate.exitStatus, 1);
}
