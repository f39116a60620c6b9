// The read side of the store: lookups by tag, name and KAD, the filters that
// every record passes on its way out, the checks of tags, keys and tables,
// and the console dump.
//
// Nothing leaves as it is stored: a key record goes out with its key
// unwrapped (getKey, getKeyRecordsByKad, and only for KEY_ACTIVE and
// KEY_INACTIVE keys) or with no key at all; a group record goes out with its
// derived fields filled in.
#include <algorithm>
#include <cstdio>

#include "kms/server/diagnostics/ErrorMapping.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/crypto/SecureBytes.h"
#include "kms/server/keystore/format/KSMetadata.h"
#include "kms/server/keystore/format/KeyFile.h"
#include "kms/server/keystore/records/RecordFields.h"
#include "kms/server/keystore/records/RecordUtils.h"
#include "kms/server/keystore/store/FileKeyStore.h"
#include "kms/server/keystore/store/StoreLockGuards.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

// Whatever goes wrong while unwrapping, the caller learns only that it failed.
ErrorMap unwrapErrorMap() {
  ErrorMap map{{}, {}, EC_KS_internal_error};
  map.otherwiseText = "Mapping and Rethrowing Exception as: ";
  return map;
}

const ErrorMap kUnwrapMap = unwrapErrorMap();

bool isUsable(ks_keystate_t state) {
  return state == KEY_ACTIVE || state == KEY_INACTIVE;
}

}  // namespace

// ---- Filters ----

void FileKeyStore::keyRecordFilter(KeyRecord_v1& rec, bool strip) const {
  static const char* const kLabel = "FileKeyStore::keyRecordFilter";
  KMS_TRACE_THIS(kLabel);
  translateErrors(kLabel, kUnwrapMap, [&]() NO_THREAD_SAFETY_ANALYSIS {
    if (strip) {
      rec.setKey(std::string());
      return;
    }
    const Secret plain(m_kpkMgr->decryptKey(rec.key(), rec.kpkType(), rec.kpkTag()));
    rec.setKey(plain.str());
  });
}

void FileKeyStore::keyGroupRecordFilter(KeyGrpRecord_v1& rec) const {
  KMS_TRACE_THIS("FileKeyStore::keyGroupRecordFilter");
  rec.setNumKeys(m_keyTable->getNumKeysInGroup(rec.tag()));
  rec.setHasActiveKey(!m_keyTable->getActiveKeyInGroup(rec.tag()).empty());
}

void FileKeyStore::filterKeyGroupRecords(GroupTable& table) const {
  KMS_TRACE_THIS("FileKeyStore::filterKeyGroupRecords");
  for (auto iter = table.begin(); iter != table.end(); ++iter) {
    KeyGrpRecord_v1 copy = m_groupTable->getRecord(iter->first);
    keyGroupRecordFilter(copy);
  }
}

// ---- Lookups ----

template <typename Find>
KeyRecord_v1 FileKeyStore::lookUpKey(const char* label, bool unwrap, Find&& find) const {
  StoreReadGuard guard(m_lock, m_writerTurnstile);
  if (!m_initialized) {
    KS_THROW(EC_KS_not_initialized, label);
  }
  const KeyTable& keys = *m_keyTable;
  const auto iter = find(keys);
  if (iter == keys.end()) {
    KS_THROW(EC_KS_unknown_key, label);
  }
  if (unwrap && !isUsable(iter->second.state())) {
    KS_THROW(EC_KS_not_deletable, label);
  }
  KeyRecord_v1 rec = iter->second;
  keyRecordFilter(rec, !unwrap);
  return rec;
}

template <typename Find>
KeyGrpRecord_v1 FileKeyStore::lookUpGroup(const char* label, Find&& find) const {
  StoreReadGuard guard(m_lock, m_writerTurnstile);
  if (!m_initialized) {
    KS_THROW(EC_KS_not_initialized, label);
  }
  const GroupTable& groups = *m_groupTable;
  const auto iter = find(groups);
  if (iter == groups.end()) {
    KS_THROW(EC_KS_unknown_group, label);
  }
  KeyGrpRecord_v1 rec = iter->second;
  keyGroupRecordFilter(rec);
  return rec;
}

