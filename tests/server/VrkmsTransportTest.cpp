// The transports as a hostile peer meets them: TLS only for certificates of the
// CA, both ways, and peers without rights neither fill the service nor block it.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <KMS.h>

#include <algorithm>
#include <iostream>

#include "server/ServiceClient.h"
#include "server/ServiceSandbox.h"
#include "support/TestCertificates.h"

namespace Fw = Ardentis::Vaultrest::TL::Framework;
namespace Facets = Ardentis::Vaultrest::DL::KMSFacetsV1;

namespace {

TEST(VrkmsTransport, OnlyCertificatesOfItsCaAreServedAndNothingGoesToAnUnverifiedService) {
  ServiceSandbox vrkms;
  const TestCertificates ca(vrkms.root().path(), "vrkms-ca"), other(vrkms.root().path(), "other");
  for (const char* name : {"vrkms", "media01", "media02"}) {
    ca.issue(name, std::string("/CN=") + name);
  }
  ca.issue("media01-old", "/CN=media01", -1);
  other.issue("media01-other", "/CN=media01");
  const std::string endpoint = "giop:ssl:127.0.0.1:" + std::to_string(ServiceSandbox::freePort());
  vrkms.writeConf("VRKMS_TLS_CERT = " + ca.cert("vrkms") + "\nVRKMS_TLS_KEY = " + ca.key("vrkms") +
                  "\nVRKMS_TLS_CA = " + ca.ca() + "\nVRKMS_TLS_ENDPOINT = " + endpoint +
                  "\nVRKMS_GRANT = cert:CN=media01 1,2,3,28,40\n");
  ASSERT_TRUE(vrkms.makeStore());
  ASSERT_TRUE(vrkms.start()) << vrkms.stderrText() << vrkms.debugLog();
  // vrkmsctl over TLS with `tls` (its --tls-* options).
  const auto ctl = [&](std::vector<std::string> tls, const std::vector<std::string>& command) {
    tls.insert(tls.begin(), {"--endpoint", endpoint});
    tls.insert(tls.end(), command.begin(), command.end());
    return vrkms.ctl(tls);
  };
  struct Client {
    const char* name;
    std::vector<std::string> tls;
    int exitStatus;  // 3: refused in the handshake, the service not reached
  };
  const Client clients[] = {
      {"a certificate of the CA", ca.ctlOptions("media01"), 0},
      {"a certificate of the CA that no grant names", ca.ctlOptions("media02"), 1},
      {"no certificate", {"--tls-ca", ca.ca()}, 3},
      {"another CA's certificate",
       {"--tls-cert", other.cert("media01-other"), "--tls-key", other.key("media01-other"),
        "--tls-ca", ca.ca()},
       3},
      {"an expired certificate", ca.ctlOptions("media01-old"), 3},
  };
  for (const Client& client : clients) {
    const ProcessResult r = ctl(client.tls, {"status"});
    EXPECT_EQ(r.exitStatus, client.exitStatus) << client.name << ": " << r.out << r.err;
  }
  // A service that does not chain to vrkmsctl's CA gets no passphrase.
  const std::string passphrase = vrkms.writePrivate("hmk.txt", "Hmk2-Ux5kJ9pL\n");
  const ProcessResult rotate = ctl(
      {"--tls-cert", ca.cert("media01"), "--tls-key", ca.key("media01"), "--tls-ca", other.ca()},
      {"rotate-hmk", "--id", "hmk-2", "--passphrase-file", passphrase});
  EXPECT_EQ(rotate.exitStatus, 3) << rotate.out << rotate.err;
  const ProcessResult status = ctl(ca.ctlOptions("media01"), {"status"});
  EXPECT_NE(status.out.find("hmk-1"), std::string::npos) << status.out << status.err;
  EXPECT_EQ(vrkms.debugLog().find("updateHMK"), std::string::npos);

  EXPECT_EQ(vrkms.terminate(), std::make_pair(0, 0)) << vrkms.debugLog();
}

// The peak resident memory of process `pid` so far, in KiB.
long peakResidentKiB(pid_t pid) {
  const std::string status = readFile("/proc/" + std::to_string(pid) + "/status");
  return std::stol(status.substr(status.find("VmHWM:") + 6));
}

TEST(VrkmsTransport, PeersWithoutRightsNeitherFillTheServiceNorKeepOthersOut) {
  ServiceSandbox vrkms;
  // 127.0.0.1 may fetch the facets (3) and read (1, 28), but not import.
  vrkms.writeConf("VRKMS_GRANT = 127.0.0.1 1,3,28\nVRKMS_GRANT = 127.0.0.2 1\n");
  ASSERT_TRUE(vrkms.makeStore());
  ASSERT_TRUE(vrkms.start()) << vrkms.stderrText() << vrkms.debugLog();
  KmsClient client(vrkms.reference());
  Facets::KMSModifiableFacet_ptr modify = client.modify();
  Facets::KMSControlFacet_ptr control = client.control();
  // Six imports of 200 MiB without the import's right: refused before being read in.
  const long before = peakResidentKiB(vrkms.pid());
  CORBA::Octet* bytes = Fw::octetSeq::allocbuf(200u << 20);
  std::fill(bytes, bytes + (200u << 20), CORBA::Octet(0));
  const Fw::octetSeq buffer(200u << 20, 200u << 20, bytes, true);
  std::vector<std::string> outcomes(6);
  std::vector<std::thread> importers;
  for (std::string& outcome : outcomes) {
    importers.emplace_back([&] {
      outcome =
          ServiceClient::outcome([&] { delete modify->importKS(buffer, "p", true, true, ""); });
    });
  }
  for (std::thread& importer : importers) {
    importer.join();
  }
  const long grown = peakResidentKiB(vrkms.pid()) - before;
  for (const std::string& outcome : outcomes) {
    EXPECT_EQ(outcome, "NO_PERMISSION");
  }
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  std::cout << "[ SKIPPED  ] peak resident memory under a sanitizer: grew " << grown << " KiB\n";
#else
  EXPECT_LT(grown, 64 * 1024) << "KiB";
#endif

  // A thousand idle connections, granted or not: a client is still answered at once.
  struct rlimit files;
  ::getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);
  std::vector<int> idle;
  for (const char* from : {"127.0.0.2", "127.0.0.3"}) {
    for (int i = 0; i < 500; ++i) {
      idle.push_back(ServiceSandbox::connectTo(vrkms.port(), from));
    }
  }
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(control->isQuiesced(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  for (const int fd : idle) {
    ::close(fd);
  }
  EXPECT_EQ(vrkms.terminate(), std::make_pair(0, 0)) << vrkms.debugLog();
}

}  // namespace
