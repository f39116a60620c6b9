#include "kms/server/KMSModifiableFacetImpl.h"

#include <string>

#include "kms/platform/Secret.h"
#include "kms/server/FacetRecordOut.h"
#include "kms/server/RecordConvertor.h"
#include "kms/server/RemoteDispatch.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/store/FileKeyStore.h"
#include "kms/server/keystore/store/KSOpStatus.h"

namespace Ardentis {
namespace Vaultrest {
namespace DL {
namespace KMS {

namespace Store = ::Vaultrest::DL::KMS;

namespace {

// A default record, checked, in its wire form: the form a client fills in.
template <typename Record>
auto blankForm() {
  const Record blank;
  blank.attributes().testInvariant();
  blank.testInvariant();
  return toIdlRecord(blank);
}

}  // namespace

KMSModifiableFacetImpl::KMSModifiableFacetImpl(Store::FileKeyStore* store) : m_keyStore(store) {}

KMSFacetsV1::KeyGroupRecord* KMSModifiableFacetImpl::createKeyGroup(
    const KMSFacetsV1::KeyGroupRecord& record) {
  static const char* const kLabel = "KMSModifiableFacetImpl::createKeyGroup";
  KMS_TRACE_THIS(kLabel);
  return recordOut(kLabel, *m_keyStore, "KeyStore->addKeyGroup() successful", [&] {
    return m_keyStore->addKeyGroup(RecordConvertor::toKsKeyGroupRecord(record));
  });
}

KMSFacetsV1::KeyGroupRecord* KMSModifiableFacetImpl::updateKeyGroup(
    const KMSFacetsV1::KeyGroupRecord& record) {
  static const char* const kLabel = "KMSModifiableFacetImpl::updateKeyGroup";
  KMS_TRACE_THIS(kLabel);
  return recordOut(kLabel, *m_keyStore, "KeyStore->updateKeyGroupRecord() successful", [&] {
    return m_keyStore->updateKeyGroupRecord(RecordConvertor::toKsKeyGroupRecord(record));
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

CORBA::Boolean KMSModifiableFacetImpl::_dispatch(omniCallHandle& handle) {
  return RemoteDispatch::run(handle, [&] {
    return POA_Ardentis::Vaultrest::DL::KMSFacetsV1::KMSModifiableFacet::_dispatch(handle);
  });
}

KMSFacetsV1::KeyRecord* KMSModifiableFacetImpl::createKey(const char* passphrase,
                                                          const KMSFacetsV1::KeyRecord& record) {
  static const char* const kLabel = "KMSModifiableFacetImpl::createKey";
  KMS_TRACE_THIS(kLabel);
  const CmnCrypto::Secret secret{std::string(passphrase)};
  RemoteDispatch::wipeArgument(passphrase);
  return recordOut(kLabel, *m_keyStore, "KeyStore->addKey() successful", [&] {
    return m_keyStore->addKey(RecordConvertor::toKsKeyRecord(record), secret.str());
  });
}

KMSFacetsV1::KeyRecord* KMSModifiableFacetImpl::updateKey(const KMSFacetsV1::KeyRecord& record) {
  static const char* const kLabel = "KMSModifiableFacetImpl::updateKey";
  KMS_TRACE_THIS(kLabel);
  return recordOut(kLabel, *m_keyStore, "KeyStore->updateKeyRecord() successful", [&] {
    return m_keyStore->updateKeyRecord(RecordConvertor::toKsKeyRecord(record));
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
  const CmnCrypto::Secret secret{std::string(passphrase)};
  RemoteDispatch::wipeArgument(passphrase);
  return recordOut(kLabel, *m_keyStore, "KeyStore->addKeyWithKnownTag() successful", [&] {
    const Store::KeyRecord_v1 rec = RecordConvertor::toKsKeyRecord(record);
    // Also what a tag that is not strict hexadecimal has become.
    if (rec.tag().empty()) {
      KS_THROW(Store::EC_KS_empty_tag, kLabel);
    }
    return m_keyStore->addKeyWithKnownTag(rec, secret.str());
  });
}

KMSFacetsV1::KeyRecord* KMSModifiableFacetImpl::getNewKey() {
  KMS_TRACE_THIS("KMSModifiableFacetImpl::getNewKey");
  return blankForm<Store::KeyRecord_v1>();
}

KMSFacetsV1::KeyGroupRecord* KMSModifiableFacetImpl::getNewKeyGroup() {
  KMS_TRACE_THIS("KMSModifiableFacetImpl::getNewKeyGroup");
  return blankForm<Store::KeyGrpRecord_v1>();
}

KMSFacetsV1::KSOpStatus* KMSModifiableFacetImpl::importKS(const TL::Framework::octetSeq& data,
                                                          const char* passphrase,
                                                          CORBA::Boolean preserveNames,
                                                          CORBA::Boolean previewOnly,
                                                          const char* description) noexcept {
  KMS_TRACE_THIS("KMSModifiableFacetImpl::importKS");
  std::string buffer;
  buffer.reserve(data.length());
  for (CORBA::ULong i = 0; i < data.length(); ++i) {
    buffer.push_back(static_cast<char>(data[i]));
  }
  const CmnCrypto::Secret secret{std::string(passphrase)};
  RemoteDispatch::wipeArgument(passphrase);
  Store::KSOpStatus status;
  m_keyStore->importFromBuffer(buffer, secret.str(), preserveNames, description, status,
                               previewOnly);
  return RecordConvertor::toIdlKSOpStatus(status);
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
}  // namespace Ardentis
