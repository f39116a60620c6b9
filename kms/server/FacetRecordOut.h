// The road of a facet operation that hands one record out: the store call,
// its success line at debug level 4, and the record converted for the wire,
// all inside facetCall (FacetCall.h), so that a KeyStoreError leaves as
// ServiceException.
//
//   KMS_TRACE_THIS(kLabel);
//   return recordOut(kLabel, *m_keyStore, "KeyStore->addKey() successful",
//                    [&] { return m_keyStore->addKey(rec, secret); });
//
// The result is a new wire record owned by the caller (the ORB). Any thread;
// no state.
#pragma once

#include "kms/server/FacetCall.h"
#include "kms/server/RecordConvertor.h"
#include "kms/server/diagnostics/Log.h"

namespace Ardentis {
namespace Vaultrest {
namespace DL {
namespace KMS {

// The wire form of a store record, new and owned by the caller.
inline KMSFacetsV1::KeyRecord* toIdlRecord(const ::Vaultrest::DL::KMS::KeyRecord_v1& rec) {
  return RecordConvertor::toIdlKeyRecord(rec);
}
inline KMSFacetsV1::KeyGroupRecord* toIdlRecord(const ::Vaultrest::DL::KMS::KeyGrpRecord_v1& rec) {
  return RecordConvertor::toIdlKeyGroupRecord(rec);
}

// `storeCall` gives a KeyRecord_v1 or a KeyGrpRecord_v1.
template <typename StoreCall>
auto recordOut(const char* label, ::Vaultrest::DL::KMS::KeyStore& store, const char* success,
               StoreCall&& storeCall) {
  return facetCall(label, store, [&] {
    const auto rec = storeCall();
    KMS_DEBUG(label, 4, success);
    return toIdlRecord(rec);
  });
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
}  // namespace Ardentis
