// Changes of single keys and key groups. Each takes the write lock, refuses a
// closed store (1202) and a quiesced one (1279), checks its arguments against
// the live tables, makes the change on a private copy of the table it
// changes, writes the audit entries, commits the copy with writeToFile and
// only then puts it in place. A reader therefore never sees a change that is
// not on disk, and a refused change leaves the live tables as they were.
//
// A failed commit decides the store's fate by its code: 1276 means the disk
// is unchanged and the store goes on serving its old tables; after any other
// code memory and disk may differ, so the store is closed (deinitialize) and
// answers 1202 until the next init, which finishes the commit on disk.
#include <cctype>
#include <ctime>
#include <string>
#include <string_view>

#include "kms/platform/Fips.h"
#include "kms/server/diagnostics/ErrorMapping.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/crypto/KeyGen.h"
#include "kms/server/keystore/crypto/SecureBytes.h"
#include "kms/server/keystore/crypto/TagGen.h"
#include "kms/server/keystore/format/KSMetadata.h"
#include "kms/server/keystore/format/KeyFile.h"
#include "kms/server/keystore/records/RecordUtils.h"
#include "kms/server/keystore/store/ChangeAudit.h"
#include "kms/server/keystore/store/FileKeyStore.h"
#include "kms/server/keystore/store/StoreLockGuards.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

// Status codes used by number.

// Catalogued message: a key could not be generated.
constexpr int kMsgNoKey = 50;

// Tries of the random source for one key, and of the tag source for one tag.
constexpr int kKeyTries = 20;
constexpr int kTagTries = 100;

const char* const kSaltAttribute = "KEY_SALT";
const char* const kFipsAttribute = "KEY_FIPS";

// Wrapping a new key and filling its record: whatever fails, the caller
// learns only that the store could not do it.
ErrorMap internalErrorMap() {
  ErrorMap map{{}, {}, EC_KS_internal_error};
  map.otherwiseText = "Mapping and Rethrowing Exception as: ";
  return map;
}
const ErrorMap kInternalErrorMap = internalErrorMap();

// A failed commit: 1276, 1277 and 1200 go on as they are, anything else
// becomes 1200.
const ErrorMap kCommitFailureMap{
    {EC_KS_write_failed_nothing_changed, EC_KS_db_write_fail_changed, EC_KS_internal_error},
    {},
    EC_KS_internal_error};

// The two refusals every change makes first, in this order.
// 1214 for a record whose attributes go beyond the bounds of a record's list.
void refuseOversizedAttributes(const char* label, const AttributeList& attributes) {
  if (!attributes.withinRecordBounds()) {
    KMS_DEBUG(label, 1, "Too many or too long attributes: " << attributes.size());
    KS_THROW(EC_KS_bad_argument, label);
  }
}

void refuseClosedOrQuiesced(const char* label, bool initialized, uint64_t quiesceCount) {
  if (!initialized) {
    KS_THROW(EC_KS_not_initialized, label);
  }
  if (quiesceCount != 0) {
    KS_THROW(EC_KS_quiesced, label);
  }
}

uint64_t now() {
  return static_cast<uint64_t>(::time(nullptr));
}

// Whether a limit taken from the configuration has been reached; 0 is none.
bool limitReached(int64_t limit, size_t count) {
  return limit > 0 && count >= static_cast<uint64_t>(limit);
}

// The rule of one active key per group: if `group` has an active key in
// `keys` (a private copy), it becomes KEY_INACTIVE with update time `when`
// and its revision raised by one, and the demotion is audited. Never refuses.
void demoteActiveKey(const char* label, FileKeyStore::KeyTable& keys, std::string_view group,
                     uint64_t when) {
  KMS_TRACE("FileKeyStore::demoteActiveKey");
  // A copy: the table's view dies with the change.
  const std::string activeTag(keys.getActiveKeyInGroup(group));
  if (activeTag.empty()) {
    return;
  }
  const KeyRecord_v1 before = keys.getRecord(activeTag);
  KeyRecord_v1 after = before;
  after.setState(KEY_INACTIVE);
  after.setUpdateTime(when);
  after.setRev(before.rev() + 1);
  const bool updated = keys.updateRecord(after);
  KS_ASSERT(label, updated == true);
  ChangeAudit::keyDemoted(label, before, after);
}

