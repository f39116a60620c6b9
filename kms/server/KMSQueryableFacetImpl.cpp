#include "kms/server/KMSQueryableFacetImpl.h"

#include <cstdint>
#include <cstring>
#include <list>
#include <string>

#include "kms/platform/Secret.h"
#include "kms/server/FacetCall.h"
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

// A KAD is a prefix of a tag, and a tag has at most this many bytes.
constexpr CORBA::Long kMaxKadLength = 4096;

// The list's records converted in order into a new sequence.
KMSFacetsV1::KeyRecordSeq* toIdlKeyRecords(const std::list<Store::KeyRecord_v1>& records,
                                           const char* label) {
  KMSFacetsV1::KeyRecordSeq_var krseq = new KMSFacetsV1::KeyRecordSeq();
  krseq->length(static_cast<CORBA::ULong>(records.size()));
  CORBA::ULong count = 0;
  for (const Store::KeyRecord_v1& rec : records) {
    KS_ASSERT(label, count < krseq->length());
    RecordConvertor::toIdlKeyRecord(rec, krseq[count]);
    RemoteDispatch::lendReplyKey(krseq[count].encKey);
    ++count;
  }
  return krseq._retn();
}

std::string toBytes(const TL::Framework::octetSeq& octets) {
  std::string bytes;
  bytes.reserve(octets.length());
  for (CORBA::ULong i = 0; i < octets.length(); ++i) {
    bytes.push_back(static_cast<char>(octets[i]));
  }
  return bytes;
}

}  // namespace

KMSQueryableFacetImpl::KMSQueryableFacetImpl(Store::FileKeyStore* store) : m_keyStore(store) {}

CORBA::Boolean KMSQueryableFacetImpl::_dispatch(omniCallHandle& handle) {
  return RemoteDispatch::run(handle, [&] {
    return POA_Ardentis::Vaultrest::DL::KMSFacetsV1::KMSQueryableFacet::_dispatch(handle);
  });
}

KMSFacetsV1::KeyRecord* KMSQueryableFacetImpl::getKeyRecord(const char* tag) {
  static const char* const kLabel = "KMSQueryableFacetImpl::getKeyRecord";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    const Store::KeyRecord_v1 rec = m_keyStore->getKeyRecord(RecordConvertor::hexToBin(tag));
    KMS_DEBUG(kLabel, 4, "KeyStore->getKeyRecord() successful");
    return RecordConvertor::toIdlKeyRecord(rec);
  });
}

KMSFacetsV1::KeyRecord* KMSQueryableFacetImpl::getKeyRecordByName(const char* groupTag,
                                                                  const char* keyName) {
  static const char* const kLabel = "KMSQueryableFacetImpl::getKeyRecordByName";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    const Store::KeyRecord_v1 rec =
        m_keyStore->getKeyRecordByName(RecordConvertor::hexToBin(groupTag), keyName);
    KMS_DEBUG(kLabel, 4, "KeyStore->getKeyRecordByName() successful");
    return RecordConvertor::toIdlKeyRecord(rec);
  });
}

KMSFacetsV1::KeyRecord* KMSQueryableFacetImpl::getKey(const char* tag) {
  static const char* const kLabel = "KMSQueryableFacetImpl::getKey";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    const Store::KeyRecord_v1 rec = m_keyStore->getKey(RecordConvertor::hexToBin(tag));
    KMS_DEBUG(kLabel, 4, "KeyStore->getKey() successful");
    KMSFacetsV1::KeyRecord* out = RecordConvertor::toIdlKeyRecord(rec);
    RemoteDispatch::lendReplyKey(out->encKey);
    return out;
  });
}

KMSFacetsV1::KeyRecord* KMSQueryableFacetImpl::getActiveKeyRecord(const char* groupTag) {
  static const char* const kLabel = "KMSQueryableFacetImpl::getActiveKeyRecord";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    const Store::KeyRecord_v1 rec =
        m_keyStore->getActiveKeyRecord(RecordConvertor::hexToBin(groupTag));
    KMS_DEBUG(kLabel, 4, "KeyStore->getActiveKeyRecord() successful");
    KMSFacetsV1::KeyRecord* out = RecordConvertor::toIdlKeyRecord(rec);
    RemoteDispatch::lendReplyKey(out->encKey);
    return out;
  });
}

