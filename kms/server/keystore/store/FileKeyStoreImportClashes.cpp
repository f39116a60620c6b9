// The steps of an import's validation that settle clashes with the store:
// keys it already holds, group names it already uses, group tags it already
// uses, and the moving of keys along with a group that got a new tag. All
// run under the write lock, read the live tables and change only the
// import's own tables.
#include <openssl/crypto.h>

#include <ctime>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/crypto/SecureBytes.h"
#include "kms/server/keystore/records/RecordFields.h"
#include "kms/server/keystore/records/RecordUtils.h"
#include "kms/server/keystore/store/FileKeyStore.h"
#include "kms/server/keystore/store/KSOpStatus.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

const char* const kSuffixStem = "_IMPORTED_";

// Equal byte strings, in a time that does not depend on where they differ.
bool sameKey(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace

void FileKeyStore::removeDuplicateKeyRecords(KeyTable& krtable, GroupTable& kgtable,
                                             KSOpStatus& status) const {
  static const char* const kLabel = "FileKeyStore::removeDuplicateKeyRecords";
  KMS_TRACE_THIS(kLabel);
  std::vector<std::string> duplicate_tags;
  for (const auto& entry : krtable) {
    const KeyRecord_v1& imported = entry.second;
    const auto kgiter = kgtable.find(imported.keyGroup());
    KS_ASSERT(kLabel, kgiter != kgtable.end());
    const auto live = m_keyTable->find(imported.tag());
    if (live == m_keyTable->end()) {
      continue;
    }
    const KeyRecord_v1& existing = live->second;
    const auto kgsearchiter = m_groupTable->find(existing.keyGroup());
    if (kgsearchiter == m_groupTable->end()) {
      assertionFailed(kLabel, "kgsearchiter != m_kgtable->end()", __FILE__, __LINE__);
    }

    const Secret existingKey(
        m_kpkMgr->decryptKey(existing.key(), existing.kpkType(), existing.kpkTag()));
    const std::string_view key = imported.name();
    const std::string_view group = kgiter->second.name();
    const std::string_view otherKey = existing.name();
    const std::string_view otherGroup = kgsearchiter->second.name();
    if (sameKey(existingKey.str(), imported.key())) {
      KMS_DEBUG(kLabel, 1,
                "Ignoring key [" << key << "] from group [" << group
                                 << "] which is a duplicate of existing key [" << otherKey
                                 << "] from group [" << otherGroup << "]");
      status.addMessage(KSOpMessage(KSMSG_KEY_DUPLICATE, key, group, otherKey, otherGroup));
    } else {
      KMS_DEBUG(kLabel, 1,
                "Key [" << key << "] from group [" << group
                        << "] has the same tag as that of existing key [" << otherKey
                        << "] from group [" << otherGroup << "], but different value.");
      status.setErrCode(EC_KS_import_refused);
      status.addMessage(KSOpMessage(KSMSG_KEY_TAG_CONFLICT, key, group, otherKey, otherGroup));
    }
    duplicate_tags.emplace_back(imported.tag());
  }
  // The table is checked once when all are gone, not after every removal.
  krtable.setSkipInvariant(true);
  for (size_t i = 0; i < duplicate_tags.size(); ++i) {
    // The spacing inside the call is part of the logged assertion text.
    // clang-format off
    KS_ASSERT(kLabel, krtable.removeRecord( duplicate_tags[i] ));
    // clang-format on
  }
  krtable.setSkipInvariant(false);
  krtable.testInvariant();
}

std::string FileKeyStore::getUniqueKGNameSuffix(GroupTable& kg, int retries) const {
  static const char* const kLabel = "FileKeyStore::getUniqueKGNameSuffix";
  KMS_TRACE_THIS(kLabel);
  const time_t now = m_importClock ? m_importClock() : ::time(nullptr);
  const std::string stamp = kSuffixStem + Utils::getTimestampSuffix(now);
  std::string suffix;
  for (int i = 0; i < retries; ++i) {
    suffix = stamp;
    if (i > 0) {
      suffix += "_" + std::to_string(i);
    }
    // The names as the setter will keep them: a long name loses the end of
    // its suffix, or all of it, and may then meet a name of the store or
    // another imported one.
    bool unique = true;
    std::set<std::string> renamed;
    for (const auto& entry : kg) {
      const std::string_view name = entry.second.name();
      const std::string candidate = std::string(name) + suffix;
      if (findKeyGroupByName(*m_groupTable, candidate) != m_groupTable->end() ||
          !renamed.emplace(truncatedField(candidate)).second) {
        KMS_DEBUG(kLabel, 1, "Key Group [" << name << "] is not unique in existing database");
        unique = false;
        break;
      }
    }
    if (unique) {
      return suffix;
    }
  }
  KMS_DEBUG(kLabel, 1,
            "Exhausted retries attempting to generate unique key group name using suffix ["
                << suffix << "]");
  KMS_DEBUG(kLabel, 1, "Cannot proceed.");
  KS_THROW(EC_KS_internal_error, kLabel);
}

void FileKeyStore::addKGNameSuffix(GroupTable& kg, const std::string& suffix,
                                   KSOpStatus& status) const {
  static const char* const kLabel = "FileKeyStore::addKGNameSuffix";
  KMS_TRACE_THIS(kLabel);
  for (auto it = kg.begin(); it != kg.end(); ++it) {
    KeyGrpRecord_v1 renamed = it->second;
    // The setter cuts a name that grows too long, so the end of the suffix
    // may be lost; the message tells the name as it is kept.
    renamed.setName(std::string(it->second.name()) + suffix);
    KMS_DEBUG(kLabel, 1,
              "Changing key group [" << it->second.name() << "] to [" << renamed.name() << "]");
    status.addMessage(KSOpMessage(KSMSG_KEYGROUP_RENAMED, it->second.name(), renamed.name()));
    const bool updated = kg.updateRecord(renamed);
    KS_ASSERT(kLabel, updated == true);
  }
}

FileKeyStore::GroupTagMap FileKeyStore::regenerateKeyGroupTags(GroupTable& kg, KeyTable& kr,
                                                               KSOpStatus& status) const {
  static const char* const kLabel = "FileKeyStore::regenerateKeyGroupTags";
  KMS_TRACE_THIS(kLabel);
  GroupTagMap tagMap;
  GroupTable retagged;
  for (const auto& entry : kg) {
    KeyGrpRecord_v1 group = entry.second;
    if (m_groupTable->find(group.tag()) != m_groupTable->end()) {
      KMS_DEBUG(kLabel, 1, "Generating new tag for key group [" << group.name() << "]");
      const std::string tag = getNewTag(kr, kg);
      tagMap[std::string(group.tag())] = tag;
      group.setTag(tag);
      status.addMessage(KSOpMessage(KSMSG_KEYGROUP_NEW_TAG, group.name()));
    }
    const bool added = retagged.addRecord(group);
    KS_ASSERT(kLabel, added);
  }
  kg = retagged;
  return tagMap;
}

void FileKeyStore::updateTags(KeyTable& krtable, GroupTable& kg, const GroupTagMap& tagMap,
                              KSOpStatus& status) const {
  static const char* const kLabel = "FileKeyStore::updateTags";
  KMS_TRACE_THIS(kLabel);
  // Keys move between groups one by one; the table is checked once when
  // all have moved, not after every move.
  krtable.setSkipInvariant(true);
  try {
    for (auto it = krtable.begin(); it != krtable.end(); ++it) {
      const KeyRecord_v1& key = it->second;
      const auto mapped = tagMap.find(key.keyGroup());
      const std::string_view groupTag =
          mapped != tagMap.end() ? std::string_view(mapped->second) : key.keyGroup();
      const auto giter = kg.find(groupTag);
      if (giter == kg.end()) {
        KMS_DEBUG(kLabel, 1, "No key group for key [" << key.name() << "]");
        KS_THROW(EC_KS_internal_error, kLabel);
      }
      const std::string_view group = giter->second.name();
      if (mapped == tagMap.end()) {
        KMS_DEBUG(kLabel, 1,
                  "Key [" << key.name() << "] of key group [" << group << "] imported as-is");
        status.addMessage(KSOpMessage(KSMSG_KEY_IMPORTED, key.name(), group));
        continue;
      }
      KMS_DEBUG(
          kLabel, 1,
          "Updating key group tag for key [" << key.name() << "] of key group [" << group << "]");
      status.addMessage(KSOpMessage(KSMSG_KEY_GROUP_TAG_UPDATED, key.name(), group));
      KeyRecord_v1 newkr = key;
      newkr.setKeyGroup(groupTag);
      // The spacing inside the call is part of the logged assertion text.
      // clang-format off
      KS_ASSERT(kLabel, krtable.updateRecord( newkr ));
      // clang-format on
    }
  } catch (...) {
    krtable.setSkipInvariant(false);
    throw;
  }
  krtable.setSkipInvariant(false);
  krtable.testInvariant();
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
