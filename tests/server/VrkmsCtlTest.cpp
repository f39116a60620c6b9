// vrkmsctl against the built vrkms, command by command, read back from its output.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include <KMS.h>

#include "server/ServiceClient.h"
#include "server/ServiceSandbox.h"

namespace Facets = Ardentis::Vaultrest::DL::KMSFacetsV1;

namespace {

using CtlOutput::contains;
using CtlOutput::countOf;
using CtlOutput::expectFields;
using CtlOutput::jsonField;

class VrkmsCtl : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_service.makeStore());
    ASSERT_TRUE(m_service.start()) << m_service.stderrText() << m_service.debugLog();
  }

  std::string ok(const std::vector<std::string>& args) { return m_service.ok(args); }
  std::string json(const std::vector<std::string>& args) { return m_service.json(args); }
  void refused(const std::vector<std::string>& args, int code) { m_service.refused(args, code); }

  ServiceSandbox m_service;
};

TEST_F(VrkmsCtl, GroupsAndKeysAreCreatedListedUpdatedMovedAndDeleted) {
  const std::string g1 =
      json({"group", "create", "g1", "--cipher", "AES256", "--description", "first \"group\""});
  EXPECT_TRUE(contains(g1, R"("description":"first \"group\"")")) << g1;
  expectFields(g1, {{"name", "g1"},
                    {"cipherType", "CT_AES256_CBC"},
                    {"rev", "1"},
                    {"numKeys", "0"},
                    {"hasActiveKey", "false"}});
  EXPECT_EQ(jsonField(g1, "createTime"), jsonField(g1, "updateTime"));
  // Seconds since 1970, from the wire's ticks since 1582.
  EXPECT_LT(std::abs(std::stoll(jsonField(g1, "createTime")) - std::time(nullptr)), 300) << g1;
  EXPECT_EQ(jsonField(g1, "tag").size(), 64u);
  json({"group", "create", "g2", "--cipher", "aes256"});
  json({"group", "create", "b1", "--cipher", "BLOWFISH"});
  refused({"group", "create", "g1", "--cipher", "AES128"}, 1232);
  const std::string groups = json({"group", "list"});
  EXPECT_EQ(countOf(groups, "\"cipherType\":"), 3u) << groups;
  EXPECT_TRUE(contains(groups, "\"cipherType\":\"CT_BLOW_CBC\""));
  // A second active key demotes the first, at the same moment.
  const std::string k1 = json({"key", "create", "g1", "k1", "--description", "one"});
  // No key material from a change.
  expectFields(k1, {{"state", "KEY_ACTIVE"},
                    {"keyGroup", jsonField(g1, "tag")},
                    {"kpkType", "KPK_LOCAL"},
                    {"key", "<absent>"}});
  const std::string k2 = json({"key", "create", "g1", "k2"});
  expectFields(
      json({"key", "show", "g1", "k1"}),
      {{"state", "KEY_INACTIVE"}, {"rev", "2"}, {"updateTime", jsonField(k2, "createTime")}});
  EXPECT_EQ(jsonField(json({"key", "active", "g1"}), "name"), "k2");
  expectFields(json({"group", "show", "g1"}), {{"numKeys", "2"}, {"hasActiveKey", "true"}});
  // The optimistic lock: a record read before a change is stale after it.
  KmsClient client(m_service.reference());
  Facets::KeyRecord_var stale =
      client.query()->getKeyRecordByName(jsonField(g1, "tag").c_str(), "k1");
  const std::string renamed =
      json({"key", "update", "g1", "k1", "--new-name", "k1b", "--description", "changed"});
  expectFields(renamed, {{"name", "k1b"}, {"rev", "3"}, {"state", "KEY_INACTIVE"}});
  stale->description = "lost update";
  EXPECT_EQ(ServiceClient::serviceError(
                [&] { Facets::KeyRecord_var r = client.modify()->updateKey(stale.in()); }),
            1228);
  EXPECT_EQ(jsonField(json({"key", "show", "g1", "k1b"}), "description"), "changed");
  // Moves: not between cipher types; into a group with an active key, the
  // moving active key takes over and the group's own is demoted.
  refused({"key", "update", "g1", "k2", "--move-to", "b1"}, 1230);
  json({"key", "create", "g2", "k3"});
  const std::string moved = json({"key", "update", "g1", "k2", "--move-to", "g2"});
  EXPECT_EQ(jsonField(moved, "keyGroup"), jsonField(json({"group", "show", "g2"}), "tag"));
  EXPECT_EQ(jsonField(moved, "state"), "KEY_ACTIVE");
  EXPECT_EQ(jsonField(json({"key", "show", "g2", "k3"}), "state"), "KEY_INACTIVE");
  const std::string listed = ok({"key", "list", "g2"});
  EXPECT_LT(listed.find("k2 "), listed.find("k3 ")) << listed;  // active key first
  EXPECT_EQ(countOf(ok({"key", "list", "g1"}), "\n"), 2u);      // heading and k1b
  // Deletion only from the ends of the state line.
  refused({"key", "delete", "g2", "k3"}, 1242);
  refused({"key", "update", "g2", "k3", "--state", "prelive"}, 1240);
  json({"key", "update", "g2", "k3", "--state", "deprecated"});
  json({"key", "update", "g2", "k3", "--state", "KEY_TERMINATED"});
  EXPECT_EQ(ok({"--json", "key", "delete", "g2", "k3"}), "{\"ok\":true}\n");
  refused({"key", "show", "g2", "k3"}, 1260);
  json({"key", "create", "g1", "p1", "--state", "prelive"});
  EXPECT_EQ(ok({"key", "delete", "g1", "p1"}), "Deleted key p1\n");
  // Groups: a name taken or refused, nothing to change, a non-empty group.
  refused({"key", "create", "g1", "bad/name"}, 1287);
  refused({"group", "update", "b1", "--new-name", "g2"}, 1232);
  expectFields(json({"group", "update", "b1", "--new-name", "blowfish", "--description", "bf"}),
               {{"name", "blowfish"}, {"rev", "2"}});
  refused({"group", "update", "blowfish"}, 1241);
  refused({"group", "delete", "g1"}, 1222);
  ok({"group", "delete", "g1", "--force"});
  refused({"group", "show", "g1"}, 1229);
  refused({"key", "list", "g1"}, 1229);
  expectFields(json({"status"}), {{"numKeyGroups", "2"},
                                  {"numKeys", "1"},
                                  {"quiesceCount", "0"},
                                  {"hmkId", "hmk-1"},
                                  {"kpkId", "kpk-1"}});
  // Every request of the client carries its version.
  EXPECT_TRUE(contains(m_service.debugLog(),
                       "Found Peer Version Information in TSS,  Major 1 Minor 0 Patch 0"));
}

TEST_F(VrkmsCtl, KeysAreReadRecoveredAndFoundByTheirKads) {
  json({"group", "create", "g", "--cipher", "AES128"});
  const std::string passphrase = m_service.writePrivate("pass.txt", "key passphrase\n");
  // A key made from a passphrase can be had only once it is usable.
  const std::string made =
      json({"key", "create", "g", "k", "--state", "prelive", "--passphrase-file", passphrase});
  const std::string tag = jsonField(made, "tag");
  const std::string salt = jsonField(made, "KEY_SALT");
  ASSERT_EQ(tag.size(), 64u);
  ASSERT_NE(salt, "<absent>");
  refused({"key", "get", tag}, 1242);
  json({"key", "update", "g", "k", "--state", "active"});
  const std::string key = jsonField(json({"key", "get", tag}), "key");
  EXPECT_EQ(key.size(), 32u);  // 16 bytes for AES128
  refused({"key", "get", "00" + tag.substr(2)}, 1260);
  // Gone and brought back from its tag, salt and passphrase: the same key.
  for (const char* state : {"inactive", "deprecated", "terminated"}) {
    json({"key", "update", "g", "k", "--state", state});
  }
  ok({"key", "delete", "g", "k"});
  refused({"key", "get", tag}, 1260);
  EXPECT_EQ(
      m_service.ctl({"key", "recover", "g", "k", "--tag", "ABC", "--passphrase-file", passphrase})
          .exitStatus,
      2);  // not hexadecimal: the client does not send it
  const std::string recovered = json(
      {"key", "recover", "g", "k", "--tag", tag, "--salt", salt, "--passphrase-file", passphrase});
  expectFields(recovered, {{"tag", tag}, {"state", "KEY_INACTIVE"}});
  EXPECT_EQ(jsonField(json({"key", "get", tag}), "key"), key);
  // KAD: unique, then shared with a key whose tag begins the same way.
  const std::string kadHex = tag.substr(0, 24);
  expectFields(json({"kad", "get", tag, "12"}),
               {{"result", "1"}, {"unique", "true"}, {"kad", kadHex}, {"key", key}});
  const std::string twinTag = kadHex + std::string(40, '7');
  json({"key", "recover", "g", "twin", "--tag", twinTag, "--passphrase-file", passphrase});
  expectFields(json({"kad", "get", tag, "12"}), {{"result", "2"}, {"unique", "false"}});
  EXPECT_EQ(jsonField(json({"kad", "get", tag, "32"}), "result"), "1");

  const std::string both = json({"kad", "find", kadHex});
  EXPECT_TRUE(jsonField(both, "result") == "3" && countOf(both, "\"key\":") == 2 &&
              contains(both, "\"key\":\"" + key + "\""))
      << both;
  // A key that cannot be used is left out, and the answer says so.
  json({"key", "update", "g", "twin", "--state", "deprecated"});
  const std::string one = json({"kad", "find", kadHex});
  expectFields(one, {{"result", "4"}, {"complete", "false"}});
  EXPECT_EQ(countOf(one, "\"tag\":"), 1u) << one;
  EXPECT_TRUE(contains(ok({"kad", "find", kadHex}), "(keys that cannot be used were left out)"));

  refused({"kad", "get", tag, "11"}, 1220);
  refused({"kad", "find", kadHex.substr(0, 22)}, 1220);
  refused({"kad", "find", std::string(24, 'f')}, 1261);
  refused({"kad", "get", "not hex", "12"}, 1215);
}

TEST_F(VrkmsCtl, QuiesceRefusesChangesAndStillServesReads) {
  json({"group", "create", "g", "--cipher", "AES192"});
  const std::string tag = jsonField(json({"key", "create", "g", "k"}), "tag");

  EXPECT_EQ(jsonField(json({"quiesce"}), "quiesceCount"), "1");
  EXPECT_EQ(ok({"quiesce"}), "quiesced:    2\n");
  refused({"group", "create", "h", "--cipher", "AES128"}, 1279);
  refused({"key", "create", "g", "k2"}, 1279);
  refused({"key", "update", "g", "k", "--description", "x"}, 1279);
  refused({"group", "delete", "g", "--force"}, 1279);
  refused({"rotate-hmk", "--id", "hmk-2"}, 1279);
  // Reads go on.
  EXPECT_EQ(jsonField(json({"key", "get", tag}), "key").size(), 48u);
  EXPECT_EQ(jsonField(json({"group", "show", "g"}), "numKeys"), "1");
  EXPECT_EQ(jsonField(json({"kad", "get", tag, "16"}), "result"), "1");
  EXPECT_EQ(jsonField(json({"unquiesce", "--force"}), "quiesceCount"), "0");  // not 1
  refused({"unquiesce"}, 1280);
  const ProcessResult asJson = m_service.ctl({"--json", "unquiesce"});
  EXPECT_EQ(asJson.exitStatus, 1);
  EXPECT_EQ(asJson.out, "{\"error\":1280,\"message\":\"The key store is not quiesced.\"}\n");
  json({"group", "create", "h", "--cipher", "AES128"});
}

TEST_F(VrkmsCtl, TerminateEndsTheServiceAndARestartServesTheSameData) {
  json({"group", "create", "g", "--cipher", "AES256"});
  const std::string tag = jsonField(json({"key", "create", "g", "k"}), "tag");
  const std::string key = jsonField(json({"key", "get", tag}), "key");
  const std::string passphrase = m_service.writePrivate("hmk.txt", "new hmk passphrase");
  EXPECT_EQ(ok({"rotate-hmk", "--id", "hmk-2", "--passphrase-file", passphrase}),
            "HMK changed; its id is hmk-2\n");
  // No file and no terminal: a random key.
  EXPECT_EQ(ok({"--json", "rotate-kpk", "--id", "kpk-2"}), "{\"ok\":true}\n");
  EXPECT_EQ(jsonField(json({"key", "get", tag}), "key"), key);

  EXPECT_EQ(m_service.terminate(), std::make_pair(0, 0)) << m_service.debugLog();
  const ProcessResult down = m_service.ctl({"status"});
  EXPECT_EQ(down.exitStatus, 3);
  EXPECT_EQ(down.err, "error TRANSIENT: cannot reach the service at corbaloc:omniunix:" +
                          m_service.root().file("var/vrkms/local/vrkms.sock") + ":/KMS.KMSMgr\n");

  ASSERT_TRUE(m_service.start()) << m_service.readFile("stderr.txt");
  expectFields(json({"status"}), {{"hmkId", "hmk-2"}, {"kpkId", "kpk-2"}, {"numKeys", "1"}});
  EXPECT_EQ(jsonField(json({"--endpoint", m_service.reference(), "key", "get", tag}), "key"), key);
}

}  // namespace
