// The framework's evaluation of authorization tables and grants, and the
// service's peer rule, without an ORB.
#include <gtest/gtest.h>
#include <unistd.h>

#include <list>
#include <set>
#include <string>
#include <tuple>

#include "kms/platform/VrConfReader.h"
#include "kms/platform/framework/AuthorizationTable.h"
#include "kms/platform/framework/PeerGrants.h"
#include "kms/platform/framework/PeerIdentity.h"
#include "kms/server/KMSAuthTable.h"
#include "kms/server/KMSServiceContainer.h"
#include "support/PlatformTestRoot.h"

using namespace Ardentis::Vaultrest::TL::Framework;
using Vaultrest::DL::KMS::KMSRightsTable;
using Vaultrest::DL::KMS::KMSServiceContainer;

namespace {

bool grantsOf(const std::string& conf, PeerGrants* grants, std::string* error) {
  VrConfReader reader;
  reader.parse(conf);
  return PeerGrants::read(reader, "VRKMS_GRANT", grants, error);
}

}  // namespace

// A table's "and" binds before its "or"; the README shows the service's table.
TEST(Authorization, MixedJoinsBindAndBeforeOrAndTheReadmeShowsTheTable) {
  const int one = 1, two = 2, three = 3, four = 4;
  const authorization_entry_s table[] = {{"op", 22, 1, &one, 1},     {"op", 22, 1, &two, 2},
                                         {"op", 22, 1, &three, 1},   {"op", 22, 1, &four, 0},
                                         {"other", 22, 1, &four, 2},  // last row: join ignored
                                         {"", 0, 0, nullptr, 0}};
  const AuthorizationTable rules(table);
  EXPECT_EQ(rules.rowCount(), 5u);
  EXPECT_TRUE(rules.allows("op", PeerRights::of({1, 2})));
  EXPECT_TRUE(rules.allows("op", PeerRights::of({3, 4})));
  EXPECT_FALSE(rules.allows("op", PeerRights::of({1, 3})));
  EXPECT_FALSE(rules.allows("op", PeerRights::of({2, 4})));
  EXPECT_TRUE(rules.allows("other", PeerRights::of({4})));
  EXPECT_FALSE(rules.allows("other", PeerRights::of({1})));
  const std::string readme = readFile(std::string(VRKMS_SOURCE_DIR) + "/README.md");
  const std::string begin = "<!-- rights table: vrkms-rights-table -->\n";
  const size_t from = readme.find(begin), to = readme.find("<!-- end of rights table -->");
  ASSERT_TRUE(from != std::string::npos && to != std::string::npos && from < to);
  EXPECT_EQ(readme.substr(from + begin.size(), to - from - begin.size()), KMSRightsTable())
      << "paste the output of vrkms-rights-table into README.md";
}

