#include "kms/server/KMSModifiableFacetImpl.h"

#include <string>

#include "kms/server/FacetCall.h"
#include "kms/server/RecordConvertor.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/keystore/FileKeyStore.h"
#include "kms/server/keystore/SecureBytes.h"

namespace Ardentis {
namespace Vaultrest {
namespace DL {
namespace KMS {

namespace Store = ::Vaultrest::DL::KMS;

KMSModifiableFacetImpl::KMSModifiableFacetImpl(Store::FileKeyStore* store) : m_keyStore(store) {}

KMSFacetsV1::KeyGroupRecord* KMSModifiableFacetImpl::createKeyGroup(
    const KMSFacetsV1::KeyGroupRecord& record) {
  static const char* const kLabel = "KMSModifiableFacetImpl::createKeyGroup";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    const Store::KeyGrpRecord_v1 added =
        m_keyStore->addKeyGroup(RecordConvertor::toKsKeyGroupRecord(record));
    KMS_DEBUG(kLabel, 4, "KeyStore->addKeyGroup() successful");
    return RecordConvertor::toIdlKeyGroupRecord(added);
  });
}

KMSFacetsV1::KeyGroupRecord* KMSModifiableFacetImpl::updateKeyGroup(
    const KMSFacetsV1::KeyGroupRecord& record) {
  static const char* const kLabel = "KMSModifiableFacetImpl::updateKeyGroup";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    const Store::KeyGrpRecord_v1 updated =
        m_keyStore->updateKeyGroupRecord(RecordConvertor::toKsKeyGroupRecord(record));
    KMS_DEBUG(kLabel, 4, "KeyStore->updateKeyGroupRecord() successful");
    return RecordConvertor::toIdlKeyGroupRecord(updated);
  });
}

void KMSModifiableFacetImpl::deleteKeyGroup(const char* tag, CORBA::Boolean force) {
  static const char* const kLabel = "KMSModifiableFacetImpl::deleteKeyGroup";
  KMS_TRACE_THIS(kLabel);
  facetCall(kLabel, *m_keyStore, [&] {
    m_keyStore->deleteKeyGroupRecord(RecordConvertor::hexToBin(tag), force);
    KMS_DEBUG(kLabel, 4, "KeyStore->deleteKeyGroupRecord() successful");
  });
}

KMSFacetsV1::KeyRecord* KMSModifiableFacetImpl::createKey(const char* passphrase,
                                                          const KMSFacetsV1::KeyRecord& record) {
  static const char* const kLabel = "KMSModifiableFacetImpl::createKey";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    std::string secret(passphrase);
    const Store::ScopedWipe wipe(secret);
    const Store::KeyRecord_v1 added =
        m_keyStore->addKey(RecordConvertor::toKsKeyRecord(record), secret);
    KMS_DEBUG(kLabel, 4, "KeyStore->addKey() successful");
    return RecordConvertor::toIdlKeyRecord(added);
  });
}

KMSFacetsV1::KeyRecord* KMSModifiableFacetImpl::updateKey(const KMSFacetsV1::KeyRecord& record) {
  static const char* const kLabel = "KMSModifiableFacetImpl::updateKey";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    const Store::KeyRecord_v1 updated =
        m_keyStore->updateKeyRecord(RecordConvertor::toKsKeyRecord(record));
    KMS_DEBUG(kLabel, 4, "KeyStore->updateKeyRecord() successful");
    return RecordConvertor::toIdlKeyRecord(updated);
  });
}

void KMSModifiableFacetImpl::deleteKey(const char* tag) {
  static const char* const kLabel = "KMSModifiableFacetImpl::deleteKey";
  KMS_TRACE_THIS(kLabel);
  facetCall(kLabel, *m_keyStore, [&] {
    m_keyStore->deleteKeyRecord(RecordConvertor::hexToBin(tag));
    KMS_DEBUG(kLabel, 4, "KeyStore->deleteKeyRecord() successful");
  });
}

KMSFacetsV1::KeyRecord* KMSModifiableFacetImpl::recoverKey(const char* passphrase,
                                                           const KMSFacetsV1::KeyRecord& record) {
  static const char* const kLabel = "KMSModifiableFacetImpl::recoverKey";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    const Store::KeyRecord_v1 rec = RecordConvertor::toKsKeyRecord(record);
    // Also what a tag that is not strict hexadecimal has become.
    if (rec.tag().empty()) {
      KS_THROW(1215, kLabel);
    }
    std::string secret(passphrase);
    const Store::ScopedWipe wipe(secret);
    const Store::KeyRecord_v1 added = m_keyStore->addKeyWithKnownTag(rec, secret);
    KMS_DEBUG(kLabel, 4, "KeyStore->addKeyWithKnownTag() successful");
    return RecordConvertor::toIdlKeyRecord(added);
  });
}

KMSFacetsV1::KeyRecord* KMSModifiableFacetImpl::getNewKey() {
  KMS_TRACE_THIS("KMSModifiableFacetImpl::getNewKey");
  const Store::KeyRecord_v1 blank;
  blank.attributes().testInvariant();
  blank.testInvariant();
  return RecordConvertor::toIdlKeyRecord(blank);
}

KMSFacetsV1::KeyGroupRecord* KMSModifiableFacetImpl::getNewKeyGroup() {
  KMS_TRACE_THIS("KMSModifiableFacetImpl::getNewKeyGroup");
  const Store::KeyGrpRecord_v1 blank;
  blank.attributes().testInvariant();
  blank.testInvariant();
  return RecordConvertor::toIdlKeyGroupRecord(blank);
}

KMSFacetsV1::KSOpStatus* KMSModifiableFacetImpl::importKS(const TL::Framework::octetSeq&,
                                                          const char*, CORBA::Boolean,
                                                          CORBA::Boolean, const char*) {
  static const char* const kLabel = "KMSModifiableFacetImpl::importKS";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore,
                   [&]() -> KMSFacetsV1::KSOpStatus* { KS_THROW(1200, kLabel); });
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
}  // namespace Ardentis
