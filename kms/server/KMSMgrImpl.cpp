#include "kms/server/KMSMgrImpl.h"

#include <memory>

#include "kms/platform/CrvnLis.h"
#include "kms/platform/framework/FrameworkRegistrar.h"
#include "kms/platform/framework/OrbService.h"
#include "kms/platform/framework/ServiceContainer.h"
#include "kms/server/KMSAuthTable.h"
#include "kms/server/KMSControlFacetImpl.h"
#include "kms/server/KMSModifiableFacetImpl.h"
#include "kms/server/KMSQueryableFacetImpl.h"
#include "kms/server/KMSServiceExceptionHelper.h"
#include "kms/server/diagnostics/KeyStoreError.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/files/KMSFileLocator.h"
#include "kms/server/keystore/store/FileKeyStore.h"

namespace Ardentis {
namespace Vaultrest {
namespace DL {
namespace KMS {

namespace Store = ::Vaultrest::DL::KMS;
using Store::logAppMessage;

namespace {

constexpr int kMsgServiceNotStarted = 34;
constexpr int kMsgValueTypesNotRegistered = 35;
constexpr int kMsgNoOrbService = 36;
constexpr int kMsgStoreNotCreated = 37;
constexpr int kMsgStoreNotOpened = 38;

// Makes a servant over the store, activates it and keeps both. A servant
// left from an earlier activation is let go.
template <typename Servant>
void activateFacet(TL::Framework::Orb& orb, Store::FileKeyStore* store,
                   PortableServer::Servant_var<Servant>& servant, CORBA::Object_var& ref) {
  servant = new Servant(store);
  ref = orb.activateServant(servant.in());
}

}  // namespace

const char* KMSMgrImpl::Name() {
  return "KMS.KMSMgr";
}

KMSMgrImpl::KMSMgrImpl() : m_active(false) {}

KMSMgrImpl::~KMSMgrImpl() {
  KMS_TRACE_THIS("KMSMgrImpl::~KMSMgrImpl");
  // Servants are reference counted: this lets go of the one the manager
  // holds, which deletes a servant that the ORB no longer holds. They go
  // before the store they borrow.
  m_controlFacet = nullptr;
  m_modifyFacet = nullptr;
  m_queryFacet = nullptr;
  if (m_keyStore != nullptr) {
    const int status = m_keyStore->shutdown();
    if (status != 0) {
      KMS_DEBUG("keystore_shutdown", 1, "KeyStore->shutdown() returned " << status);
    }
    m_keyStore.reset();
  }
}

TL::Framework::Orb* KMSMgrImpl::getOrb() {
  TL::Framework::OrbService* service = TL::Framework::OrbService::Instance();
  return service == nullptr ? nullptr : service->getOrb();
}

int KMSMgrImpl::init(int, char**) {
  KMS_TRACE_THIS("KMSMgrImpl::init");
  const char* label = "KMSMgrImpl::init";
  try {
    Store::KMSFileLocator locator;
    m_keyStore = std::make_unique<Store::FileKeyStore>(locator);
  } catch (const Store::KeyStoreError& error) {
    KMS_DEBUG(label, 1, "Exception Caught: " << error.str(true));
    logAppMessage(label, CRVN_SEV_ERROR, kMsgStoreNotCreated);
    logAppMessage(label, CRVN_SEV_ERROR, kMsgServiceNotStarted);
    return -1;
  }
  TL::Framework::FrameworkRegistrar registrar;
  if (registrar.init(getOrb()) != 0) {
    logAppMessage(label, CRVN_SEV_ERROR, kMsgValueTypesNotRegistered);
    logAppMessage(label, CRVN_SEV_ERROR, kMsgServiceNotStarted);
    return -1;
  }
  if (TL::Framework::OrbService::Instance() == nullptr) {
    logAppMessage(label, CRVN_SEV_ERROR, kMsgNoOrbService);
    logAppMessage(label, CRVN_SEV_ERROR, kMsgServiceNotStarted);
    return -1;
  }
  TL::Framework::ServiceContainer::registerAuthorizationTable(Store::KMSAuthTable);
  return resume();
}

int KMSMgrImpl::resume() {
  KMS_TRACE_THIS("KMSMgrImpl::resume");
  TL::Framework::Orb* orb = getOrb();
  if (m_active || orb == nullptr || !orb->isInitialized()) {
    return 0;
  }
  const int status = m_keyStore->init();
  if (status != 0) {
    const char* text = getECmsg(status);
    KMS_DEBUG(
        "KMSMgrImpl::resume", 1,
        "KeyStore->init() returned " << status << "(" << (text != nullptr ? text : "") << ")");
    logAppMessage("KMSMgrImpl::resume", CRVN_SEV_ERROR, kMsgStoreNotOpened, status);
    logAppMessage("KMSMgrImpl::resume", CRVN_SEV_ERROR, kMsgServiceNotStarted);
    return -1;
  }
  // The facets before the manager, which hands out their references.
  activateFacet(*orb, m_keyStore.get(), m_queryFacet, m_queryRef);
  activateFacet(*orb, m_keyStore.get(), m_modifyFacet, m_modifyRef);
  activateFacet(*orb, m_keyStore.get(), m_controlFacet, m_controlRef);
  m_mgrRef = orb->activateServant(this);
  orb->advertiseObject(Name(), m_mgrRef.in());
  m_active = true;
  return 0;
}

int KMSMgrImpl::suspend() {
  KMS_TRACE_THIS("KMSMgrImpl::suspend");
  if (m_active && !CORBA::is_nil(m_mgrRef.in())) {
    TL::Framework::Orb* orb = getOrb();
    if (orb != nullptr) {
      orb->destroyObjectRef(m_mgrRef.in());
      orb->destroyObjectRef(m_controlRef.in());
      orb->destroyObjectRef(m_modifyRef.in());
      orb->destroyObjectRef(m_queryRef.in());
      m_active = false;
    }
  }
  return 0;
}

int KMSMgrImpl::fini() {
  KMS_TRACE_THIS("KMSMgrImpl::fini");
  suspend();
  return 0;
}

void KMSMgrImpl::getPeerVRVersion(int& major, int& minor, int& patch) {
  KMS_TRACE_THIS("KMSMgrImpl::getPeerVRVersion");
  TL::Framework::Orb* orb = getOrb();
  const TL::Framework::PeerTSSResources* peer = orb != nullptr ? orb->getTSSResources() : nullptr;
  if (peer != nullptr && peer->versionPresent) {
    major = peer->major;
    minor = peer->minor;
    patch = peer->patch;
    KMS_DEBUG("KMSMgrImpl::getPeerVRVersion", 4,
              "Found Peer Version Information in TSS, "
                  << " Major " << major << " Minor " << minor << " Patch " << patch);
  } else {
    major = -1;
    minor = -1;
    patch = -1;
    KMS_DEBUG("KMSMgrImpl::getPeerVRVersion", 4, "Did not find Peer Version Information in TSS");
  }
}

QueryableFacet_ptr KMSMgrImpl::getQueryableFacet() {
  KMS_TRACE_THIS("KMSMgrImpl::getQueryableFacet");
  int major, minor, patch;
  getPeerVRVersion(major, minor, patch);
  return QueryableFacet::_narrow(m_queryRef.in());
}

ModifiableFacet_ptr KMSMgrImpl::getModifiableFacet() {
  KMS_TRACE_THIS("KMSMgrImpl::getModifiableFacet");
  int major, minor, patch;
  getPeerVRVersion(major, minor, patch);
  return ModifiableFacet::_narrow(m_modifyRef.in());
}

ControlFacet_ptr KMSMgrImpl::getControlFacet() {
  KMS_TRACE_THIS("KMSMgrImpl::getControlFacet");
  int major, minor, patch;
  getPeerVRVersion(major, minor, patch);
  return ControlFacet::_narrow(m_controlRef.in());
}

EximFacet_ptr KMSMgrImpl::getEximFacet() {
  KMS_TRACE_THIS("KMSMgrImpl::getEximFacet");
  int major, minor, patch;
  getPeerVRVersion(major, minor, patch);
  KMS_DEBUG("KMSMgrImpl::getEximFacet", 1, "EximFacet is not supported in this release");
  KMSServiceExceptionHelper helper("KMSMgrImpl::getEximFacet", Store::EC_KS_internal_error);
  KMS_DEBUG("KMSMgrImpl::getEximFacet", 1, "Throwing a " << helper.str());
  helper.raise();
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
}  // namespace Ardentis
