// The servant of KMSFacetsV1::KMSControlFacet: the master key ids, master
// key changes and the quiesced state. Each operation is a thin passage into
// the store, which takes its own locks; a store failure reaches the client
// as ServiceException with the store's status (FacetCall.h).
//
// Holds no state but the store pointer, which it borrows from KMSMgrImpl:
// the store outlives every servant. ORB threads enter at once.
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

class KMSControlFacetImpl
    : public virtual POA_Ardentis::Vaultrest::DL::KMSFacetsV1::KMSControlFacet {
 public:
  // `store` is borrowed and must outlive the servant.
  explicit KMSControlFacetImpl(::Vaultrest::DL::KMS::FileKeyStore* store);
  KMSControlFacetImpl(const KMSControlFacetImpl&) = delete;
  KMSControlFacetImpl& operator=(const KMSControlFacetImpl&) = delete;

  // The ids of the live master keys.
  char* getHMKId() override;
  char* getKPKId() override;
  // Change a master key and commit; an empty passphrase makes a random key.
  // A failed status is raised like any store error.
  void updateHMK(const char* passphrase, const char* id) override;
  void updateKPK(const char* passphrase, const char* id) override;
  // The quiesce count after the call (changes are refused while above 0).
  CORBA::Long quiesce() override;
  CORBA::Long unquiesce(CORBA::Boolean force) override;
  CORBA::Long isQuiesced() override;

  // Runs a request through RemoteDispatch: the passphrases of updateHMK and
  // updateKPK are wiped in the ORB's copy once read.
  CORBA::Boolean _dispatch(omniCallHandle& handle) override;

 private:
  ::Vaultrest::DL::KMS::FileKeyStore* m_keyStore;  // borrowed
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
}  // namespace Ardentis