KeyRecord_v1 FileKeyStore::getKey(const std::string& _tag) const {
  static const char* const kLabel = "FileKeyStore::getKey";
  KMS_TRACE_THIS(kLabel);
  KeyRecord_v1 rec = lookUpKey(kLabel, true, [&](const KeyTable& keys) { return keys.find(_tag); });
  KS_ASSERT(kLabel, rec.tag() == _tag);
  return rec;
}

KeyRecord_v1 FileKeyStore::getKeyRecord(const std::string& _tag) const {
  static const char* const kLabel = "FileKeyStore::getKeyRecord";
  KMS_TRACE_THIS(kLabel);
  KeyRecord_v1 rec =
      lookUpKey(kLabel, false, [&](const KeyTable& keys) { return keys.find(_tag); });
  KS_ASSERT(kLabel, rec.tag() == _tag);
  return rec;
}

KeyGrpRecord_v1 FileKeyStore::getKeyGroupRecord(const std::string& _tag) const {
  static const char* const kLabel = "FileKeyStore::getKeyGroupRecord";
  KMS_TRACE_THIS(kLabel);
  KeyGrpRecord_v1 rec =
      lookUpGroup(kLabel, [&](const GroupTable& groups) { return groups.find(_tag); });
  KS_ASSERT(kLabel, rec.tag() == _tag);
  return rec;
}

KeyGrpRecord_v1 FileKeyStore::getKeyGroupRecordByName(const std::string& _name) const {
  static const char* const kLabel = "FileKeyStore::getKeyGroupRecordByName";
  KMS_TRACE_THIS(kLabel);
  KeyGrpRecord_v1 rec = lookUpGroup(
      kLabel, [&](const GroupTable& groups) { return findKeyGroupByName(groups, _name); });
  KS_ASSERT(kLabel, rec.name() == truncatedField(_name));
  return rec;
}

KeyRecord_v1 FileKeyStore::getKeyRecordByName(const std::string& _kgroup,
                                              const std::string& _name) const {
  static const char* const kLabel = "FileKeyStore::getKeyRecordByName";
  KMS_TRACE_THIS(kLabel);
  KeyRecord_v1 rec = lookUpKey(kLabel, false, [&](const KeyTable& keys) NO_THREAD_SAFETY_ANALYSIS {
    // An unknown group is told apart from an unknown name.
    if (m_groupTable->find(_kgroup) == m_groupTable->end()) {
      KS_THROW(EC_KS_unknown_group, kLabel);
    }
    return findKeyByName(keys, _kgroup, _name);
  });
  KS_ASSERT(kLabel, rec.name() == truncatedField(_name));
  KS_ASSERT(kLabel, rec.keyGroup() == _kgroup);
  return rec;
}

KeyRecord_v1 FileKeyStore::getActiveKeyRecord(const std::string& _kgroup) const {
  static const char* const kLabel = "FileKeyStore::getActiveKeyRecord";
  KMS_TRACE_THIS(kLabel);
  StoreReadGuard guard(m_lock, m_writerTurnstile);
  if (!m_initialized) {
    KS_THROW(EC_KS_not_initialized, kLabel);
  }
  if (m_groupTable->find(_kgroup) == m_groupTable->end()) {
    KS_THROW(EC_KS_unknown_group, kLabel);
  }
  const std::string_view active = m_keyTable->getActiveKeyInGroup(_kgroup);
  if (active.empty()) {
    KS_THROW(EC_KS_no_active_key, kLabel);
  }
  KeyRecord_v1 rec = m_keyTable->getRecord(active);
  keyRecordFilter(rec, true);
  KS_ASSERT(kLabel, rec.state() == KEY_ACTIVE);
  KS_ASSERT(kLabel, rec.keyGroup() == _kgroup);
  return rec;
}

