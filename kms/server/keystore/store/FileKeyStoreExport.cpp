// Export of the whole store or a selection of groups and keys into one
// passphrase-sealed buffer. Runs under the read lock; nothing of the store
// changes.
//
// The plaintext of the buffer is the export metadata's attribute list
// followed by the two tables in the layout of the store file, with every key
// unwrapped, so that the buffer does not depend on this store's master keys.
// It is built in a SecureBytes buffer and then sealed under the passphrase.
#include <string>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/crypto/SecureBytes.h"
#include "kms/server/keystore/format/KSEximMetadata.h"
#include "kms/server/keystore/format/KSOutStream.h"
#include "kms/server/keystore/format/ReaderWriter.h"
#include "kms/server/keystore/format/SecureBytesOutDest.h"
#include "kms/server/keystore/format/StringOutDest.h"
#include "kms/server/keystore/store/ExportSelection.h"
#include "kms/server/keystore/store/FileKeyStore.h"
#include "kms/server/keystore/store/KSOpStatus.h"
#include "kms/server/keystore/store/StoreLockGuards.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

// Runs `write` on a non-encrypting stream over `dest` and flushes it. On a
// failure the stream's buffered bytes are dropped before it goes, as the
// output is abandoned with the error.
template <typename Write>
void writeThrough(KSOutDest& dest, Write&& write) {
  KSOutStream out(dest, nullptr, KSOutStream::kBufferSize);
  try {
    write(out);
    out.flush(true);
  } catch (...) {
    out.discard();
    throw;
  }
}

// Adds the records of the selection from the live tables to `keys` and
// `groups`. Every unknown group (message 1) and unknown key (message 8) is
// reported in `status`; from the first one on nothing more is added. Returns
// 0, or 1214 if anything was unknown.
int gatherSelection(const char* label, const ExportSelection::GroupMap& wanted,
                    const FileKeyStore::KeyTable& liveKeys,
                    const FileKeyStore::GroupTable& liveGroups, FileKeyStore::KeyTable& keys,
                    FileKeyStore::GroupTable& groups, KSOpStatus& status) {
  KMS_TRACE("FileKeyStore::gatherSelection");
  int code = 0;
  for (const auto& entry : wanted) {
    const std::string& groupName = entry.first;
    const auto giter = FileKeyStore::findKeyGroupByName(liveGroups, groupName);
    if (giter == liveGroups.end()) {
      KMS_DEBUG(label, 1, "ERR: KeyGroup " << groupName << " does not exist");
      status.addMessage(KSOpMessage(KSMSG_KEYGROUP_NOT_FOUND, groupName));
      code = EC_KS_bad_argument;
      continue;
    }
    const KeyGrpRecord_v1& group = giter->second;
    if (code == 0) {
      KMS_DEBUG(label, 1, "Exporting KeyGroup " << groupName);
      const bool added = groups.addRecord(group);
      KS_ASSERT(label, added);
    }
    for (const std::string& keyName : entry.second) {
      if (keyName == ExportSelection::kAllKeys) {
        if (code != 0) {
          continue;
        }
        for (const std::string_view tag : liveKeys.getTagsByGroup(group.tag())) {
          const KeyRecord_v1& rec = liveKeys.getRecord(tag);
          KMS_DEBUG(label, 1, "Exporting Key " << rec.name() << " in Key Group " << groupName);
          const bool added = keys.addRecord(rec);
          KS_ASSERT(label, added);
        }
        continue;
      }
      const auto kiter = FileKeyStore::findKeyByName(liveKeys, group.tag(), keyName);
      if (kiter == liveKeys.end()) {
        KMS_DEBUG(label, 1, "ERR: Key " << keyName << " does not exist in Key Group " << groupName);
        status.addMessage(KSOpMessage(KSMSG_KEY_NOT_FOUND, keyName, groupName));
        code = EC_KS_bad_argument;
      } else if (code == 0) {
        KMS_DEBUG(label, 1, "Exporting Key " << keyName << " in Key Group " << groupName);
        const bool added = keys.addRecord(kiter->second);
        KS_ASSERT(label, added);
      }
    }
  }
  return code;
}

}  // namespace

std::string FileKeyStore::exportToBuffer(
    const std::list<std::pair<std::string, std::string>>& selection, const std::string& passphrase,
    KSOpStatus& status) const {
  static const char* const kLabel = "FileKeyStore::exportToBuffer";
  KMS_TRACE_THIS(kLabel);
  StoreReadGuard guard(m_lock, m_writerTurnstile);
  if (!m_initialized) {
    KS_THROW(EC_KS_not_initialized, kLabel);
  }
  try {
    const ExportSelection::GroupMap wanted = ExportSelection::fold(selection);
    KeyTable keys(true);
    GroupTable groups;

    if (wanted.empty()) {
      if (m_groupTable->size() == 0) {
        KMS_DEBUG(kLabel, 1, "The KMS DB is empty. Returning " << EC_KS_store_empty);
        status.setErrCode(EC_KS_store_empty);
        return std::string();
      }
      KMS_DEBUG(kLabel, 1, "Exporting the entire KMS database");
      keys = *m_keyTable;
      groups = *m_groupTable;
    } else {
      // The table is checked once when whole, not after every record.
      keys.setSkipInvariant(true);
      const int code =
          gatherSelection(kLabel, wanted, *m_keyTable, *m_groupTable, keys, groups, status);
      keys.setSkipInvariant(false);
      keys.testInvariant();
      if (code != 0) {
        KMS_DEBUG(kLabel, 1, "Returning " << code);
        status.setErrCode(code);
        return std::string();
      }
      if (!isKeyStoreSane(keys, groups)) {
        KMS_DEBUG(kLabel, 1, "Sanity check of exported records failed");
        KS_THROW(EC_KS_internal_error, kLabel);
      }
    }

    std::string meta;
    writeEximMeta(meta, KSEximMetadata(KS_VERSION_200));
    decryptKeyRecords(keys, *m_kpkMgr);

    SecureBytes content(meta.begin(), meta.end());
    SecureBytesOutDest contentDest(content);
    writeThrough(contentDest, [&](KSOutStream& out) { writeKeyStore(out, keys, groups); });

    const Secret plain{std::string(content.begin(), content.end())};
    wipeBytes(content);
    std::string sealed;
    StringOutDest sealedDest(sealed);
    writeThrough(sealedDest, [&](KSOutStream& out) {
      ReaderWriter::writeDataPasswordSecured(out, passphrase, plain.str());
    });

    KMS_DEBUG(kLabel, 1, "Key store buffer size = [" << sealed.size() << "]");
    status.setErrCode(EC_KS_success);
    return sealed;
  } catch (const KeyStoreError& error) {
    KMS_DEBUG(kLabel, 1, "Exception Caught: " << error.str(true));
    status.setErrCode(error.status());
    return std::string();
  }
}

void FileKeyStore::writeEximMeta(std::string& out, const KSEximMetadata& meta) {
  KMS_TRACE("FileKeyStore::writeEximMeta");
  StringOutDest dest(out);
  writeThrough(dest, [&](KSOutStream& stream) {
    ReaderWriter::writeAttributeList(stream, meta.attributes());
  });
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
