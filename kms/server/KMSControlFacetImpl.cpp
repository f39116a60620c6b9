#include "kms/server/KMSControlFacetImpl.h"

#include <cstdint>
#include <limits>
#include <string>

#include "kms/platform/Secret.h"
#include "kms/server/FacetCall.h"
#include "kms/server/RemoteDispatch.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/keystore/store/FileKeyStore.h"

namespace Ardentis {
namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

// The count as the wire's long; a count beyond it still reads as quiesced.
CORBA::Long toWireCount(uint64_t count) {
  constexpr uint64_t kMax = static_cast<uint64_t>(std::numeric_limits<CORBA::Long>::max());
  return static_cast<CORBA::Long>(count > kMax ? kMax : count);
}

}  // namespace

KMSControlFacetImpl::KMSControlFacetImpl(::Vaultrest::DL::KMS::FileKeyStore* store)
    : m_keyStore(store) {}

CORBA::Boolean KMSControlFacetImpl::_dispatch(omniCallHandle& handle) {
  return RemoteDispatch::run(handle, [&] {
    return POA_Ardentis::Vaultrest::DL::KMSFacetsV1::KMSControlFacet::_dispatch(handle);
  });
}

char* KMSControlFacetImpl::getHMKId() {
  static const char* const kLabel = "KMSControlFacetImpl::getHMKId";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    const std::string id = m_keyStore->getHMKId();
    KMS_DEBUG(kLabel, 4, "KeyStore->getHMKId() successful");
    return CORBA::string_dup(id.c_str());
  });
}

char* KMSControlFacetImpl::getKPKId() {
  static const char* const kLabel = "KMSControlFacetImpl::getKPKId";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    const std::string id = m_keyStore->getKPKId();
    KMS_DEBUG(kLabel, 4, "KeyStore->getKPKId() successful");
    return CORBA::string_dup(id.c_str());
  });
}

void KMSControlFacetImpl::updateHMK(const char* passphrase, const char* id) {
  static const char* const kLabel = "KMSControlFacetImpl::updateHMK";
  KMS_TRACE_THIS(kLabel);
  facetCall(kLabel, *m_keyStore, [&] {
    const CmnCrypto::Secret secret{std::string(passphrase)};
    RemoteDispatch::wipeArgument(passphrase);
    const int status = m_keyStore->updateHMK(secret.str(), id);
    if (status != 0) {
      KS_THROW(status, kLabel);
    }
  });
}

void KMSControlFacetImpl::updateKPK(const char* passphrase, const char* id) {
  static const char* const kLabel = "KMSControlFacetImpl::updateKPK";
  KMS_TRACE_THIS(kLabel);
  facetCall(kLabel, *m_keyStore, [&] {
    const CmnCrypto::Secret secret{std::string(passphrase)};
    RemoteDispatch::wipeArgument(passphrase);
    const int status = m_keyStore->updateKPK(secret.str(), id);
    if (status != 0) {
      KS_THROW(status, kLabel);
    }
  });
}

CORBA::Long KMSControlFacetImpl::quiesce() {
  static const char* const kLabel = "KMSControlFacetImpl::quiesce";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    const uint64_t count = m_keyStore->quiesce();
    KMS_DEBUG(kLabel, 4, "KeyStore->quiesce() successful");
    return toWireCount(count);
  });
}

CORBA::Long KMSControlFacetImpl::unquiesce(CORBA::Boolean force) {
  static const char* const kLabel = "KMSControlFacetImpl::unquiesce";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    const uint64_t count = m_keyStore->unquiesce(force);
    KMS_DEBUG(kLabel, 4, "KeyStore->unquiesce() successful");
    return toWireCount(count);
  });
}

CORBA::Long KMSControlFacetImpl::isQuiesced() {
  static const char* const kLabel = "KMSControlFacetImpl::isQuiesced";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    const uint64_t count = m_keyStore->isQuiesced();
    KMS_DEBUG(kLabel, 4, "KeyStore->isQuiesced() successful");
    return toWireCount(count);
  });
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
}  // namespace Ardentis
