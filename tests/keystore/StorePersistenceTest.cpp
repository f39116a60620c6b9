// Reading and committing the store's files: what init reports for damaged or
// incomplete files, and how a commit fails without touching the old files.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "keystore/StoreFilesTestUtil.h"
#include "kms/server/keystore/FileFaults.h"
#include "kms/server/keystore/FileKeyStore.h"
#include "support/LogCapture.h"

using namespace Vaultrest::DL::KMS;
using storefiles::StoreSnapshot;

namespace {

size_t linesWith(const std::vector<std::string>& lines, const std::string& part) {
  return LogCapture::containing(lines, part).size();
}

class StorePersistence : public storefiles::TwoStatesTest {};

TEST_F(StorePersistence, OnlyAKpkFileNamesTheTwoMissingFilesThenFailsWith1205) {
  storefiles::writeBytes(m_root.locator.kpkPath(), s_old->bytes().kpk);
  LogCapture log(0);
  EXPECT_EQ(initCode(), 1205);
  const std::vector<std::string> app = log.appLines();
  EXPECT_EQ(linesWith(app, " 286-39 "), 2u);
  EXPECT_EQ(linesWith(app, m_root.locator.hmkPath()), 2u);  // messages 39 and 49
  EXPECT_EQ(linesWith(app, m_root.locator.ksPath()), 2u);
}

TEST_F(StorePersistence, DamagedOrMismatchedFilesGiveTheirCodes) {
  const auto withFiles = [&](const std::string& hmk, const std::string& kpk,
                             const std::string& store) {
    storefiles::writeBytes(m_root.locator.hmkPath(), hmk);
    storefiles::writeBytes(m_root.locator.kpkPath(), kpk);
    storefiles::writeBytes(m_root.locator.ksPath(), store);
    return initCode();
  };
  const storefiles::StoreBytes& a = s_old->bytes();
  const storefiles::StoreBytes& b = s_new->bytes();

  // Bytes after the list of a key file.
  EXPECT_EQ(withFiles(a.hmk + '\0', a.kpk, a.store), 1206);
  EXPECT_EQ(withFiles(a.hmk, a.kpk + 'x', a.store), 1256);
  // A changed byte of a key file's list.
  std::string flipped = a.kpk;
  flipped[20] ^= 0x01;
  EXPECT_EQ(withFiles(a.hmk, flipped, a.store), 1256);
  // A changed byte in the record stream (its last byte is the GCM tag's).
  flipped = a.store;
  flipped.back() ^= 0x80;
  EXPECT_EQ(withFiles(a.hmk, a.kpk, flipped), 1207);
  // A store file cut short inside its metadata.
  EXPECT_EQ(withFiles(a.hmk, a.kpk, a.store.substr(0, 40)), 1207);
  // Files of another store: the HMK does not prove itself against the
  // metadata (1221); a KPK wrapped under another HMK does not unwrap (1249).
  EXPECT_EQ(withFiles(b.hmk, a.kpk, a.store), 1221);
  EXPECT_EQ(withFiles(a.hmk, b.kpk, a.store), 1249);
  // All of one store reads again.
  EXPECT_EQ(withFiles(b.hmk, b.kpk, b.store), 0);
}

TEST_F(StorePersistence, AFullDiskWhileWritingTheRecordStreamChangesNothing) {
  s_old->placeAsDat(m_root.locator);
  // The writes are the HMK file, the KPK file, the metadata, then the
  // record stream.
  FailNthFileOp full(4, ENOSPC, FileOp::Fwrite);
  LogCapture log(1);
  {
    ScopedFileFaultHook hook(&full);
    EXPECT_EQ(commitNew(), 1276);
  }
  ASSERT_TRUE(full.fired());
  std::vector<std::string> written;
  for (const FileOperation& op : full.operations()) {
    if (op.op == FileOp::Fwrite) {
      written.push_back(op.path);
    }
  }
  ASSERT_EQ(written.size(), 4u);
  EXPECT_EQ(written[2], m_root.locator.ksNewPath());  // the metadata
  EXPECT_EQ(written[3], m_root.locator.ksNewPath());
  const std::vector<std::string> debug = log.debugLines();
  EXPECT_GE(linesWith(debug, "Throwing Exception: Status=1210"), 1u);
  EXPECT_GE(linesWith(debug, "Mapping and Rethrowing Exception as: Status=1276"), 1u);
  EXPECT_EQ(linesWith(log.appLines(), " 286-57 "), 1u);
  EXPECT_TRUE(s_old->isOnDiskAsDat(m_root.locator));

  FileKeyStore store(m_root.locator);
  ASSERT_EQ(store.init(), 0);
  s_old->expectServedBy(store);
}

TEST_F(StorePersistence, ACommitOnLeftoversIsRefusedWithMessage45) {
  s_old->placeAsDat(m_root.locator);
  storefiles::writeBytes(m_root.locator.kpkNewPath(), s_new->bytes().kpk);
  const std::vector<std::string> before = storefiles::contentsOf(m_root.locator);
  LogCapture log(0);
  EXPECT_EQ(commitNew(), 1200);
  EXPECT_EQ(linesWith(log.appLines(), " 286-45 "), 1u);
  EXPECT_EQ(storefiles::contentsOf(m_root.locator), before);

  // A commit on a root without its files is refused the same way.
  storefiles::removeAll(m_root.locator);
  EXPECT_EQ(commitNew(), 1200);
  EXPECT_EQ(storefiles::maskOf(m_root.locator), 0u);
}

TEST_F(StorePersistence, TheCommitSyncsBothDirectoriesAfterTheRenamesAndBeforeTheDeletes) {
  s_old->placeAsDat(m_root.locator);
  FileOpRecorder recorder;
  {
    ScopedFileFaultHook hook(&recorder);
    commitNew();
  }
  std::vector<FileOp> tail;
  for (const FileOperation& op : recorder.operations()) {
    if (op.op == FileOp::Rename || op.op == FileOp::SyncDir || op.op == FileOp::Unlink) {
      tail.push_back(op.op);
    }
  }
  const std::vector<FileOp> expected = {FileOp::Rename,  FileOp::Rename,  FileOp::Rename,
                                        FileOp::Rename,  FileOp::Rename,  FileOp::Rename,
                                        FileOp::SyncDir, FileOp::SyncDir, FileOp::Unlink,
                                        FileOp::Unlink,  FileOp::Unlink};
  EXPECT_EQ(tail, expected);
}

}  // namespace
