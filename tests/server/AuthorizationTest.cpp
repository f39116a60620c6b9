// The authorization table of the service and the framework's evaluation of
// it, without an ORB.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "kms/platform/VrConfReader.h"
#include "kms/platform/framework/AuthorizationTable.h"
#include "kms/platform/framework/PeerGrants.h"
#include "kms/platform/framework/RequestGuard.h"
#include "kms/server/KMSAuthTable.h"

using namespace Ardentis::Vaultrest::TL::Framework;
using Vaultrest::DL::KMS::KMSAuthTable;
using Vaultrest::DL::KMS::KMSAuthTableRows;

namespace {

const std::string kMgr = "Ardentis/Vaultrest/DL/KMS/KMSMgr_";
const std::string kQuery = "Ardentis/Vaultrest/DL/KMSFacetsV1/KMSQueryableFacet_";
const std::string kModify = "Ardentis/Vaultrest/DL/KMSFacetsV1/KMSModifiableFacet_";
const std::string kControl = "Ardentis/Vaultrest/DL/KMSFacetsV1/KMSControlFacet_";

PeerRights rights(std::set<int> held) {
  return PeerRights::of(std::move(held));
}

PeerGrants grantsOf(const std::string& conf) {
  VrConfReader reader;
  reader.parse(conf);
  return PeerGrants(reader, "VRKMS_GRANT");
}

}  // namespace

TEST(Authorization, ServiceTableJoinsRowsByOrAndAnd) {
  const AuthorizationTable table(KMSAuthTable);
  EXPECT_EQ(KMSAuthTableRows, 40u);
  EXPECT_EQ(table.rowCount(), 40u);
  for (const auto& row : {KMSAuthTable[0], KMSAuthTable[39]}) {
    EXPECT_EQ(row.objectType, 22);
    EXPECT_EQ(row.count, 1);
  }
  EXPECT_STREQ(KMSAuthTable[40].name, "");

  // 28 (2), 3 (2), 1: any one of them.
  for (int right : {28, 3, 1}) {
    EXPECT_TRUE(table.allows(kMgr + "getQueryableFacet", rights({right}))) << right;
  }
  EXPECT_FALSE(table.allows(kMgr + "getQueryableFacet", rights({2, 40})));
  // 1 (1), 3: both.
  EXPECT_FALSE(table.allows(kQuery + "exportKS", rights({1})));
  EXPECT_FALSE(table.allows(kQuery + "exportKS", rights({3})));
  EXPECT_TRUE(table.allows(kQuery + "exportKS", rights({1, 3})));
  EXPECT_EQ(table.alternatives(kQuery + "exportKS"), (std::vector<std::vector<int>>{{1, 3}}));
  EXPECT_EQ(table.alternatives(kMgr + "getModifiableFacet"),
            (std::vector<std::vector<int>>{{2}, {40}, {3}}));
  EXPECT_TRUE(table.allows(kModify + "deleteKey", rights({3})));
  EXPECT_FALSE(table.allows(kModify + "deleteKey", rights({2})));
  EXPECT_TRUE(table.allows(kControl + "updateHMK", rights({40})));
  EXPECT_FALSE(table.allows(kControl + "updateHMK", rights({1, 2, 3, 28})));

  // Operations with no row: any right will do, none will not.
  for (const std::string& key : {kMgr + "getEximFacet", kQuery + "getKey", kQuery + "getKeyAndKad",
                                 kQuery + "getKeyRecordsByKad"}) {
    EXPECT_FALSE(table.hasRows(key)) << key;
    EXPECT_TRUE(table.allows(key, rights({99}))) << key;
    EXPECT_FALSE(table.allows(key, PeerRights())) << key;
  }
  EXPECT_TRUE(table.allows(kControl + "quiesce", PeerRights::all()));
}

TEST(Authorization, MixedJoinsBindAndBeforeOr) {
  const int one = 1, two = 2, three = 3, four = 4;
  const authorization_entry_s table[] = {{"op", 22, 1, &one, 1},     {"op", 22, 1, &two, 2},
                                         {"op", 22, 1, &three, 1},   {"op", 22, 1, &four, 0},
                                         {"other", 22, 1, &four, 2},  // last row: join ignored
                                         {"", 0, 0, nullptr, 0}};
  const AuthorizationTable rules(table);
  EXPECT_EQ(rules.rowCount(), 5u);
  EXPECT_TRUE(rules.allows("op", rights({1, 2})));
  EXPECT_TRUE(rules.allows("op", rights({3, 4})));
  EXPECT_FALSE(rules.allows("op", rights({1, 3})));
  EXPECT_FALSE(rules.allows("op", rights({2, 4})));
  EXPECT_TRUE(rules.allows("other", rights({4})));
  EXPECT_FALSE(rules.allows("other", rights({1})));
}

TEST(Authorization, GrantsComeFromTheMasterConfiguration) {
  // No grant line: loopback holds everything, anyone else nothing.
  const PeerGrants none = grantsOf("SERVER = localhost\n");
  EXPECT_TRUE(none.rightsOf("127.0.0.1").holdsAll());
  EXPECT_TRUE(none.rightsOf("127.1.2.3").holdsAll());
  EXPECT_TRUE(none.rightsOf("::1").holdsAll());
  EXPECT_TRUE(none.rightsOf("::ffff:127.0.0.1").holdsAll());
  EXPECT_FALSE(none.rightsOf("192.0.2.1").holdsAny());
  EXPECT_FALSE(none.rightsOf("not an address").holdsAny());

  const PeerGrants some = grantsOf(
      "VRKMS_GRANT = 192.0.2.1 1, 3\n"
      "VRKMS_GRANT = * 28\n"
      "VRKMS_GRANT = localhost 40\n"
      "VRKMS_GRANT = 192.0.2.9 two\n");
  EXPECT_EQ(some.grants().size(), 3u);  // the last line cannot be read
  EXPECT_EQ(some.rightsOf("192.0.2.1").rights(), (std::set<int>{1, 3, 28}));
  EXPECT_EQ(some.rightsOf("::ffff:192.0.2.1").rights(), (std::set<int>{1, 3, 28}));
  EXPECT_EQ(some.rightsOf("192.0.2.9").rights(), (std::set<int>{28}));
  // With grant lines, loopback holds only what they give it.
  EXPECT_EQ(some.rightsOf("127.0.0.1").rights(), (std::set<int>{28, 40}));
  EXPECT_FALSE(some.rightsOf("127.0.0.1").holdsAll());

  // A configuration whose only line cannot be read grants nothing at all.
  EXPECT_FALSE(grantsOf("VRKMS_GRANT = *\n").rightsOf("127.0.0.1").holdsAny());
}

TEST(Authorization, PeerAddressesAndOperationKeys) {
  EXPECT_EQ(peerHostOf("giop:tcp:127.0.0.1:40123"), "127.0.0.1");
  EXPECT_EQ(peerHostOf("giop:tcp:[::1]:40123"), "::1");
  EXPECT_EQ(peerHostOf("giop:tcp:[::ffff:10.1.2.3]:5"), "10.1.2.3");
  EXPECT_EQ(peerHostOf("giop:unix:/tmp/socket"), "giop:unix:/tmp/socket");
  EXPECT_EQ(
      RequestGuard::operationKey("IDL:Ardentis/Vaultrest/DL/KMS/KMSMgr:1.0", "getQueryableFacet"),
      kMgr + "getQueryableFacet");
  EXPECT_EQ(RequestGuard::operationKey("IDL:Ardentis/Vaultrest/DL/KMSFacetsV1/KMSControlFacet:1.0",
                                       "quiesce"),
            kControl + "quiesce");
}