// The plain value of a new key and where it came from.
struct NewKey {
  std::string key;   // plain; the caller wipes it
  std::string salt;  // empty when the key has none
  bool fipsAcceptable = false;
};

// The key material of an add, by passphrase and origin of the tag. Throws
// 1212 for a passphrase that gives a bad key, 1200 when no salt or no key
// can be had (message 50 for the latter), and 1282 for a salt in `rec` that
// is not one.
NewKey makeKey(const char* label, const KeyRecord_v1& rec, const std::string& passphrase,
               bool withTag, ks_ciphertype_t cipherType) {
  KMS_TRACE("FileKeyStore::makeKey");
  const size_t length = Utils::cipherTypeToKeyLen(cipherType);
  NewKey made;
  if (passphrase.empty()) {
    // A random key; a known tag never gets here (refused with 1212).
    made.fipsAcceptable = true;
    for (int attempt = 0; attempt < kKeyTries; ++attempt) {
      made.key = KeyGen::generateRandomKey(length);
      if (!FileKeyStore::isBadKey(made.key)) {
        break;
      }
      wipeString(made.key);
    }
  } else if (!withTag) {
    made.fipsAcceptable = true;
    made.salt = KeyGen::generateSalt();
    if (made.salt.empty()) {
      KS_THROW(EC_KS_internal_error, label);
    }
    made.key = KeyGen::passphraseToKey(passphrase, made.salt, length);
    if (FileKeyStore::isBadKey(made.key)) {
      wipeString(made.key);
      KS_THROW(EC_KS_bad_passphrase, label);
    }
  } else if (rec.attributes().find(kSaltAttribute) != rec.attributes().end()) {
    // A key known by its passphrase comes back with the value it had.
    made.fipsAcceptable = true;
    made.salt = Utils::hexToBin(std::string(rec.attributes().getAttribute(kSaltAttribute)));
    made.key = KeyGen::passphraseToKey(passphrase, made.salt, length);
  } else {
    // The same, for a key of the older derivation without salt.
    made.fipsAcceptable = false;
    made.key = KeyGen::passphraseToKey_deprecated(passphrase, cipherType);
  }
  if (made.key.empty()) {
    logAppMessage(label, CRVN_SEV_ERROR, kMsgNoKey);
    KS_THROW(EC_KS_internal_error, label);
  }
  return made;
}

// Refuses an update that changes nothing but the key, or that was made from a stale read.
void refuseUnchangedOrStale(const char* label, const KeyRecord_v1& old, const KeyRecord_v1& rec) {
  {
    // The key takes no part: this operation never changes it.
    KeyRecord_v1 storedWithoutKey = old;
    storedWithoutKey.setKey(std::string());
    KeyRecord_v1 givenWithoutKey = rec;
    givenWithoutKey.setKey(std::string());
    if (storedWithoutKey == givenWithoutKey) {
      KS_THROW(EC_KS_nothing_to_change, label);
    }
  }
  // The caller must have read the current record.
  if (rec.createTime() != old.createTime() || rec.updateTime() != old.updateTime() ||
      rec.rev() != old.rev()) {
    KS_THROW(EC_KS_stale_record, label);
  }
}

