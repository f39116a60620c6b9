// Export: what a buffer holds for each kind of
// selection (read back with the format's own readers), and the refusals,
// which name every unknown group and key at once.
#include <gtest/gtest.h>

#include <list>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "keystore/ChangeTestStore.h"
#include "keystore/EximTestUtil.h"
#include "keystore/FormatTestUtil.h"
#include "keystore/StoreTestState.h"
#include "kms/server/keystore/store/FileKeyStore.h"
#include "kms/server/keystore/store/KSOpStatus.h"
#include "support/TempRoot.h"

namespace Vaultrest {
namespace DL {
namespace KMS {
namespace {

using eximtest::exportOf;
using eximtest::ExportRoot;
using eximtest::kPassphrase;
using eximtest::text;
using storetest::StoreContent;

typedef std::list<std::pair<std::string, std::string>> Selection;

class FileKeyStoreExportTest : public ::testing::Test {
 protected:
  changetest::FipsDecisionOff m_fips;
  formattest::WeakKdf m_weakKdf;
};

std::string tag(char kind, int n) {
  return std::string(30, kind) + static_cast<char>('0' + n) + '\x01';
}

// Group "g" with keys in every state, an empty group "e", and group "h"
// with one key.
StoreContent sourceContent() {
  StoreContent content;
  content.addGroup(tag('G', 1), "g");
  content.addGroup(tag('G', 2), "e");
  content.addGroup(tag('G', 3), "h");
  content.addKey(tag('K', 1), tag('G', 1), "a", KEY_ACTIVE);
  content.addKey(tag('K', 2), tag('G', 1), "b", KEY_INACTIVE);
  content.addKey(tag('K', 3), tag('G', 1), "c", KEY_DEPRECATED);
  content.addKey(tag('K', 4), tag('G', 1), "d", KEY_TERMINATED);
  content.addKey(tag('K', 5), tag('G', 1), "p", KEY_PRELIVE);
  content.addKey(tag('K', 6), tag('G', 3), "x", KEY_ACTIVE);
  return content;
}

TEST_F(FileKeyStoreExportTest, ABufferHoldsTheSelectionWithPlainKeys) {
  const StoreContent content = sourceContent();
  ExportRoot source(content);
  const std::vector<std::string> filesBefore = source.files();

  const struct {
    Selection selection;
    std::set<std::string> groups;
    std::set<std::string> keys;
  } rows[] = {
      {{}, {"g", "e", "h"}, {"a", "b", "c", "d", "p", "x"}},
      {{{"g", "a"}, {"g", "*"}, {"g", "b"}}, {"g"}, {"a", "b", "c", "d", "p"}},
      {{{"g", "*"}, {"g", "a"}}, {"g"}, {"a", "b", "c", "d", "p"}},
      {{{"g", ""}}, {"g"}, {}},
      {{{"g", ""}, {"g", "a"}, {"g", ""}, {"g", "a"}}, {"g"}, {"a"}},
      {{{"e", "*"}}, {"e"}, {}},
      {{{"h", "x"}, {"g", "d"}, {"g", "p"}}, {"g", "h"}, {"d", "p", "x"}},
  };
  for (const auto& row : rows) {
    const std::string buffer = exportOf(source.store(), row.selection);
    const eximtest::ExportContent exported = eximtest::openExport(buffer);
    EXPECT_EQ(exported.version, KS_VERSION_200);

    std::set<std::string> groups;
    for (const auto& entry : exported.groups) {
      groups.insert(entry.second.name());
      EXPECT_TRUE(entry.second == content.groups().getRecord(entry.first));
    }
    EXPECT_EQ(groups, row.groups);
    std::set<std::string> keys;
    for (const auto& entry : exported.keys) {
      keys.insert(entry.second.name());
      // Everything as stored, but the key in the clear.
      KeyRecord_v1 stored = content.keys().getRecord(entry.first);
      stored.setKey(content.plainKey(entry.first));
      EXPECT_TRUE(entry.second == stored) << entry.second.name();
    }
    EXPECT_EQ(keys, row.keys);
  }

  // The live keys are still wrapped: they unwrap to their values, and the
  // files never changed.
  EXPECT_EQ(source.store().getKey(tag('K', 1)).key(), content.plainKey(tag('K', 1)));
  EXPECT_EQ(source.store().getKey(tag('K', 6)).key(), content.plainKey(tag('K', 6)));
  EXPECT_EQ(source.files(), filesBefore);

  // Two exports of the same selection are sealed apart.
  EXPECT_NE(exportOf(source.store()), exportOf(source.store()));
}

TEST_F(FileKeyStoreExportTest, RefusalsNameEveryUnknownNameAndGiveNoBuffer) {
  ExportRoot source(sourceContent());
  const struct {
    Selection selection;
    std::string status;
  } rows[] = {
      {{{"nogroup", "*"}, {"g", "*"}}, "1214 1(nogroup)"},
      {{{"g", "zz"}, {"g", "a"}, {"g", "yy"}}, "1214 8(yy,g) 8(zz,g)"},
      {{{"g", "zz"}, {"nogroup", ""}, {"h", "x"}}, "1214 8(zz,g) 1(nogroup)"},
      {{{"G", "a"}}, "1214 1(G)"},
  };
  for (const auto& row : rows) {
    KSOpStatus status;
    EXPECT_EQ(source.store().exportToBuffer(row.selection, kPassphrase, status), "");
    EXPECT_EQ(text(status), row.status);
  }

  // A store without groups has nothing to give; one with groups and no keys
  // has.
  ExportRoot empty;
  KSOpStatus status;
  EXPECT_EQ(empty.store().exportToBuffer({}, kPassphrase, status), "");
  EXPECT_EQ(text(status), "1285");
  StoreContent groupsOnly;
  groupsOnly.addGroup(tag('G', 1), "lonely");
  ExportRoot bare(groupsOnly);
  EXPECT_EQ(eximtest::openExport(exportOf(bare.store())).groups.size(), 1u);
}

// Only a selection is checked for sanity: a whole store is exported as it
// is served.
TEST_F(FileKeyStoreExportTest, ASelectionOfInsaneRecordsIsAnInternalError) {
  StoreContent content;
  content.addGroup(tag('G', 1), "bad", CT_INVALID_CBC);
  content.addKey(tag('K', 1), tag('G', 1), "a", KEY_ACTIVE);
  TempRoot root("vrkms-exim-insane");
  storetest::MemoryStore store{KMSFileLocator(root.path())};
  store.install(content);

  KSOpStatus status;
  EXPECT_EQ(store.exportToBuffer({{"bad", "*"}}, kPassphrase, status), "");
  EXPECT_EQ(text(status), "1200");
  EXPECT_EQ(eximtest::openExport(exportOf(store)).keys.size(), 1u);
}

}  // namespace
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
