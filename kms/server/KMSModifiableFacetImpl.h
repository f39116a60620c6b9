// The servant of KMSFacetsV1::KMSModifiableFacet: creating, changing and
// deleting keys and key groups. Records arrive through RecordConvertor (tags
// as lower-case hexadecimal, times as wire ticks, long names cut); the store
// checks and commits each change before it answers, and a failure reaches the
// client as ServiceException with the store's status (FacetCall.h).
//
// Records that go back carry no key material. Holds no state but the
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

class KMSModifiableFacetImpl
    : public virtual POA_Ardentis::Vaultrest::DL::KMSFacetsV1::KMSModifiableFacet {
 public:
  // `store` is borrowed and must outlive the servant.
  explicit KMSModifiableFacetImpl(::Vaultrest::DL::KMS::FileKeyStore* store);
  KMSModifiableFacetImpl(const KMSModifiableFacetImpl&) = delete;
  KMSModifiableFacetImpl& operator=(const KMSModifiableFacetImpl&) = delete;

  // The tag of a new group is always the store's own.
  KMSFacetsV1::KeyGroupRecord* createKeyGroup(const KMSFacetsV1::KeyGroupRecord& record) override;
  // `record` must carry the stored times and revision (optimistic lock).
  KMSFacetsV1::KeyGroupRecord* updateKeyGroup(const KMSFacetsV1::KeyGroupRecord& record) override;
  void deleteKeyGroup(const char* tag, CORBA::Boolean force) override;
  // An empty passphrase makes a random key; the key itself never goes back.
  KMSFacetsV1::KeyRecord* createKey(const char* passphrase,
                                    const KMSFacetsV1::KeyRecord& record) override;
  // `record` must carry the stored times and revision; a new active key
  // demotes the group's old one.
  KMSFacetsV1::KeyRecord* updateKey(const KMSFacetsV1::KeyRecord& record) override;
  void deleteKey(const char* tag) override;
  // Brings back a key known by its tag and passphrase (and its "KEY_SALT"
  // attribute, when it had one). A record without a readable tag is 1215.
  KMSFacetsV1::KeyRecord* recoverKey(const char* passphrase,
                                     const KMSFacetsV1::KeyRecord& record) override;
  // Blank records for a client to fill in; the store is not touched.
  KMSFacetsV1::KeyRecord* getNewKey() override;
  KMSFacetsV1::KeyGroupRecord* getNewKeyGroup() override;

  // Merges the groups and keys of an export buffer into the store, or with
  // `previewOnly` only reports what that would do. Every outcome, a refusal
  // included, is the returned status: its code and the messages of each
  // decision. Parses without a lock, then takes the write lock; not refused
  // while quiesced.
  //
  // Nothing is caught here: the one error the store raises instead of
  // reporting, 1202 for a store that is not initialized, ends the process
  // (std::terminate) rather than reaching the client.
  KMSFacetsV1::KSOpStatus* importKS(const TL::Framework::octetSeq& data, const char* passphrase,
                                    CORBA::Boolean preserveNames, CORBA::Boolean previewOnly,
                                    const char* description) noexcept override;

  // Runs a request through RemoteDispatch: the passphrases of createKey,
  // recoverKey and importKS are wiped in the ORB's copy once read.
  CORBA::Boolean _dispatch(omniCallHandle& handle) override;

 private:
  ::Vaultrest::DL::KMS::FileKeyStore* m_keyStore;  // borrowed
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
}  // namespace Ardentis