// Refuses moving a key from group `from` into group `to` unless `to` exists, has room and
// shares the cipher type.
void refuseGroupMove(const char* label, const FileKeyStore::GroupTable& groups,
                     const FileKeyStore::KeyTable& keys, int64_t maxKeysPerGroup,
                     std::string_view from, std::string_view to) {
  const auto ngiter = groups.find(to);
  if (ngiter == groups.end()) {
    KS_THROW(EC_KS_unknown_group, label);
  }
  if (limitReached(maxKeysPerGroup, keys.getNumKeysInGroup(to))) {
    KS_THROW(EC_KS_too_many_keys_in_group, label);
  }
  const auto ogiter = groups.find(from);
  if (ogiter == groups.end()) {
    assertionFailed(label, "ogiter != m_kgtable->end()", __FILE__, __LINE__);
  }
  if (ngiter->second.cipherType() != ogiter->second.cipherType()) {
    KS_THROW(EC_KS_cipher_type_differs, label);
  }
}

bool isAsciiByte(char c) {
  return static_cast<unsigned char>(c) < 0x80;
}

}  // namespace

// Commits the tables (a copy where they change, the live one where they do
// not). On failure the store is closed unless the disk is known to be
// unchanged (1276); then the error is rethrown under kCommitFailureMap.
void FileKeyStore::commitChange(const char* label, const KeyTable& keys, const GroupTable& groups) {
  KMS_TRACE("FileKeyStore::commitChange");
  try {
    writeToFile(*m_hmkFile, *m_kpkFile, *m_metadata, keys, groups, m_locator);
  } catch (const KeyStoreError& error) {
    if (error.status() != EC_KS_write_failed_nothing_changed) {
      deinitialize();
    }
    rethrowTranslated(label, error, kCommitFailureMap);
  } catch (...) {
    deinitialize();
    rethrowUnexpected(label, kCommitFailureMap);
  }
}

// ---- Validity rules ----

bool FileKeyStore::isValidKeyStateChange(ks_keystate_t from, ks_keystate_t to) {
  if (from == to) {
    return true;
  }
  switch (from) {
    case KEY_PRELIVE:
      return to == KEY_ACTIVE;
    case KEY_ACTIVE:
      return to == KEY_INACTIVE;
    case KEY_INACTIVE:
      return to == KEY_ACTIVE || to == KEY_DEPRECATED;
    case KEY_DEPRECATED:
      return to == KEY_INACTIVE || to == KEY_TERMINATED;
    case KEY_TERMINATED:
      return to == KEY_DEPRECATED;
    default:
      return false;
  }
}

bool FileKeyStore::isValidKeyState(ks_keystate_t state) {
  return state >= KEY_ACTIVE && state <= KEY_TERMINATED;
}

bool FileKeyStore::isValidCipherType(ks_ciphertype_t type) {
  return type >= CT_AES128_CBC && type <= CT_BLOW_CBC;
}

bool FileKeyStore::IsValidName(std::string_view name) {
  // Bytes above 127 are neither alphanumeric nor space in the C locale; they
  // are refused before the classification, which is defined for them only
  // as unsigned values.
  if (name.empty() || !isAsciiByte(name[0]) || std::isalnum(name[0]) == 0) {
    return false;
  }
  for (const char c : name) {
    if (!isAsciiByte(c)) {
      return false;
    }
    if (std::isalnum(c) == 0 && std::isspace(c) == 0 && c != '.' && c != ':' && c != '-' &&
        c != '_') {
      return false;
    }
  }
  return true;
}

// ---- Tags ----

std::string FileKeyStore::getNewTag() const {
  static const char* const kLabel = "FileKeyStore::getNewTag";
  KMS_TRACE_THIS(kLabel);
  for (int attempt = 0; attempt < kTagTries; ++attempt) {
    std::string tag = TagGen::newTag();
    if (!tag.empty() && !isBadTag(tag) && m_groupTable->find(tag) == m_groupTable->end() &&
        m_keyTable->find(tag) == m_keyTable->end()) {
      return tag;
    }
  }
  KS_THROW(EC_KS_internal_error, kLabel);
}

