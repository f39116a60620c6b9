// The road of every facet operation that calls the store. The operation's
// body runs inside facetCall; a KeyStoreError that leaves it is logged, the
// service is stopped when the store has lost its state (it is no longer
// initialized after the failure), and the client receives ServiceException
// with the store's status in its ErrorCodeExceptionDetails. Other exceptions
// pass unchanged (an assertion has already ended the process).
//
//   return facetCall(kLabel, *m_keyStore, [&] {
//     const uint64_t count = m_keyStore->quiesce();
//     KMS_DEBUG(kLabel, 4, "KeyStore->quiesce() successful");
//     return static_cast<CORBA::Long>(count);
//   });
//
// Any thread; no state.
#pragma once

#include "kms/server/diagnostics/KeyStoreError.h"
#include "kms/server/keystore/store/KeyStore.h"

namespace Ardentis {
namespace Vaultrest {
namespace DL {
namespace KMS {

// Logs "Exception Caught: " and the error, calls
// OrbService::Instance()->stopByEvent(true) when `store` is no longer
// initialized (and there is a service), logs "Throwing ServiceException: "
// and raises ServiceException(`label`, the error's status).
[[noreturn]] void raiseFacetError(const char* label, ::Vaultrest::DL::KMS::KeyStore& store,
                                  const ::Vaultrest::DL::KMS::KeyStoreError& error);

template <typename Body>
auto facetCall(const char* label, ::Vaultrest::DL::KMS::KeyStore& store, Body&& body)
    -> decltype(body()) {
  try {
    return body();
  } catch (const ::Vaultrest::DL::KMS::KeyStoreError& error) {
    raiseFacetError(label, store, error);
  }
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
}  // namespace Ardentis