KMSFacetsV1::KeyGroupRecord* KMSQueryableFacetImpl::getKeyGroupRecord(const char* tag) {
  static const char* const kLabel = "KMSQueryableFacetImpl::getKeyGroupRecord";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    const Store::KeyGrpRecord_v1 rec =
        m_keyStore->getKeyGroupRecord(RecordConvertor::hexToBin(tag));
    KMS_DEBUG(kLabel, 4, "KeyStore->getKeyGroupRecord() successful");
    return RecordConvertor::toIdlKeyGroupRecord(rec);
  });
}

KMSFacetsV1::KeyGroupRecord* KMSQueryableFacetImpl::getKeyGroupRecordByName(const char* name) {
  static const char* const kLabel = "KMSQueryableFacetImpl::getKeyGroupRecordByName";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    const Store::KeyGrpRecord_v1 rec = m_keyStore->getKeyGroupRecordByName(name);
    KMS_DEBUG(kLabel, 4, "KeyStore->getKeyGroupRecordByName() successful");
    return RecordConvertor::toIdlKeyGroupRecord(rec);
  });
}

KMSFacetsV1::KeyGroupRecordSeq* KMSQueryableFacetImpl::getAllKeyGroupRecords() {
  static const char* const kLabel = "KMSQueryableFacetImpl::getAllKeyGroupRecords";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    std::list<Store::KeyGrpRecord_v1> groups;
    m_keyStore->getAllKeyGroupRecords(groups);
    KMS_DEBUG(kLabel, 4, "KeyStore->getAllKeyGroupRecords() successful");
    KMSFacetsV1::KeyGroupRecordSeq_var kgseq = new KMSFacetsV1::KeyGroupRecordSeq();
    kgseq->length(static_cast<CORBA::ULong>(groups.size()));
    CORBA::ULong count = 0;
    for (const Store::KeyGrpRecord_v1& rec : groups) {
      KS_ASSERT(kLabel, count < kgseq->length());
      RecordConvertor::toIdlKeyGroupRecord(rec, kgseq[count]);
      ++count;
    }
    return kgseq._retn();
  });
}

KMSFacetsV1::KeyRecordSeq* KMSQueryableFacetImpl::getAllKeyRecordsInGroup(const char* groupTag) {
  static const char* const kLabel = "KMSQueryableFacetImpl::getAllKeyRecordsInGroup";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    std::list<Store::KeyRecord_v1> keys;
    m_keyStore->getAllKeyRecordsInGroup(RecordConvertor::hexToBin(groupTag), keys);
    KMS_DEBUG(kLabel, 4, "KeyStore->getAllKeyRecordsInGroup() successful");
    return toIdlKeyRecords(keys, kLabel);
  });
}

KMSFacetsV1::KeyStoreStats KMSQueryableFacetImpl::getKeyStoreStats() {
  static const char* const kLabel = "KMSQueryableFacetImpl::getKeyStoreStats";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    const std::pair<uint64_t, uint64_t> stats = m_keyStore->getStats();
    KMS_DEBUG(kLabel, 4, "KeyStore->getStats() successful");
    KMSFacetsV1::KeyStoreStats out;
    out.numKeys = static_cast<CORBA::LongLong>(stats.first);
    out.numKeyGroups = static_cast<CORBA::LongLong>(stats.second);
    return out;
  });
}