std::string FileKeyStore::getNewTag(const KeyTable& kr, const GroupTable& kg) const {
  static const char* const kLabel = "FileKeyStore::getNewTag";
  KMS_TRACE_THIS(kLabel);
  for (int attempt = 0; attempt < kTagTries; ++attempt) {
    std::string tag = getNewTag();
    if (tag.empty()) {
      break;
    }
    if (kr.find(tag) == kr.end() && kg.find(tag) == kg.end()) {
      return tag;
    }
  }
  KS_THROW(EC_KS_internal_error, kLabel);
}

// ---- Keys ----

KeyRecord_v1 FileKeyStore::addKeyWithKnownTag(const KeyRecord_v1& rec,
                                              const std::string& passphrase) {
  static const char* const kLabel = "FileKeyStore::addKeyWithKnownTag";
  KMS_TRACE_THIS(kLabel);
  StoreWriteGuard guard(m_lock, m_writerTurnstile);
  refuseClosedOrQuiesced(kLabel, m_initialized, m_quiesceCount);
  // A key comes back with its tag only from the passphrase that made it.
  if (passphrase.empty()) {
    KS_THROW(EC_KS_bad_passphrase, kLabel);
  }
  KeyRecord_v1 result = addKeyWithOrWithout(rec, passphrase, true);
  keyRecordFilter(result, true);
  return result;
}

KeyRecord_v1 FileKeyStore::addKey(const KeyRecord_v1& rec, const std::string& passphrase) {
  static const char* const kLabel = "FileKeyStore::addKey";
  KMS_TRACE_THIS(kLabel);
  StoreWriteGuard guard(m_lock, m_writerTurnstile);
  refuseClosedOrQuiesced(kLabel, m_initialized, m_quiesceCount);
  KeyRecord_v1 result = addKeyWithOrWithout(rec, passphrase, false);
  keyRecordFilter(result, true);
  return result;
}

KeyRecord_v1 FileKeyStore::addKeyWithOrWithout(const KeyRecord_v1& rec,
                                               const std::string& passphrase, bool withTag) {
  static const char* const kLabel = "FileKeyStore::addKeyWithOrWithout";
  KMS_TRACE_THIS(kLabel);

  if (rec.name().empty()) {
    KS_THROW(EC_KS_bad_argument, kLabel);
  }
  if (!IsValidName(rec.name())) {
    KS_THROW(EC_KS_bad_name, kLabel);
  }
  refuseOversizedAttributes(kLabel, rec.attributes());
  if (withTag ? rec.state() != KEY_INACTIVE
              : rec.state() != KEY_ACTIVE && rec.state() != KEY_PRELIVE) {
    KS_THROW(EC_KS_bad_argument, kLabel);
  }
  if (withTag && rec.tag().empty()) {
    KS_THROW(EC_KS_empty_tag, kLabel);
  }
  const auto giter = m_groupTable->find(rec.keyGroup());
  if (giter == m_groupTable->end()) {
    KS_THROW(EC_KS_unknown_group, kLabel);
  }
  if (limitReached(m_maxKeysPerGroup, m_keyTable->getNumKeysInGroup(rec.keyGroup()))) {
    KS_THROW(EC_KS_too_many_keys_in_group, kLabel);
  }
  if (findKeyByName(*m_keyTable, rec.keyGroup(), rec.name()) != m_keyTable->end()) {
    KS_THROW(EC_KS_key_name_exists, kLabel);
  }
  std::string tag;
  if (withTag) {
    if (m_keyTable->find(rec.tag()) != m_keyTable->end()) {
      KS_THROW(EC_KS_tag_exists, kLabel);
    }
    tag = rec.tag();
  } else {
    tag = getNewTag();
  }

  NewKey made = makeKey(kLabel, rec, passphrase, withTag, giter->second.cipherType());
  Secret::Guard wipeKey(made.key);
  const std::string wrapped =
      translateErrors(kLabel, kInternalErrorMap, [&]() NO_THREAD_SAFETY_ANALYSIS {
        return m_kpkMgr->encryptKey(made.key, rec.kpkType(), rec.kpkTag());
      });

  const uint64_t when = now();
  auto krtable = std::make_unique<KeyTable>(*m_keyTable);
  if (rec.state() == KEY_ACTIVE) {
    demoteActiveKey(kLabel, *krtable, rec.keyGroup(), when);
  }

  const bool fipsKey = made.fipsAcceptable && FIPS_mode() != 0;
  const KeyRecord_v1 newRecord = translateErrors(kLabel, kInternalErrorMap, [&] {
    KeyRecord_v1 fresh;
    fresh.setFields(tag, rec.name(), rec.keyGroup(), rec.state(), when, when, rec.description(), 1,
                    rec.kpkType(), rec.kpkTag(), wrapped);
    fresh.attributes() = rec.attributes();
    fresh.addOrUpdateKRAttribute(kFipsAttribute, fipsKey ? "true" : "false");
    if (made.salt.empty()) {
      fresh.attributes().removeAttribute(kSaltAttribute);
    } else {
      fresh.addOrUpdateKRAttribute(kSaltAttribute, Utils::binToHex(made.salt));
    }
    return fresh;
  });
  const bool added = krtable->addRecord(newRecord);
  KS_ASSERT(kLabel, added);
  ChangeAudit::keyAdded(kLabel, newRecord, fipsKey);

  commitChange(kLabel, *krtable, *m_groupTable);
  m_keyTable = std::move(krtable);
  return m_keyTable->getRecord(tag);
}

