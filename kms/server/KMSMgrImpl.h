// The servant of KMS::KMSMgr, advertised as "KMS.KMSMgr", and the owner of
// everything a running service has: the store, the three facet servants
// and their references. Driven through ServiceLifecycleManageable by
// KMSMgrService on the framework's control thread.
//
// States: constructed; initialised (store object made, value factories and
// authorization table registered); active (store live, servants activated
// and advertised). resume makes it active, suspend takes it back; the store
// stays live until the destructor shuts it down (nothing is written).
//
// The facet getters run on ORB threads at once; they only read fields that
// do not change while the manager is active. There is no lock here.
#pragma once

#include <KMS.h>

#include <memory>

#include "kms/platform/framework/Orb.h"
#include "kms/platform/framework/ServiceLifecycleManageable.h"

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

class KMSQueryableFacetImpl;
class KMSModifiableFacetImpl;
class KMSControlFacetImpl;

class KMSMgrImpl : public virtual POA_Ardentis::Vaultrest::DL::KMS::KMSMgr,
                   public TL::Framework::ServiceLifecycleManageable {
 public:
  // "KMS.KMSMgr": the id under which the manager is advertised.
  static const char* Name();

  KMSMgrImpl();
  // Deletes the facets, shuts the store down (a failure is only logged),
  // deletes it and releases the references. Call only once the ORB has
  // stopped serving this object.
  ~KMSMgrImpl() override;
  KMSMgrImpl(const KMSMgrImpl&) = delete;
  KMSMgrImpl& operator=(const KMSMgrImpl&) = delete;

  // ---- KMS::KMSMgr (ORB threads). Each logs the peer's version. ----
  // The kept reference narrowed to the base interface; nil while inactive.
  QueryableFacet_ptr getQueryableFacet() override;
  ModifiableFacet_ptr getModifiableFacet() override;
  ControlFacet_ptr getControlFacet() override;
  // Always raises ServiceException with code 1200: there is no such facet.
  EximFacet_ptr getEximFacet() override;

  // ---- ServiceLifecycleManageable (control thread): 0 or -1 ----
  // Makes the store object, registers the value factories and the
  // authorization table, then resume(). Failures are logged (messages 34 to
  // 37) and give -1; only an exception of the ORB leaves this call.
  int init(int argc, char** argv) override;
  // suspend(); 0.
  int fini() override;
  // OrbService::Instance()'s ORB, or null.
  TL::Framework::Orb* getOrb() override;
  // Nothing to do when active or without an ORB (0). Otherwise initialises
  // the store (a failure logs message 38 and gives -1), activates the
  // facets and then the manager, advertises the manager and becomes active.
  int resume() override;
  // When active: destroys the references (manager first, then control,
  // modifying and query facets) and becomes inactive. Always 0.
  int suspend() override;

  // The version the peer of the current request sent, or -1, -1, -1.
  void getPeerVRVersion(int& major, int& minor, int& patch);

  bool isActive() const { return m_active; }

 private:
  bool m_active;
  CORBA::Object_var m_mgrRef;
  // Each servant is held by one reference of its own beside the POA's.
  PortableServer::Servant_var<KMSQueryableFacetImpl> m_queryFacet;
  CORBA::Object_var m_queryRef;
  PortableServer::Servant_var<KMSModifiableFacetImpl> m_modifyFacet;
  CORBA::Object_var m_modifyRef;
  PortableServer::Servant_var<KMSControlFacetImpl> m_controlFacet;
  CORBA::Object_var m_controlRef;
  std::unique_ptr<::Vaultrest::DL::KMS::FileKeyStore> m_keyStore;  // lent to the facets
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
}  // namespace Ardentis