TEST(Authorization, GrantsNameEachKindOfPeerByItsEndpoint) {
  PeerGrants grants;
  std::string error;
  ASSERT_TRUE(
      grantsOf("VRKMS_GRANT = 192.0.2.1 1, 3\nVRKMS_GRANT = * 28\nVRKMS_GRANT = uid:4242 40\n"
               "VRKMS_GRANT = uid:root 2\nVRKMS_GRANT = cert:CN=media01 1,2\n",
               &grants, &error))
      << error;
  const std::tuple<PeerTransport, const char*, std::set<int>> rows[] = {
      // {-1}: every right
      {PeerTransport::kTcp, "192.0.2.1", {1, 3, 28}},
      {PeerTransport::kTcp, "127.0.0.1", {28}},  // loopback is an address like any other
      {PeerTransport::kTcp, "", {}},
      {PeerTransport::kLocal, "uid:4242", {40}},
      {PeerTransport::kLocal, "uid:4243", {}},
      {PeerTransport::kLocal, "uid:0", {-1}},
      {PeerTransport::kLocal, "uid:1234", {-1}},  // the service's own user
      {PeerTransport::kTls, "cert:CN=media01", {1, 2}},
      {PeerTransport::kTls, "cert:CN=media02", {}},
      {PeerTransport::kTls, "", {}},
      {PeerTransport::kTls, "192.0.2.1", {}},  // names of one kind give no other kind rights
      {PeerTransport::kNone, "uid:0", {}},
  };
  for (const auto& [transport, name, rights] : rows) {
    const PeerRights held = grants.rightsOf({transport, name}, 1234);
    EXPECT_EQ(held.holdsAll(), rights == std::set<int>{-1}) << name;
    EXPECT_TRUE(held.holdsAll() || held.rights() == rights) << name;
  }
  // A line that cannot be read is named, and no grant is read at all.
  for (const char* bad : {"*", "127.0.0.1 none", "localhost 1", "uid:no-such-user-here 1", "uid: 1",
                          "cert: 1", "tls:CN=a 1", "10.0.0.1 1,x"}) {
    grants = PeerGrants({{PeerTransport::kTcp, "*", {5}}});
    EXPECT_FALSE(grantsOf(std::string("VRKMS_GRANT = ") + bad + "\n", &grants, &error)) << bad;
    EXPECT_NE(error.find(std::string("\"VRKMS_GRANT = ") + bad + "\""), std::string::npos) << error;
    EXPECT_EQ(grants.grants().size(), 1u) << bad;
  }
  // The peer's name and transport from its endpoint.
  const std::tuple<const char*, const char*, PeerTransport> endpoints[] = {
      {"giop:tcp:127.0.0.1:40123", "127.0.0.1", PeerTransport::kTcp},
      {"giop:tcp:[::1]:40123", "::1", PeerTransport::kTcp},
      {"giop:tcp:[::ffff:10.1.2.3]:5", "10.1.2.3", PeerTransport::kTcp},
      {"giop:unix:/tmp/socket", "giop:unix:/tmp/socket", PeerTransport::kLocal},
      {"giop:ssl:10.0.0.1:5", "10.0.0.1", PeerTransport::kTls},
      {"giop:sctp:10.0.0.1:5", nullptr, PeerTransport::kNone}};
  for (const auto& [endpoint, host, transport] : endpoints) {
    EXPECT_TRUE(host == nullptr || peerHostOf(endpoint) == host) << endpoint;
    EXPECT_EQ(transportOf(endpoint), transport) << endpoint;
  }
}

TEST(ServiceContainer, EveryPeerPassesUnlessMediaServersAreBlocked) {
  PlatformTestRoot root;
  KMSServiceContainer container{
      false, "vrkms", 286, std::list<std::string>{}, 10, ServiceContainerOptions{0}, ""};
  const std::tuple<const char*, const char*, int> rows[] = {
      {"SERVER = 192.0.2.1\n", "192.0.2.7", 1},
      {"SERVER = 192.0.2.1\nVRKMS_BLOCK_MEDIA = NO\n", "192.0.2.7", 1},
      {"SERVER = 192.0.2.1\nVRKMS_BLOCK_MEDIA = maybe\n", "192.0.2.7", 1},
      // Blocked: only a local master server passes.
      {"SERVER = localhost\nVRKMS_BLOCK_MEDIA = YES\n", "127.0.0.1", 1},
      {"SERVER = localhost\nVRKMS_BLOCK_MEDIA = YES\n", "192.0.2.7", 0},
      {"SERVER = localhost\nVRKMS_BLOCK_MEDIA = YES\n", nullptr, 0},
  };
  for (const auto& [conf, peer, passes] : rows) {
    root.writeConf(conf);
    EXPECT_EQ(container.extraServiceLevelValidation(peer), passes) << conf;
  }
  // An unreadable master configuration lets everyone in.
  ASSERT_EQ(::unlink(root.confPath().c_str()), 0);
  EXPECT_EQ(container.extraServiceLevelValidation("192.0.2.7"), 1);
}