KeyRecord_v1 FileKeyStore::updateKeyRecord(const KeyRecord_v1& rec) {
  static const char* const kLabel = "FileKeyStore::updateKeyRecord";
  KMS_TRACE_THIS(kLabel);
  StoreWriteGuard guard(m_lock, m_writerTurnstile);
  refuseClosedOrQuiesced(kLabel, m_initialized, m_quiesceCount);

  if (rec.name().empty() || !isValidKeyState(rec.state())) {
    KS_THROW(EC_KS_bad_argument, kLabel);
  }
  if (!IsValidName(rec.name())) {
    KS_THROW(EC_KS_bad_name, kLabel);
  }
  refuseOversizedAttributes(kLabel, rec.attributes());
  const auto kiter = m_keyTable->find(rec.tag());
  if (kiter == m_keyTable->end()) {
    KS_THROW(EC_KS_unknown_key, kLabel);
  }
  const KeyRecord_v1 old = kiter->second;
  refuseUnchangedOrStale(kLabel, old, rec);
  if (rec.kpkType() != old.kpkType() || rec.kpkTag() != old.kpkTag()) {
    KS_THROW(EC_KS_kpk_changed, kLabel);
  }
  if (!isValidKeyStateChange(old.state(), rec.state())) {
    KS_THROW(EC_KS_state_change_refused, kLabel);
  }
  const bool groupChanges = rec.keyGroup() != old.keyGroup();
  if (groupChanges) {
    refuseGroupMove(kLabel, *m_groupTable, *m_keyTable, m_maxKeysPerGroup, old.keyGroup(),
                    rec.keyGroup());
  }
  if ((groupChanges || rec.name() != old.name()) &&
      findKeyByName(*m_keyTable, rec.keyGroup(), rec.name()) != m_keyTable->end()) {
    KS_THROW(EC_KS_key_name_exists, kLabel);
  }

  const uint64_t when = now();
  auto krtable = std::make_unique<KeyTable>(*m_keyTable);
  // One active key per group, also for a key that moves in as the active one.
  if ((groupChanges || rec.state() != old.state()) && rec.state() == KEY_ACTIVE) {
    demoteActiveKey(kLabel, *krtable, rec.keyGroup(), when);
  }

  KeyRecord_v1 result = old;
  result.setKeyGroup(rec.keyGroup());
  result.setName(rec.name());
  result.setState(rec.state());
  result.setDescription(rec.description());
  result.attributes() = rec.attributes();
  result.setUpdateTime(when);
  result.setRev(rec.rev() + 1);
  const bool updated = krtable->updateRecord(result);
  KS_ASSERT(kLabel, updated == true);
  ChangeAudit::keyUpdated(kLabel, old, result);

  commitChange(kLabel, *krtable, *m_groupTable);
  m_keyTable = std::move(krtable);
  keyRecordFilter(result, true);
  return result;
}

