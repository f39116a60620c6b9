// Import of an exported buffer: opened and parsed without the lock, then
// validated, settled against the store and committed under the write lock.
// Import does not look at the quiesce count.
//
// Every decision and finding of the validation is a message in the caller's
// status, and a preview stops right after the validation, so it reports
// exactly what the import would do. Nothing of the store changes before the
// commit: a refused import, a preview and any failure before the write leave
// the store as it was.
#include <ios>
#include <string>
#include <string_view>
#include <utility>

#include "kms/server/diagnostics/ErrorMapping.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/crypto/SecureBytes.h"
#include "kms/server/keystore/format/KSEximMetadata.h"
#include "kms/server/keystore/format/KSInputBuffer.h"
#include "kms/server/keystore/format/ReaderWriter.h"
#include "kms/server/keystore/store/ChangeAudit.h"
#include "kms/server/keystore/store/FileKeyStore.h"
#include "kms/server/keystore/store/KSOpStatus.h"
#include "kms/server/keystore/store/StoreLockGuards.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

const char* const kFipsAttribute = "KEY_FIPS";

// The export metadata: a malformed list or a version other than 0x200 is a
// damaged buffer; everything else an internal failure.
const ErrorMap kReadEximMetaMap{{EC_KS_internal_error},
                                {{{EC_KS_malformed, 1218}, EC_KS_invalid_store_file}},
                                EC_KS_internal_error};

// A failed commit: 1276, 1277 and 1200 go on as they are, anything else
// becomes 1200.
const ErrorMap kCommitFailureMap{
    {EC_KS_write_failed_nothing_changed, EC_KS_db_write_fail_changed, EC_KS_internal_error},
    {},
    EC_KS_internal_error};

bool limitExceeded(int64_t limit, size_t count) {
  return limit > 0 && count > static_cast<uint64_t>(limit);
}

}  // namespace

void FileKeyStore::setImportClock(std::function<time_t()> clock) {
  m_importClock = std::move(clock);
}

void FileKeyStore::importFromBuffer(const std::string& buffer, std::string passphrase,
                                    bool preserveNames, const std::string& description,
                                    KSOpStatus& status, bool previewOnly) {
  static const char* const kLabel = "FileKeyStore::importFromBuffer";
  KMS_TRACE_THIS(kLabel);
  Secret::Guard wipePassphrase(passphrase);
  // Tested before the lock, which is taken only once the buffer is parsed.
  if (!m_initialized) {
    KS_THROW(EC_KS_not_initialized, kLabel);
  }
  try {
    KeyTable kr(true);
    GroupTable kg;

    std::string plain;
    Secret::Guard wipePlain(plain);
    {
      KSInputBuffer sealed(buffer);
      ReaderWriter::readDataPasswordSecured(sealed, passphrase, plain);
    }
    KSInputBuffer content(std::move(plain));
    const KSEximMetadata meta = readEximMeta(content);
    KMS_DEBUG(kLabel, 1, "KS Version = 0x" << std::hex << meta.version());
    readKeyStore(content, kr, kg);
    if (kg.size() == 0) {
      KMS_DEBUG(kLabel, 1, "Keygroup table is empty: Nothing to import, cannot continue.");
      KS_THROW(EC_KS_bad_argument, kLabel);
    }

    StoreWriteGuard guard(m_lock, m_writerTurnstile);
    // The store may have closed while the buffer was being read.
    if (!m_initialized) {
      KS_THROW(EC_KS_not_initialized, kLabel);
    }
    validateImport(kr, kg, preserveNames, status);
    if (status.hasErrors()) {
      KMS_DEBUG(
          kLabel, 1,
          "Import validations failed. Returning with error code [" << status.errCode() << "]");
      return;
    }
    if (previewOnly) {
      KMS_DEBUG(kLabel, 1,
                "Import validations completed as requested. Preview complete. Returning.");
      return;
    }
    if (!description.empty()) {
      KMS_DEBUG(kLabel, 1, "Setting description [" << description << "]");
      updateDescription(kr, kg, description);
    }
    encryptKeyRecords(kr, *m_kpkMgr);
    importKeysAndKeyGroups(kg, kr);
  } catch (const KeyStoreError& error) {
    KMS_DEBUG(kLabel, 1, "Exception Caught: " << error.str(true));
    status.setErrCode(error.status());
  }
}

KSEximMetadata FileKeyStore::readEximMeta(KSInputBuffer& buffer) {
  static const char* const kLabel = "FileKeyStore::readEximMeta";
  KMS_TRACE(kLabel);
  return translateErrors(kLabel, kReadEximMetaMap, [&] {
    AttributeList list;
    ReaderWriter::readAttributeList(buffer, list);
    return KSEximMetadata(list);
  });
}

