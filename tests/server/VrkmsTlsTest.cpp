// The service's TLS endpoint, driven with vrkmsctl and certificates made by
// the test: only a client certificate of the service's CA gets past the
// handshake, and vrkmsctl sends nothing to a service it cannot verify.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "server/GatedVrkms.h"
#include "support/TestCertificates.h"

namespace {

class VrkmsTls : public ::testing::Test {
 protected:
  void SetUp() override {
    m_endpoint = "giop:ssl:127.0.0.1:" + std::to_string(GatedVrkms::freePort());
    m_ca.issue("vrkms", "/CN=vrkms");
    m_ca.issue("media01", "/CN=media01");
    m_vrkms.writeConf(m_vrkms.root().file("kms"), "VRKMS_TLS_CERT = " + m_ca.cert("vrkms") +
                                                      "\nVRKMS_TLS_KEY = " + m_ca.key("vrkms") +
                                                      "\nVRKMS_TLS_CA = " + m_ca.ca() +
                                                      "\nVRKMS_TLS_ENDPOINT = " + m_endpoint +
                                                      "\nVRKMS_GRANT = 127.0.0.1 1,2,3,28,40\n");
    ASSERT_EQ(m_vrkms
                  .admin({"-createemptydb", "-randomhmk", "-randomkpk", "-hmkid", "hmk-1", "-kpkid",
                          "kpk-1"})
                  .exitStatus,
              0);
  }

  // vrkmsctl over TLS with `tls` (its --tls-* options).
  ProcessResult ctl(std::vector<std::string> tls, const std::vector<std::string>& command) {
    tls.insert(tls.begin(), {"--endpoint", m_endpoint});
    tls.insert(tls.end(), command.begin(), command.end());
    return m_vrkms.ctl(tls);
  }

  GatedVrkms m_vrkms;
  std::string m_endpoint;
  TestCertificates m_ca{m_vrkms.root().path(), "vrkms-ca"};
};

TEST_F(VrkmsTls, OnlyCertificatesOfItsCaAreServedAndNothingGoesToAnUnverifiedService) {
  const TestCertificates other(m_vrkms.root().path(), "other-ca");
  other.issue("media01-other", "/CN=media01");
  m_ca.issue("media01-old", "/CN=media01", -1);
  ASSERT_TRUE(m_vrkms.start()) << m_vrkms.stderrText() << m_vrkms.debugLog();

  struct Client {
    const char* name;
    std::vector<std::string> tls;
    int exitStatus;  // 3: refused in the handshake, the service not reached
  };
  const Client clients[] = {
      {"a certificate of the CA", m_ca.ctlOptions("media01"), 0},
      {"no certificate", {"--tls-ca", m_ca.ca()}, 3},
      {"another CA's certificate",
       {"--tls-cert", other.cert("media01-other"), "--tls-key", other.key("media01-other"),
        "--tls-ca", m_ca.ca()},
       3},
      {"an expired certificate", m_ca.ctlOptions("media01-old"), 3},
  };
  for (const Client& client : clients) {
    const ProcessResult r = ctl(client.tls, {"status"});
    EXPECT_EQ(r.exitStatus, client.exitStatus) << client.name << ": " << r.out << r.err;
  }

  // A service whose certificate does not chain to the CA vrkmsctl trusts is
  // left in the handshake, before the passphrase is sent.
  const std::string passphrase = m_vrkms.writePrivate("hmk.txt", "Hmk2-Ux5kJ9pL\n");
  const ProcessResult rotate =
      ctl({"--tls-cert", m_ca.cert("media01"), "--tls-key", m_ca.key("media01"), "--tls-ca",
           other.ca()},
          {"rotate-hmk", "--id", "hmk-2", "--passphrase-file", passphrase});
  EXPECT_EQ(rotate.exitStatus, 3) << rotate.out << rotate.err;
  const ProcessResult status = ctl(m_ca.ctlOptions("media01"), {"status"});
  EXPECT_NE(status.out.find("hmk-1"), std::string::npos) << status.out << status.err;
  EXPECT_EQ(m_vrkms.debugLog().find("updateHMK"), std::string::npos);
  EXPECT_EQ(m_vrkms.terminate(), std::make_pair(0, 0)) << m_vrkms.debugLog();
}

}  // namespace