void FileKeyStore::deleteKeyRecord(const std::string& tag) {
  static const char* const kLabel = "FileKeyStore::deleteKeyRecord";
  KMS_TRACE_THIS(kLabel);
  StoreWriteGuard guard(m_lock, m_writerTurnstile);
  refuseClosedOrQuiesced(kLabel, m_initialized, m_quiesceCount);

  const auto kiter = m_keyTable->find(tag);
  if (kiter == m_keyTable->end()) {
    KS_THROW(EC_KS_unknown_key, kLabel);
  }
  // Only the two ends of a key's life can go: never used, or used up.
  if (kiter->second.state() != KEY_PRELIVE && kiter->second.state() != KEY_TERMINATED) {
    KS_THROW(EC_KS_not_deletable, kLabel);
  }
  // A copy: `tag` may refer into the table that is replaced.
  const std::string doomed(tag);
  auto krtable = std::make_unique<KeyTable>(*m_keyTable);
  const bool removed = krtable->removeRecord(doomed);
  KS_ASSERT(kLabel, removed);
  ChangeAudit::keyDeleted(kLabel, doomed);

  commitChange(kLabel, *krtable, *m_groupTable);
  m_keyTable = std::move(krtable);
}

// ---- Key groups ----

KeyGrpRecord_v1 FileKeyStore::addKeyGroup(const KeyGrpRecord_v1& rec) {
  static const char* const kLabel = "FileKeyStore::addKeyGroup";
  KMS_TRACE_THIS(kLabel);
  StoreWriteGuard guard(m_lock, m_writerTurnstile);
  refuseClosedOrQuiesced(kLabel, m_initialized, m_quiesceCount);

  if (rec.name().empty() || !isValidCipherType(rec.cipherType())) {
    KS_THROW(EC_KS_bad_argument, kLabel);
  }
  if (!IsValidName(rec.name())) {
    KS_THROW(EC_KS_bad_name, kLabel);
  }
  refuseOversizedAttributes(kLabel, rec.attributes());
  if (limitReached(m_maxKeyGroups, m_groupTable->size())) {
    KS_THROW(EC_KS_too_many_groups, kLabel);
  }
  if (findKeyGroupByName(*m_groupTable, rec.name()) != m_groupTable->end()) {
    KS_THROW(EC_KS_group_name_exists, kLabel);
  }
  // A group's tag is always the store's own; one in `rec` is ignored.
  const std::string tag = getNewTag();
  const uint64_t when = now();
  auto kgtable = std::make_unique<GroupTable>(*m_groupTable);
  KeyGrpRecord_v1 fresh;
  fresh.setFields(tag, rec.name(), rec.cipherType(), when, when, rec.description(), 1);
  fresh.attributes() = rec.attributes();
  const bool added = kgtable->addRecord(fresh);
  KS_ASSERT(kLabel, added);
  ChangeAudit::groupAdded(kLabel, fresh);

  commitChange(kLabel, *m_keyTable, *kgtable);
  m_groupTable = std::move(kgtable);
  KeyGrpRecord_v1 result = m_groupTable->getRecord(tag);
  keyGroupRecordFilter(result);
  return result;
}