void FileKeyStore::validateImport(KeyTable& kr, GroupTable& kg, bool preserveNames,
                                  KSOpStatus& status) const {
  static const char* const kLabel = "FileKeyStore::validateImport";
  KMS_TRACE_THIS(kLabel);
  if (limitExceeded(m_maxKeyGroups, m_groupTable->size() + kg.size())) {
    KS_THROW(EC_KS_too_many_groups, kLabel);
  }
  if (!isKeyStoreSane(kr, kg)) {
    KMS_DEBUG(kLabel, 1, "Input tables fail the key store sanity test!");
    KS_THROW(EC_KS_malformed, kLabel);
  }

  removeDuplicateKeyRecords(kr, kg, status);

  GroupTagMap tagMap;
  if (!preserveNames) {
    const std::string suffix = getUniqueKGNameSuffix(kg, 10);
    KMS_DEBUG(kLabel, 1, "Unique kg name suffix: [" << suffix << "]");
    addKGNameSuffix(kg, suffix, status);
    tagMap = regenerateKeyGroupTags(kg, kr, status);
  } else {
    KMS_DEBUG(kLabel, 1, "Preserving key group names");
    for (const auto& entry : kg) {
      const KeyGrpRecord_v1& group = entry.second;
      const auto byName = findKeyGroupByName(*m_groupTable, group.name());
      const auto byTag = m_groupTable->find(group.tag());
      if (byName != m_groupTable->end()) {
        KMS_DEBUG(kLabel, 1, "Key group [" << group.name() << "] already exists in the database");
        status.setErrCode(EC_KS_import_refused);
        status.addMessage(KSOpMessage(KSMSG_KEYGROUP_EXISTS, group.name()));
      }
      if (byTag != m_groupTable->end()) {
        const std::string_view other = byTag->second.name();
        KMS_DEBUG(kLabel, 1,
                  "Tag for key group [" << group.name()
                                        << "]  conflicts with the existing key group [" << other
                                        << "]");
        status.setErrCode(EC_KS_import_refused);
        status.addMessage(KSOpMessage(KSMSG_KEYGROUP_TAG_CONFLICT, group.name(), other));
      }
      if (byName == m_groupTable->end() && byTag == m_groupTable->end()) {
        KMS_DEBUG(kLabel, 1, "Key group [" << group.name() << "] imported as-is");
        status.addMessage(KSOpMessage(KSMSG_KEYGROUP_IMPORTED, group.name()));
      }
    }
  }

  updateTags(kr, kg, tagMap, status);

  if (m_maxKeysPerGroup > 0) {
    for (const auto& entry : kg) {
      const KeyGrpRecord_v1& group = entry.second;
      if (limitExceeded(m_maxKeysPerGroup, kr.getNumKeysInGroup(group.tag()))) {
        KMS_DEBUG(kLabel, 1,
                  "Key group [" << group.name() << "] exceeds the limit of maximum allowed keys");
        status.setErrCode(EC_KS_import_refused);
        status.addMessage(KSOpMessage(KSMSG_KEYGROUP_KEY_LIMIT, group.name()));
      }
    }
  }
}

void FileKeyStore::updateDescription(KeyTable& kr, GroupTable& kg,
                                     const std::string& description) const {
  KMS_TRACE_THIS("FileKeyStore::updateDescription");
  kg.changeEach([&](KeyGrpRecord_v1& group) { group.setDescription(description); });
  kr.changeEach([&](KeyRecord_v1& key) { key.setDescription(description); });
}

void FileKeyStore::importKeysAndKeyGroups(GroupTable& kg, KeyTable& kr) {
  static const char* const kLabel = "FileKeyStore::importKeysAndKeyGroups";
  KMS_TRACE_THIS(kLabel);
  auto kgtable = std::make_unique<GroupTable>(*m_groupTable);
  auto krtable = std::make_unique<KeyTable>(*m_keyTable);

  for (const auto& entry : kg) {
    const KeyGrpRecord_v1& group = entry.second;
    KMS_DEBUG(kLabel, 1, "Importing key group [" << group.name() << "]");
    const bool added = kgtable->addRecord(group);
    KS_ASSERT(kLabel, added);
    ChangeAudit::groupAdded(kLabel, group);
  }
  // The table is checked once when whole, not after every record.
  krtable->setSkipInvariant(true);
  for (const auto& entry : kr) {
    const KeyRecord_v1& key = entry.second;
    KMS_DEBUG(kLabel, 1, "Importing key [" << key.name() << "]");
    const bool added = krtable->addRecord(key);
    KS_ASSERT(kLabel, added);
    // An imported key was made elsewhere: any recorded FIPS decision counts.
    ChangeAudit::keyAdded(kLabel, key, !key.attributes().getAttribute(kFipsAttribute).empty());
  }
  krtable->setSkipInvariant(false);
  krtable->testInvariant();

  if (!isKeyStoreSane(*krtable, *kgtable)) {
    KMS_DEBUG(kLabel, 1, "Imported tables fail the key store sanity test!");
    KS_THROW(EC_KS_internal_error, kLabel);
  }

  try {
    writeToFile(*m_hmkFile, *m_kpkFile, *m_metadata, *krtable, *kgtable, m_locator);
  } catch (const KeyStoreError& error) {
    // Only a write known to have left the disk alone keeps the store open.
    if (error.status() != EC_KS_write_failed_nothing_changed) {
      deinitialize();
    }
    rethrowTranslated(kLabel, error, kCommitFailureMap);
  } catch (...) {
    deinitialize();
    rethrowUnexpected(kLabel, kCommitFailureMap);
  }
  m_groupTable = std::move(kgtable);
  m_keyTable = std::move(krtable);
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