void FileKeyStore::getAllKeyGroupRecords(std::list<KeyGrpRecord_v1>& out) const {
  static const char* const kLabel = "FileKeyStore::getAllKeyGroupRecords";
  KMS_TRACE_THIS(kLabel);
  out.clear();
  StoreReadGuard guard(m_lock, m_writerTurnstile);
  if (!m_initialized) {
    KS_THROW(EC_KS_not_initialized, kLabel);
  }
  for (auto iter = m_groupTable->begin(); iter != m_groupTable->end(); ++iter) {
    KeyGrpRecord_v1 rec = iter->second;
    keyGroupRecordFilter(rec);
    out.push_back(std::move(rec));
  }
}

void FileKeyStore::getAllKeyRecordsInGroup(const std::string& group,
                                           std::list<KeyRecord_v1>& out) const {
  static const char* const kLabel = "FileKeyStore::getAllKeyRecordsInGroup";
  KMS_TRACE_THIS(kLabel);
  out.clear();
  StoreReadGuard guard(m_lock, m_writerTurnstile);
  if (!m_initialized) {
    KS_THROW(EC_KS_not_initialized, kLabel);
  }
  if (m_groupTable->find(group) == m_groupTable->end()) {
    KS_THROW(EC_KS_unknown_group, kLabel);
  }
  for (const std::string_view tag : m_keyTable->getTagsByGroup(group)) {
    KeyRecord_v1 rec = m_keyTable->getRecord(tag);
    keyRecordFilter(rec, true);
    out.push_back(std::move(rec));
  }
}

int FileKeyStore::getKad(const std::string& tag, unsigned long kadlength, std::string& kad) const {
  static const char* const kLabel = "FileKeyStore::getKad";
  KMS_TRACE_THIS(kLabel);
  StoreReadGuard guard(m_lock, m_writerTurnstile);
  if (!m_initialized) {
    return EC_KS_not_initialized;
  }
  // A tag shorter than asked for is padded with the character '0'.
  if (tag.size() < kadlength) {
    kad = tag + std::string(kadlength - tag.size(), '0');
  } else {
    kad = tag.substr(0, kadlength);
  }
  KS_ASSERT(kLabel, kad.size() == kadlength);

  KeyTable::TagList tags;
  const int status = m_keyTable->getTagsByKad(kad, tags);
  if (status != 0) {
    return status;
  }
  if (std::find(tags.begin(), tags.end(), tag) == tags.end()) {
    return EC_KS_unknown_key;
  }
  KS_ASSERT(kLabel, tags.size() > 0);
  return tags.size() == 1 ? 1234 : 1235;
}

int FileKeyStore::getKeyRecordsByKad(const std::string& kad, std::list<KeyRecord_v1>& out) const {
  static const char* const kLabel = "FileKeyStore::getKeyRecordsByKad";
  KMS_TRACE_THIS(kLabel);
  out.clear();
  StoreReadGuard guard(m_lock, m_writerTurnstile);
  if (!m_initialized) {
    return EC_KS_not_initialized;
  }
  KeyTable::TagList tags;
  const int status = m_keyTable->getTagsByKad(kad, tags);
  if (status != 0) {
    return status;
  }
  if (tags.empty()) {
    return EC_KS_no_key_for_kad;
  }
  bool leftOut = false;
  for (const std::string& tag : tags) {
    KeyRecord_v1 rec = m_keyTable->getRecord(tag);
    if (!isUsable(rec.state())) {
      leftOut = true;
      continue;
    }
    keyRecordFilter(rec, false);
    out.push_back(std::move(rec));
  }
  return leftOut ? 1244 : 1243;
}

// ---- Static lookups and checks ----

FileKeyStore::KeyTable::const_iterator FileKeyStore::findKeyByName(const KeyTable& krtable,
                                                                   std::string_view group,
                                                                   std::string_view name) {
  static const char* const kLabel = "FileKeyStore::findKeyByName";
  KMS_TRACE(kLabel);
  const std::string_view stored = truncatedField(name);
  for (const std::string_view tag : krtable.getTagsByGroup(group)) {
    const auto iter = krtable.find(tag);
    KS_ASSERT(kLabel, iter != krtable.end());
    if (iter->second.name() == stored) {
      return iter;
    }
  }
  return krtable.end();
}

