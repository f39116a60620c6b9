// The servant of KMSFacetsV1::KMSQueryableFacet: lookups, statistics and the
// KAD calls. Tags arrive as lower-case hexadecimal; one that is not becomes
// the empty tag, which the store does not find. Only getKeyAndKad refuses an
// unreadable tag itself (1215). A store failure reaches the client as
// ServiceException with the store's status (FacetCall.h).
//
// Plain key material leaves only through getKey, getKeyAndKad and
// getKeyRecordsByKad, as the store hands it out. Holds no state but the
// borrowed store pointer; ORB threads enter at once.
#pragma once

#include <KMS.h>

namespace Vaultrest {
namespace DL {
namespace KMS {
class FileKeyStore;
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest

namespace Ardentis {
namespace Vaultrest {
namespace DL {
namespace KMS {

class KMSQueryableFacetImpl
    : public virtual POA_Ardentis::Vaultrest::DL::KMSFacetsV1::KMSQueryableFacet {
 public:
  // `store` is borrowed and must outlive the servant.
  explicit KMSQueryableFacetImpl(::Vaultrest::DL::KMS::FileKeyStore* store);
  KMSQueryableFacetImpl(const KMSQueryableFacetImpl&) = delete;
  KMSQueryableFacetImpl& operator=(const KMSQueryableFacetImpl&) = delete;

  // Records without their key.
  KMSFacetsV1::KeyRecord* getKeyRecord(const char* tag) override;
  // `groupTag` is the hexadecimal tag of the group; `keyName` a name.
  KMSFacetsV1::KeyRecord* getKeyRecordByName(const char* groupTag, const char* keyName) override;
  // The record with its plain key (active and inactive keys only).
  KMSFacetsV1::KeyRecord* getKey(const char* tag) override;
  KMSFacetsV1::KeyRecord* getActiveKeyRecord(const char* groupTag) override;
  KMSFacetsV1::KeyGroupRecord* getKeyGroupRecord(const char* tag) override;
  KMSFacetsV1::KeyGroupRecord* getKeyGroupRecordByName(const char* name) override;
  KMSFacetsV1::KeyGroupRecordSeq* getAllKeyGroupRecords() override;
  KMSFacetsV1::KeyRecordSeq* getAllKeyRecordsInGroup(const char* groupTag) override;
  KMSFacetsV1::KeyStoreStats getKeyStoreStats() override;

  // The key of `tag` with its plain key and a KAD of `kadLength` bytes (a
  // tag shorter than that is padded with '0'). Returns 1 when the KAD finds
  // only this key, 2 when others share it. An unreadable tag is 1215; a
  // length outside 0..4096 is 1214; other failures are the store's (1220 for
  // a KAD under 12 bytes, 1260 for an unknown key).
  CORBA::Long getKeyAndKad(const char* tag, CORBA::Long kadLength,
                           KMSFacetsV1::KeyRecord_out record,
                           TL::Framework::octetSeq_out kad) override;
  // The usable keys (with their plain keys) whose tags begin with `kad`.
  // Returns 3 when every match is usable, 4 when some were left out.
  CORBA::Long getKeyRecordsByKad(const TL::Framework::octetSeq& kad,
                                 KMSFacetsV1::KeyRecordSeq_out records) override;

  // The groups and keys of `keyList` (pairs of group name and key name: "*"
  // for all the group's keys, "" for the group alone; an empty list for the
  // whole store) sealed under `passphrase` into `data`. A refusal is a normal
  // result: its code and messages are in the returned status and `data` is
  // empty. Only a store that is not initialized (1202) raises
  // ServiceException, and stops the service. Takes the store's read lock,
  // also while quiesced.
  KMSFacetsV1::KSOpStatus* exportKS(const KMSFacetsV1::ExportKeyListSeq& keyList,
                                    const char* passphrase,
                                    TL::Framework::octetSeq_out data) override;

  // Runs a request through RemoteDispatch: the plain keys of a reply are
  // wiped once it is sent, and the passphrase of exportKS once read.
  CORBA::Boolean _dispatch(omniCallHandle& handle) override;

 private:
  ::Vaultrest::DL::KMS::FileKeyStore* m_keyStore;  // borrowed
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
}  // namespace Ardentis
