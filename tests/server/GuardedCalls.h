// Every remote operation that the authorization table guards, with the
// rights each of its alternatives asks for all together, and a call of it
// on a service's facets; for tests that check who may call what.
#pragma once

#include <KMS.h>
#include <gtest/gtest.h>

#include "server/ServiceClient.h"

#include <functional>
#include <string>
#include <vector>

namespace GuardedCalls {

namespace Fw = ::Ardentis::Vaultrest::TL::Framework;
namespace Remote = ::Ardentis::Vaultrest::DL::KMS;
namespace Facets = ::Ardentis::Vaultrest::DL::KMSFacetsV1;

struct Guarded {
  const char* name;
  std::vector<std::vector<int>> alternatives;
  std::function<void()> call;
};

// The facets of `client` (the peer must hold the rights to fetch them, the
// key-value one included), the records of key `tag` and group `groupTag` as
// forms for the calls, and the key's KAD of 12 bytes. Throws what the ORB
// throws.
struct Facets3 {
  Facets3(KmsClient& client, const std::string& keyTag, const std::string& groupTagHex)
      : tag(keyTag),
        groupTag(groupTagHex),
        mgr(client.manager()),
        query(client.query()),
        modify(client.modify()),
        control(client.control()) {
    keyForm = query->getKeyRecord(tag.c_str());
    groupForm = query->getKeyGroupRecord(groupTag.c_str());
    Facets::KeyRecord_var record;
    query->getKeyAndKad(tag.c_str(), 12, record.out(), kad.out());
  }

  // The guarded operations, called on these facets (valid while they are);
  // what a call returns is let go at once.
  std::vector<Guarded> operations() {
    return {
        {"getQueryableFacet",
         {{28}, {3}, {1}},
         [this] { CORBA::release(mgr->getQueryableFacet()); }},
        {"getModifiableFacet",
         {{2}, {40}, {3}},
         [this] { CORBA::release(mgr->getModifiableFacet()); }},
        {"getControlFacet", {{28}, {1}, {40}}, [this] { CORBA::release(mgr->getControlFacet()); }},
        {"getKeyStoreStats", {{28}, {1}}, [this] { query->getKeyStoreStats(); }},
        {"getKeyRecordByName", {{1}}, [this] { delete query->getKeyRecordByName("g", "k"); }},
        {"getKeyGroupRecordByName", {{1}}, [this] { delete query->getKeyGroupRecordByName("g"); }},
        {"getAllKeyGroupRecords", {{28}, {1}}, [this] { delete query->getAllKeyGroupRecords(); }},
        {"getKeyRecord", {{1}}, [this] { delete query->getKeyRecord(tag.c_str()); }},
        {"getKeyGroupRecord", {{1}}, [this] { delete query->getKeyGroupRecord(groupTag.c_str()); }},
        {"getActiveKeyRecord",
         {{1}},
         [this] { delete query->getActiveKeyRecord(groupTag.c_str()); }},
        {"getAllKeyRecordsInGroup",
         {{28}, {1}},
         [this] { delete query->getAllKeyRecordsInGroup(groupTag.c_str()); }},
        {"exportKS",
         {{1, 3}},
         [this] {
           Fw::octetSeq_var data;
           delete query->exportKS(Facets::ExportKeyListSeq(), "pass", data.out());
         }},
        {"createKeyGroup", {{2}}, [this] { delete modify->createKeyGroup(groupForm.in()); }},
        {"createKey", {{2}}, [this] { delete modify->createKey("", keyForm.in()); }},
        {"recoverKey", {{2}}, [this] { delete modify->recoverKey("", keyForm.in()); }},
        {"updateKey", {{40}}, [this] { delete modify->updateKey(keyForm.in()); }},
        {"updateKeyGroup", {{40}}, [this] { delete modify->updateKeyGroup(groupForm.in()); }},
        {"getNewKeyGroup", {{2}}, [this] { delete modify->getNewKeyGroup(); }},
        {"getNewKey", {{2}}, [this] { delete modify->getNewKey(); }},
        {"deleteKeyGroup", {{3}}, [this] { modify->deleteKeyGroup(nowhere.c_str(), false); }},
        {"deleteKey", {{3}}, [this] { modify->deleteKey(nowhere.c_str()); }},
        {"importKS",
         {{2}},
         [this] { delete modify->importKS(Fw::octetSeq(), "pass", true, true, ""); }},
        {"updateHMK", {{40}}, [this] { control->updateHMK("", "hmk-2"); }},
        {"updateKPK", {{40}}, [this] { control->updateKPK("", "kpk-2"); }},
        {"getHMKId", {{1}}, [this] { CORBA::string_free(control->getHMKId()); }},
        {"getKPKId", {{1}}, [this] { CORBA::string_free(control->getKPKId()); }},
        {"quiesce", {{40}}, [this] { control->quiesce(); }},
        {"unquiesce", {{40}}, [this] { control->unquiesce(true); }},
        {"isQuiesced", {{28}, {1}}, [this] { control->isQuiesced(); }},
        {"getKey", {{4}}, [this] { delete query->getKey(tag.c_str()); }},
        {"getKeyAndKad",
         {{4}},
         [this] {
           Facets::KeyRecord_var r;
           Fw::octetSeq_var k;
           EXPECT_EQ(query->getKeyAndKad(tag.c_str(), 12, r.out(), k.out()), 1);
           EXPECT_EQ(r->encKey.length(), 32u);
         }},
        {"getKeyRecordsByKad",
         {{4}},
         [this] {
           Facets::KeyRecordSeq_var found;
           EXPECT_EQ(query->getKeyRecordsByKad(kad.in(), found.out()), 3);
         }},
        {"getEximFacet", {{4}}, [this] { CORBA::release(mgr->getEximFacet()); }},
    };
  }

  std::string tag;
  std::string groupTag;
  std::string nowhere = std::string(64, '0');
  Remote::KMSMgr_ptr mgr;  // borrowed from the client
  Facets::KMSQueryableFacet_ptr query;
  Facets::KMSModifiableFacet_ptr modify;
  Facets::KMSControlFacet_ptr control;
  Facets::KeyRecord_var keyForm;
  Facets::KeyGroupRecord_var groupForm;
  Fw::octetSeq_var kad;
};

}  // namespace GuardedCalls