KeyGrpRecord_v1 FileKeyStore::updateKeyGroupRecord(const KeyGrpRecord_v1& rec) {
  static const char* const kLabel = "FileKeyStore::updateKeyGroupRecord";
  KMS_TRACE_THIS(kLabel);
  StoreWriteGuard guard(m_lock, m_writerTurnstile);
  refuseClosedOrQuiesced(kLabel, m_initialized, m_quiesceCount);

  if (rec.name().empty()) {
    KS_THROW(EC_KS_bad_argument, kLabel);
  }
  if (!IsValidName(rec.name())) {
    KS_THROW(EC_KS_bad_name, kLabel);
  }
  refuseOversizedAttributes(kLabel, rec.attributes());
  const auto giter = m_groupTable->find(rec.tag());
  if (giter == m_groupTable->end()) {
    KS_THROW(EC_KS_unknown_group, kLabel);
  }
  const KeyGrpRecord_v1 old = giter->second;
  if (old == rec) {
    KS_THROW(EC_KS_nothing_to_change, kLabel);
  }
  // A group's cipher type never changes; trying is refused like a stale copy.
  if (rec.createTime() != old.createTime() || rec.updateTime() != old.updateTime() ||
      rec.rev() != old.rev() || rec.cipherType() != old.cipherType()) {
    KS_THROW(EC_KS_stale_record, kLabel);
  }
  if (rec.name() != old.name() &&
      findKeyGroupByName(*m_groupTable, rec.name()) != m_groupTable->end()) {
    KS_THROW(EC_KS_group_name_exists, kLabel);
  }

  const uint64_t when = now();
  KeyGrpRecord_v1 result = old;
  result.setName(rec.name());
  result.setDescription(rec.description());
  result.attributes() = rec.attributes();
  result.setUpdateTime(when);
  result.setRev(rec.rev() + 1);
  auto kgtable = std::make_unique<GroupTable>(*m_groupTable);
  const bool updated = kgtable->updateRecord(result);
  KS_ASSERT(kLabel, updated == true);
  ChangeAudit::groupUpdated(kLabel, old, result);

  commitChange(kLabel, *m_keyTable, *kgtable);
  m_groupTable = std::move(kgtable);
  keyGroupRecordFilter(result);
  return result;
}

void FileKeyStore::deleteKeyGroupRecord(const std::string& tagToDelete, bool force) {
  static const char* const kLabel = "FileKeyStore::deleteKeyGroupRecord";
  KMS_TRACE_THIS(kLabel);
  StoreWriteGuard guard(m_lock, m_writerTurnstile);
  refuseClosedOrQuiesced(kLabel, m_initialized, m_quiesceCount);

  if (m_groupTable->find(tagToDelete) == m_groupTable->end()) {
    KS_THROW(EC_KS_unknown_group, kLabel);
  }
  const bool hasKeys = m_keyTable->getNumKeysInGroup(tagToDelete) != 0;
  if (hasKeys && !force) {
    KS_THROW(EC_KS_group_not_empty, kLabel);
  }
  // A copy: `tagToDelete` may refer into a table that is replaced.
  const std::string tag(tagToDelete);

  // The key table changes only when keys go with the group; `force`
  // overrides the states in which a key may be deleted.
  std::unique_ptr<KeyTable> krtable;
  if (hasKeys) {
    krtable = std::make_unique<KeyTable>(*m_keyTable);
    const KeyTable::TagList members = krtable->getTagsByGroup(tag).strings();
    for (const std::string& member : members) {
      const auto ikrec = krtable->find(member);
      KS_ASSERT(kLabel, ikrec != krtable->end());
      const bool removed = krtable->removeRecord(member);
      KS_ASSERT(kLabel, removed == true);
    }
    // The spacing inside the call is part of the logged assertion text.
    // clang-format off
    KS_ASSERT(kLabel, krtable->getNumKeysInGroup( tag ) == 0);
    // clang-format on
  }
  auto kgtable = std::make_unique<GroupTable>(*m_groupTable);
  const bool removed = kgtable->removeRecord(tag);
  KS_ASSERT(kLabel, removed == true);
  ChangeAudit::groupDeleted(kLabel, tag);

  commitChange(kLabel, krtable ? *krtable : *m_keyTable, *kgtable);
  if (krtable) {
    m_keyTable = std::move(krtable);
  }
  m_groupTable = std::move(kgtable);
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