CORBA::Long KMSQueryableFacetImpl::getKeyAndKad(const char* tag, CORBA::Long kadLength,
                                                KMSFacetsV1::KeyRecord_out record,
                                                TL::Framework::octetSeq_out kad) {
  static const char* const kLabel = "KMSQueryableFacetImpl::getKeyAndKad";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    const std::string binTag = RecordConvertor::hexToBin(tag);
    if (binTag.empty()) {
      KS_THROW(Store::EC_KS_empty_tag, kLabel);
    }
    // The store pads a short tag up to the length asked for; a length no
    // tag can have would only make it allocate.
    if (kadLength < 0 || kadLength > kMaxKadLength) {
      KS_THROW(Store::EC_KS_bad_argument, kLabel);
    }
    const Store::KeyRecord_v1 rec = m_keyStore->getKey(binTag);
    KMS_DEBUG(kLabel, 4, "KeyStore->getKey() successful");
    KMSFacetsV1::KeyRecord_var idlRecord = RecordConvertor::toIdlKeyRecord(rec);
    RemoteDispatch::lendReplyKey(idlRecord->encKey);
    std::string binKad;
    const int status = m_keyStore->getKad(binTag, static_cast<unsigned long>(kadLength), binKad);
    KMS_DEBUG(kLabel, 4, "KeyStore->getKad() returned with " << status);
    if (status != Store::EC_KS_kad_unique && status != Store::EC_KS_kad_shared) {
      KS_THROW(status, kLabel);
    }
    TL::Framework::octetSeq_var kadOut = new TL::Framework::octetSeq();
    kadOut->length(static_cast<CORBA::ULong>(binKad.size()));
    for (CORBA::ULong i = 0; i < kadOut->length(); ++i) {
      kadOut[i] = static_cast<CORBA::Octet>(binKad[i]);
    }
    kad = kadOut._retn();
    record = idlRecord._retn();
    return static_cast<CORBA::Long>(status == Store::EC_KS_kad_unique ? 1 : 2);
  });
}

CORBA::Long KMSQueryableFacetImpl::getKeyRecordsByKad(const TL::Framework::octetSeq& kad,
                                                      KMSFacetsV1::KeyRecordSeq_out records) {
  static const char* const kLabel = "KMSQueryableFacetImpl::getKeyRecordsByKad";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    std::list<Store::KeyRecord_v1> found;
    const int status = m_keyStore->getKeyRecordsByKad(toBytes(kad), found);
    KMS_DEBUG(kLabel, 4, "KeyStore->getKeyRecordsByKad() returned with " << status);
    if (status != Store::EC_KS_kad_all_usable && status != Store::EC_KS_kad_some_left_out) {
      KS_THROW(status, kLabel);
    }
    records = toIdlKeyRecords(found, kLabel);
    return static_cast<CORBA::Long>(status == Store::EC_KS_kad_all_usable ? 3 : 4);
  });
}

KMSFacetsV1::KSOpStatus* KMSQueryableFacetImpl::exportKS(
    const KMSFacetsV1::ExportKeyListSeq& keyList, const char* passphrase,
    TL::Framework::octetSeq_out data) {
  static const char* const kLabel = "KMSQueryableFacetImpl::exportKS";
  KMS_TRACE_THIS(kLabel);
  return facetCall(kLabel, *m_keyStore, [&] {
    std::list<std::pair<std::string, std::string>> selection;
    for (CORBA::ULong i = 0; i < keyList.length(); ++i) {
      selection.emplace_back(keyList[i].kgname.in(), keyList[i].keyname.in());
    }
    const CmnCrypto::Secret secret{std::string(passphrase)};
    RemoteDispatch::wipeArgument(passphrase);
    Store::KSOpStatus status;
    const std::string buffer = m_keyStore->exportToBuffer(selection, secret.str(), status);
    KMS_DEBUG(kLabel, 4, "Encrypted buffer size: [" << buffer.size());
    TL::Framework::octetSeq_var out = new TL::Framework::octetSeq();
    out->length(static_cast<CORBA::ULong>(buffer.size()));
    if (!buffer.empty()) {
      std::memmove(out->get_buffer(), buffer.data(), buffer.size());
    }
    KMSFacetsV1::KSOpStatus_var result = RecordConvertor::toIdlKSOpStatus(status);
    data = out._retn();
    KMS_DEBUG(kLabel, 4, "exportKS completed successfully");
    return result._retn();
  });
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
}  // namespace Ardentis