FileKeyStore::GroupTable::const_iterator FileKeyStore::findKeyGroupByName(const GroupTable& kg,
                                                                          std::string_view name) {
  KMS_TRACE("FileKeyStore::findKeyGroupByName");
  const std::string_view stored = truncatedField(name);
  for (auto iter = kg.begin(); iter != kg.end(); ++iter) {
    if (iter->second.name() == stored) {
      return iter;
    }
  }
  return kg.end();
}

bool FileKeyStore::isBadTag(const std::string& tag) {
  static const char* const kLabel = "FileKeyStore::isBadTag";
  static const std::string allOnes(KeyTable::kKadLength, '\xff');
  static const std::string allZeros(KeyTable::kKadLength, '\0');
  const std::string prefix = tag.substr(0, KeyTable::kKadLength);
  if (prefix == allOnes || prefix == allZeros) {
    KMS_DEBUG(kLabel, 1, "Found a bad TAG!");
    return true;
  }
  return false;
}

bool FileKeyStore::isBadKey(std::string_view key) {
  static const char* const kLabel = "FileKeyStore::isBadKey";
  if (key == std::string(key.size(), '\0') || key == std::string(key.size(), '\xff')) {
    KMS_DEBUG(kLabel, 1, "Found a bad KEY!");
    return true;
  }
  return false;
}

bool FileKeyStore::isKeyStoreSane(const KeyTable& kr, const GroupTable& kg) {
  static const char* const kLabel = "FileKeyStore::isKeyStoreSane";
  KMS_TRACE(kLabel);
  bool sane = true;
  for (auto iter = kg.begin(); iter != kg.end(); ++iter) {
    if (iter->second.cipherType() == CT_INVALID_CBC) {
      KMS_DEBUG(kLabel, 1,
                "KeyGroup record " << Utils::binToHex(iter->first) << " had INVALID cipherType");
      sane = false;
    }
  }
  for (auto iter = kr.begin(); iter != kr.end(); ++iter) {
    const KeyRecord_v1& rec = iter->second;
    if (rec.state() == KEY_INVALID) {
      KMS_DEBUG(kLabel, 1, "Key record " << Utils::binToHex(rec.tag()) << " had INVALID state");
      sane = false;
    }
    if (rec.kpkType() == KPK_INVALID) {
      KMS_DEBUG(kLabel, 1, "Key record " << Utils::binToHex(rec.tag()) << " had INVALID KPK Type");
      sane = false;
    }
  }
  // Every key is listed under its own group, so each group that has keys is
  // looked up once rather than once per key.
  kr.forEachGroup([&](std::string_view group, const GroupTags& tags) {
    if (kg.find(group) == kg.end()) {
      for (const std::string_view tag : tags) {
        KMS_DEBUG(kLabel, 1,
                  "Key record " << Utils::binToHex(tag) << " was member of a non-existent KeyGroup "
                                << Utils::binToHex(group));
      }
      sane = false;
    }
  });
  return sane;
}

// ---- Console dump ----

int FileKeyStore::display() const {
  KMS_TRACE_THIS("FileKeyStore::display");
  StoreReadGuard guard(m_lock, m_writerTurnstile);
  if (!m_initialized) {
    return EC_KS_not_initialized;
  }
  std::printf(" *********************************** HMK FILE **********************************\n");
  m_hmkFile->attributes().display();
  std::printf(" *********************************** KPK FILE **********************************\n");
  m_kpkFile->attributes().display();
  std::printf(" ****************************** KEY STORE METADATA *****************************\n");
  m_metadata->attributes().display();
  std::printf(" ******************************* KEY GROUP TABLE *******************************\n");
  m_groupTable->display();
  std::printf(" ********************************** KEY TABLE **********************************\n");
  m_keyTable->display();
  std::fflush(stdout);
  return 0;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
