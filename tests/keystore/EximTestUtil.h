// Helpers of the export and import tests: live stores on real files (see
// ChangeTestStore.h), made from a StoreContent; the plaintext of an export
// buffer read back with the format's own readers; buffers sealed by hand;
// and an import that always runs as a preview first.
//
//   ExportRoot source(content);                       // a LiveStore
//   std::string buffer = exportOf(source.store());    // whole store
//   ExportRoot dest;                                  // empty, live
//   KSOpStatus status = importChecked(dest, buffer);  // preview, then import
#pragma once

#include <gtest/gtest.h>

#include <list>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "keystore/ChangeTestStore.h"
#include "keystore/StoreTestState.h"
#include "kms/server/keystore/files/KMSFileLocator.h"
#include "kms/server/keystore/format/KSEximMetadata.h"
#include "kms/server/keystore/format/KSInputBuffer.h"
#include "kms/server/keystore/format/KSOutStream.h"
#include "kms/server/keystore/format/ReaderWriter.h"
#include "kms/server/keystore/format/StringOutDest.h"
#include "kms/server/keystore/store/FileKeyStore.h"
#include "kms/server/keystore/store/KSOpStatus.h"
#include "support/TempRoot.h"

namespace eximtest {

using namespace Vaultrest::DL::KMS;

const std::string kPassphrase = "export words";

using ExportRoot = changetest::LiveStore;

// "<code>" and " <message code>(<args>,...)" for each message: a form whose
// differences a failed comparison shows at a glance.
inline std::string text(const KSOpStatus& status) {
  std::ostringstream out;
  out << status.errCode();
  for (const KSOpMessage& message : status.messages()) {
    out << " " << message.code() << "(";
    for (size_t i = 0; i < message.args().size(); ++i) {
      out << (i == 0 ? "" : ",") << message.args()[i];
    }
    out << ")";
  }
  return out.str();
}

inline std::string exportOf(const FileKeyStore& store,
                            const std::list<std::pair<std::string, std::string>>& selection = {},
                            const std::string& passphrase = kPassphrase) {
  KSOpStatus status;
  std::string buffer = store.exportToBuffer(selection, passphrase, status);
  EXPECT_EQ(text(status), "0");
  EXPECT_FALSE(buffer.empty());
  return buffer;
}

// Imports `buffer` as a preview and then for real. The preview must leave
// the store's files as they were and report exactly what the import then
// reports; a refused import must leave them as well.
inline KSOpStatus importChecked(ExportRoot& dest, const std::string& buffer,
                                bool preserveNames = false,
                                const std::string& description = std::string(),
                                const std::string& passphrase = kPassphrase) {
  const std::vector<std::string> before = dest.files();
  KSOpStatus preview;
  dest.store().importFromBuffer(buffer, passphrase, preserveNames, description, preview, true);
  EXPECT_EQ(dest.files(), before) << "preview changed the store";
  KSOpStatus status;
  dest.store().importFromBuffer(buffer, passphrase, preserveNames, description, status, false);
  EXPECT_EQ(text(status), text(preview)) << "preview and import differ";
  if (status.hasErrors()) {
    EXPECT_EQ(dest.files(), before) << "a refused import changed the store";
  }
  return status;
}

// The plaintext of an export, read with the format's readers alone.
struct ExportContent {
  ks_version_t version = KS_VERSION_100;
  FileKeyStore::KeyTable keys{true};
  FileKeyStore::GroupTable groups;
};

inline ExportContent openExport(const std::string& buffer,
                                const std::string& passphrase = kPassphrase) {
  std::string plain;
  KSInputBuffer sealed(buffer);
  ReaderWriter::readDataPasswordSecured(sealed, passphrase, plain);
  KSInputBuffer in(plain);
  AttributeList list;
  ReaderWriter::readAttributeList(in, list);
  ExportContent content;
  content.version = KSEximMetadata(list).version();
  FileKeyStore::readKeyStore(in, content.keys, content.groups);
  EXPECT_EQ(in.remaining(), 0u);
  return content;
}

// A buffer sealed by hand: `meta` (an encoded attribute list) and the tables,
// keys as given.
inline std::string sealByHand(const std::string& meta, const FileKeyStore::KeyTable& keys,
                              const FileKeyStore::GroupTable& groups,
                              const std::string& passphrase = kPassphrase) {
  std::string plain = meta;
  {
    StringOutDest dest(plain);
    KSOutStream out(dest, nullptr, KSOutStream::kBufferSize);
    FileKeyStore::writeKeyStore(out, keys, groups);
  }
  std::string sealed;
  StringOutDest dest(sealed);
  KSOutStream out(dest, nullptr, KSOutStream::kBufferSize);
  ReaderWriter::writeDataPasswordSecured(out, passphrase, plain);
  out.flush(true);
  return sealed;
}

inline std::string eximMetaBytes() {
  std::string bytes;
  FileKeyStore::writeEximMeta(bytes, KSEximMetadata(KS_VERSION_200));
  return bytes;
}

}  // namespace eximtest
