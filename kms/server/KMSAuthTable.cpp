#include "kms/server/KMSAuthTable.h"

#include <sstream>
#include <vector>

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

constexpr int kObjectType = 22;
constexpr int kEnd = 0;
constexpr int kAnd = 1;
constexpr int kOr = 2;

const int kRight1 = 1;
const int kRight2 = 2;
const int kRight3 = 3;
const int kRight28 = 28;
const int kRight40 = 40;

}  // namespace

#define KMS_MGR "Ardentis/Vaultrest/DL/KMS/KMSMgr_"
#define KMS_QUERY "Ardentis/Vaultrest/DL/KMSFacetsV1/KMSQueryableFacet_"
#define KMS_MODIFY "Ardentis/Vaultrest/DL/KMSFacetsV1/KMSModifiableFacet_"
#define KMS_CONTROL "Ardentis/Vaultrest/DL/KMSFacetsV1/KMSControlFacet_"

const ::Ardentis::Vaultrest::TL::Framework::authorization_entry_s KMSAuthTable[] = {
    {KMS_MGR "getQueryableFacet", kObjectType, 1, &kRight28, kOr},
    {KMS_MGR "getQueryableFacet", kObjectType, 1, &kRight3, kOr},
    {KMS_MGR "getQueryableFacet", kObjectType, 1, &kRight1, kEnd},
    {KMS_MGR "getModifiableFacet", kObjectType, 1, &kRight2, kOr},
    {KMS_MGR "getModifiableFacet", kObjectType, 1, &kRight40, kOr},
    {KMS_MGR "getModifiableFacet", kObjectType, 1, &kRight3, kEnd},
    {KMS_MGR "getControlFacet", kObjectType, 1, &kRight28, kOr},
    {KMS_MGR "getControlFacet", kObjectType, 1, &kRight1, kOr},
    {KMS_MGR "getControlFacet", kObjectType, 1, &kRight40, kEnd},
    {KMS_QUERY "getKeyStoreStats", kObjectType, 1, &kRight28, kOr},
    {KMS_QUERY "getKeyStoreStats", kObjectType, 1, &kRight1, kEnd},
    {KMS_QUERY "getKeyRecordByName", kObjectType, 1, &kRight1, kEnd},
    {KMS_QUERY "getKeyGroupRecordByName", kObjectType, 1, &kRight1, kEnd},
    {KMS_QUERY "getAllKeyGroupRecords", kObjectType, 1, &kRight28, kOr},
    {KMS_QUERY "getAllKeyGroupRecords", kObjectType, 1, &kRight1, kEnd},
    {KMS_QUERY "getKeyRecord", kObjectType, 1, &kRight1, kEnd},
    {KMS_QUERY "getKeyGroupRecord", kObjectType, 1, &kRight1, kEnd},
    {KMS_QUERY "getActiveKeyRecord", kObjectType, 1, &kRight1, kEnd},
    {KMS_QUERY "getAllKeyRecordsInGroup", kObjectType, 1, &kRight28, kOr},
    {KMS_QUERY "getAllKeyRecordsInGroup", kObjectType, 1, &kRight1, kEnd},
    {KMS_QUERY "exportKS", kObjectType, 1, &kRight1, kAnd},
    {KMS_QUERY "exportKS", kObjectType, 1, &kRight3, kEnd},
    {KMS_MODIFY "createKeyGroup", kObjectType, 1, &kRight2, kEnd},
    {KMS_MODIFY "createKey", kObjectType, 1, &kRight2, kEnd},
    {KMS_MODIFY "recoverKey", kObjectType, 1, &kRight2, kEnd},
    {KMS_MODIFY "updateKey", kObjectType, 1, &kRight40, kEnd},
    {KMS_MODIFY "updateKeyGroup", kObjectType, 1, &kRight40, kEnd},
    {KMS_MODIFY "getNewKeyGroup", kObjectType, 1, &kRight2, kEnd},
    {KMS_MODIFY "getNewKey", kObjectType, 1, &kRight2, kEnd},
    {KMS_MODIFY "deleteKeyGroup", kObjectType, 1, &kRight3, kEnd},
    {KMS_MODIFY "deleteKey", kObjectType, 1, &kRight3, kEnd},
    {KMS_MODIFY "importKS", kObjectType, 1, &kRight2, kEnd},
    {KMS_CONTROL "updateHMK", kObjectType, 1, &kRight40, kEnd},
    {KMS_CONTROL "updateKPK", kObjectType, 1, &kRight40, kEnd},
    {KMS_CONTROL "getHMKId", kObjectType, 1, &kRight1, kEnd},
    {KMS_CONTROL "getKPKId", kObjectType, 1, &kRight1, kEnd},
    {KMS_CONTROL "quiesce", kObjectType, 1, &kRight40, kEnd},
    {KMS_CONTROL "unquiesce", kObjectType, 1, &kRight40, kEnd},
    {KMS_CONTROL "isQuiesced", kObjectType, 1, &kRight28, kOr},
    {KMS_CONTROL "isQuiesced", kObjectType, 1, &kRight1, kEnd},
    {"", 0, 0, nullptr, kEnd},
};

const size_t KMSAuthTableRows = sizeof KMSAuthTable / sizeof KMSAuthTable[0] - 1;

std::string KMSRightsTable() {
  namespace Fw = ::Ardentis::Vaultrest::TL::Framework;
  const Fw::AuthorizationTable table(KMSAuthTable);
  std::vector<std::string> keys;
  for (const Fw::authorization_entry_s* row = KMSAuthTable; row->name[0] != '\0'; ++row) {
    if (keys.empty() || keys.back() != row->name) {
      keys.push_back(row->name);
    }
  }
  for (const char* keyValues : {KMS_MGR "getEximFacet", KMS_QUERY "getKey",
                                KMS_QUERY "getKeyAndKad", KMS_QUERY "getKeyRecordsByKad"}) {
    keys.push_back(keyValues);
  }
  std::ostringstream out;
  out << "| operation | rights it asks for |\n|---|---|\n";
  for (const std::string& key : keys) {
    // "Ardentis/Vaultrest/DL/KMSFacetsV1/KMSQueryableFacet_getKey" as
    // "KMSQueryableFacet.getKey".
    const std::string name = key.substr(key.rfind('/') + 1);
    const size_t cut = name.find('_');
    out << "| `" << name.substr(0, cut) << "." << name.substr(cut + 1) << "` | ";
    const std::vector<std::vector<int>> alternatives = table.alternatives(key);
    for (size_t a = 0; a < alternatives.size(); ++a) {
      out << (a == 0 ? "" : " or ");
      for (size_t r = 0; r < alternatives[a].size(); ++r) {
        out << (r == 0 ? "" : " and ") << alternatives[a][r];
      }
    }
    out << " |\n";
  }
  return out.str();
}

#undef KMS_MGR
#undef KMS_QUERY
#undef KMS_MODIFY
#undef KMS_CONTROL

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
