// Export and import between live stores on real files: selections, every
// decision of the clash resolution, the limits, and wrong or damaged buffers.

#include <ctime>
#include <regex>
#include <set>
#include <sstream>

#include "keystore/FormatTestUtil.h"
#include "keystore/StoreTestState.h"
#include "kms/server/keystore/format/KSEximMetadata.h"
#include "kms/server/keystore/format/KSOutStream.h"
#include "kms/server/keystore/format/ReaderWriter.h"
#include "kms/server/keystore/format/StringOutDest.h"
#include "kms/server/keystore/records/RecordUtils.h"
#include "kms/server/keystore/store/KSOpStatus.h"
#include "support/LogCapture.h"

using namespace Vaultrest::DL::KMS;

namespace {

using storetest::ConfiguredLimits;
using storetest::StoreContent;
typedef std::list<std::pair<std::string, std::string>> Selection;
const std::string kPassphrase = "export words";

using ExportRoot = storetest::LiveStore;

// "<code>" and " <message code>(<args>,...)" for each message.
std::string text(const KSOpStatus& status) {
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

std::string exportOf(const FileKeyStore& store, const Selection& selection = {}) {
  KSOpStatus status;
  std::string buffer = store.exportToBuffer(selection, kPassphrase, status);
  EXPECT_EQ(text(status), "0");
  EXPECT_FALSE(buffer.empty());
  return buffer;
}

// Imports `buffer` as a preview and then for real; the preview and a refused
// import leave the files as they were, and the preview reports what the import does.
KSOpStatus importChecked(ExportRoot& dest, const std::string& buffer, bool preserveNames = false,
                         const std::string& description = std::string()) {
  const std::vector<std::string> before = dest.files();
  KSOpStatus preview;
  dest.store().importFromBuffer(buffer, kPassphrase, preserveNames, description, preview, true);
  EXPECT_EQ(dest.files(), before);
  KSOpStatus status;
  dest.store().importFromBuffer(buffer, kPassphrase, preserveNames, description, status, false);
  EXPECT_EQ(text(status), text(preview));
  if (status.hasErrors()) {
    EXPECT_EQ(dest.files(), before);
  }
  return status;
}

// The plaintext of an export, read with the format's readers alone.
struct ExportContent {
  ks_version_t version = KS_VERSION_100;
  FileKeyStore::KeyTable keys{true};
  FileKeyStore::GroupTable groups;
};

ExportContent openExport(const std::string& buffer) {
  std::string plain;
  KSInputBuffer sealed(buffer);
  ReaderWriter::readDataPasswordSecured(sealed, kPassphrase, plain);
  KSInputBuffer in(plain);
  AttributeList list;
  ReaderWriter::readAttributeList(in, list);
  ExportContent content;
  content.version = KSEximMetadata(list).version();
  FileKeyStore::readKeyStore(in, content.keys, content.groups);
  EXPECT_EQ(in.remaining(), 0u);
  return content;
}

// A buffer sealed by hand around `meta` (an encoded attribute list) and the tables.
std::string sealByHand(const std::string& meta, const FileKeyStore::KeyTable& keys,
                       const FileKeyStore::GroupTable& groups) {
  std::string plain = meta;
  {
    StringOutDest dest(plain);
    KSOutStream out(dest, nullptr, KSOutStream::kBufferSize);
    FileKeyStore::writeKeyStore(out, keys, groups);
  }
  std::string sealed;
  StringOutDest dest(sealed);
  KSOutStream out(dest, nullptr, KSOutStream::kBufferSize);
  ReaderWriter::writeDataPasswordSecured(out, kPassphrase, plain);
  out.flush(true);
  return sealed;
}

const time_t kNow = 1700000000;

std::string tag(char kind, int n) {
  return std::string(30, kind) + static_cast<char>('0' + n) + '\x01';
}

class FileKeyStoreEximTest : public ::testing::Test {
 protected:
  storetest::FipsDecision m_fips;
  formattest::WeakKdf m_weakKdf;
};

// Group "g" with keys in every state, an empty group "e", and group "h"
// with one key.
StoreContent sourceContent() {
  StoreContent content;
  content.addGroup(tag('G', 1), "g");
  content.addGroup(tag('G', 2), "e");
  content.addGroup(tag('G', 3), "h");
  const ks_keystate_t states[] = {KEY_ACTIVE, KEY_INACTIVE, KEY_DEPRECATED, KEY_TERMINATED,
                                  KEY_PRELIVE};
  for (int i = 0; i < 5; ++i) {
    content.addKey(tag('K', i + 1), tag('G', 1), std::string(1, "abcdp"[i]), states[i]);
  }
  content.addKey(tag('K', 6), tag('G', 3), "x", KEY_ACTIVE);
  return content;
}

// What each selection exports, and the refusals, which name every unknown
// group and key at once.
TEST_F(FileKeyStoreEximTest, ABufferHoldsTheSelectionWithPlainKeys) {
  const StoreContent content = sourceContent();
  ExportRoot source(content);
  const std::vector<std::string> filesBefore = source.files();
  const struct {
    Selection selection;
    std::string status;
    std::set<std::string> names;  // of the groups and keys exported
  } rows[] = {
      {{{"g", "*"}, {"g", "a"}}, "0", {"g", "a", "b", "c", "d", "p"}},
      {{{"g", ""}, {"g", "a"}, {"g", ""}, {"g", "a"}}, "0", {"g", "a"}},
      {{{"h", "x"}, {"g", "d"}, {"g", "p"}}, "0", {"g", "h", "d", "p", "x"}},
      {{{"nogroup", "*"}, {"g", "*"}}, "1214 1(nogroup)", {}},
      {{{"g", "zz"}, {"g", "a"}, {"g", "yy"}}, "1214 8(yy,g) 8(zz,g)", {}},
      {{{"g", "zz"}, {"nogroup", ""}, {"h", "x"}}, "1214 8(zz,g) 1(nogroup)", {}},
      {{{"G", "a"}}, "1214 1(G)", {}},
  };
  for (const auto& row : rows) {
    KSOpStatus status;
    const std::string buffer = source->exportToBuffer(row.selection, kPassphrase, status);
    EXPECT_EQ(text(status), row.status);
    EXPECT_EQ(buffer.empty(), row.names.empty());
    std::set<std::string> names;
    if (!buffer.empty()) {
      const ExportContent exported = openExport(buffer);
      EXPECT_EQ(exported.version, KS_VERSION_200);
      for (const auto& entry : exported.groups) {
        names.insert(entry.second.name());
      }
      for (const auto& entry : exported.keys) {
        names.insert(entry.second.name());
        EXPECT_EQ(entry.second.key(), content.plainKey(entry.first));
      }
    }
    EXPECT_EQ(names, row.names);
  }
  // The files never changed; two exports of the same selection are sealed apart.
  EXPECT_EQ(source->getKey(tag('K', 6)).key(), content.plainKey(tag('K', 6)));
  EXPECT_EQ(source.files(), filesBefore);
  EXPECT_NE(exportOf(source.store()), exportOf(source.store()));
  // (A store without groups has nothing to give.) One with groups and no keys has.
  StoreContent groupsOnly;
  groupsOnly.addGroup(tag('G', 1), "lonely");
  EXPECT_EQ(openExport(exportOf(ExportRoot(groupsOnly).store())).groups.size(), 1u);
}

// Only a selection is checked for sanity: a whole store is exported as it
// is served.
TEST_F(FileKeyStoreEximTest, ASelectionOfInsaneRecordsIsAnInternalError) {
  StoreContent content;
  content.addGroup(tag('G', 1), "bad", CT_INVALID_CBC);
  content.addKey(tag('K', 1), tag('G', 1), "a", KEY_ACTIVE);
  TempRoot root("vrkms-exim-insane");
  storetest::MemoryStore store{KMSFileLocator(root.path())};
  store.install(content);
  KSOpStatus status;
  EXPECT_EQ(store.exportToBuffer({{"bad", "*"}}, kPassphrase, status), "");
  EXPECT_EQ(text(status), "1200");
  EXPECT_EQ(openExport(exportOf(store)).keys.size(), 1u);
}

// `pattern` with every "$" replaced by the suffix of an import at kNow.
std::string withSuffix(const std::string& pattern) {
  return std::regex_replace(pattern, std::regex("\\$"),
                            "_IMPORTED_" + Utils::getTimestampSuffix(kNow));
}

// Group "alpha" with keys "a1" (active) and "a2", group "beta" with "b1".
StoreContent twoGroups() {
  StoreContent content;
  content.addGroup(tag('G', 1), "alpha");
  content.addGroup(tag('G', 2), "beta");
  content.addKey(tag('K', 1), tag('G', 1), "a1", KEY_ACTIVE);
  content.addKey(tag('K', 2), tag('G', 1), "a2", KEY_INACTIVE);
  content.addKey(tag('K', 3), tag('G', 2), "b1", KEY_ACTIVE);
  return content;
}

// A key of tag K1 in a group "x" of its own, of value `plain`.
void addKeyOfTagK1(StoreContent& dest, const std::string& plain) {
  dest.addGroup(tag('D', 1), "x");
  dest.addRawKey(tag('K', 1), tag('D', 1), "k", KEY_INACTIVE,
                 dest.kpkMgr().encryptKey(plain, KPK_LOCAL, std::string()));
}

TEST_F(FileKeyStoreEximTest, EveryDecisionAndLimitReportsItself) {
  const StoreContent source = twoGroups();
  const std::string plainK1 = source.plainKey(tag('K', 1));
  const std::string buffer = [&] {
    ExportRoot root(source);
    return exportOf(root.store());
  }();
  const struct {
    const char* name;
    std::function<void(StoreContent&)> arrange;
    bool preserveNames;
    int maxGroups;
    int maxKeysPerGroup;
    std::string status;
    int importedKeys;
  } rows[] = {
      {"empty store", [](StoreContent&) {}, false, 0, 0,
       "0 4(alpha,alpha$) 4(beta,beta$) 12(a1,alpha$) 12(a2,alpha$) 12(b1,beta$)", 3},
      {"duplicate key", [&](StoreContent& d) { addKeyOfTagK1(d, plainK1); }, false, 0, 0,
       "0 9(a1,alpha,k,x) 4(alpha,alpha$) 4(beta,beta$) 12(a2,alpha$) 12(b1,beta$)", 2},
      {"same tag, other value", [&](StoreContent& d) { addKeyOfTagK1(d, std::string(32, 'v')); },
       false, 0, 0,
       "1283 10(a1,alpha,k,x) 4(alpha,alpha$) 4(beta,beta$) 12(a2,alpha$) 12(b1,beta$)", 0},
      {"group tag taken", [](StoreContent& d) { d.addGroup(tag('G', 1), "x"); }, false, 0, 0,
       "0 4(alpha,alpha$) 4(beta,beta$) 5(alpha$) 11(a1,alpha$) 11(a2,alpha$) 12(b1,beta$)", 3},
      {"group name taken", [](StoreContent& d) { d.addGroup(tag('D', 1), "alpha"); }, false, 0, 0,
       "0 4(alpha,alpha$) 4(beta,beta$) 12(a1,alpha$) 12(a2,alpha$) 12(b1,beta$)", 3},
      {"every suffix taken",
       [](StoreContent& d) {
         d.addGroup(tag('D', 0), withSuffix("beta$"));
         for (int i = 1; i < 10; ++i) {
           d.addGroup(tag('D', i), withSuffix("beta$_") + std::to_string(i));
         }
       },
       false, 0, 0, "1200", 0},
      {"preserved, name taken", [](StoreContent& d) { d.addGroup(tag('D', 1), "alpha"); }, true, 0,
       0, "1283 2(alpha) 6(beta) 12(a1,alpha) 12(a2,alpha) 12(b1,beta)", 0},
      {"preserved, tag taken", [](StoreContent& d) { d.addGroup(tag('G', 1), "x"); }, true, 0, 0,
       "1283 3(alpha,x) 6(beta) 12(a1,alpha) 12(a2,alpha) 12(b1,beta)", 0},
      {"preserved, both taken", [](StoreContent& d) { d.addGroup(tag('G', 1), "alpha"); }, true, 0,
       0, "1283 2(alpha) 3(alpha,alpha) 6(beta) 12(a1,alpha) 12(a2,alpha) 12(b1,beta)", 0},
      {"preserved, neither taken", [](StoreContent& d) { d.addGroup(tag('D', 1), "other"); }, true,
       0, 0, "0 6(alpha) 6(beta) 12(a1,alpha) 12(a2,alpha) 12(b1,beta)", 3},
      {"groups at their limit", [](StoreContent& d) { d.addGroup(tag('D', 1), "d"); }, false, 3, 0,
       "0 4(alpha,alpha$) 4(beta,beta$) 12(a1,alpha$) 12(a2,alpha$) 12(b1,beta$)", 3},
      {"groups over their limit", [](StoreContent& d) { d.addGroup(tag('D', 1), "d"); }, false, 2,
       0, "1262", 0},
      {"keys at their limit", [](StoreContent&) {}, false, 0, 2,
       "0 4(alpha,alpha$) 4(beta,beta$) 12(a1,alpha$) 12(a2,alpha$) 12(b1,beta$)", 3},
      {"keys over their limit", [](StoreContent&) {}, true, 0, 1,
       "1283 6(alpha) 6(beta) 12(a1,alpha) 12(a2,alpha) 12(b1,beta) 7(alpha)", 0},
      {"keys at their limit once duplicates go",
       [&](StoreContent& d) { addKeyOfTagK1(d, plainK1); }, false, 0, 1,
       "0 9(a1,alpha,k,x) 4(alpha,alpha$) 4(beta,beta$) 12(a2,alpha$) 12(b1,beta$)", 2},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const ConfiguredLimits limits(row.maxGroups, row.maxKeysPerGroup);
    StoreContent content;
    row.arrange(content);
    ExportRoot dest(content);
    dest.store().setImportClock([] { return kNow; });
    const std::pair<uint64_t, uint64_t> before = dest.store().getStats();
    const KSOpStatus status = importChecked(dest, buffer, row.preserveNames);
    EXPECT_EQ(text(status), withSuffix(row.status));
    const std::pair<uint64_t, uint64_t> after = dest.store().getStats();
    EXPECT_EQ(after.first, before.first + row.importedKeys);
    EXPECT_EQ(after.second, before.second + (status.hasErrors() ? 0 : 2));
  }
}

// (Records arriving as they left are compared by the process tests.) A
// renumbered group takes its keys along, and the import's description
// replaces those of what it brings; the store's own group is not touched.
// Each group and key is audited as added; a key's FIPS entry says whether it
// came with a FIPS decision of any value.
TEST_F(FileKeyStoreEximTest, ARenumberedGroupTakesItsKeysAndTheImportsDescription) {
  StoreContent content = twoGroups();
  content.addGroup(tag('G', 3), "empty");
  ExportRoot source(content);
  source.addKey(tag('G', 2), "b2", KEY_PRELIVE);  // with a FIPS decision
  StoreContent other;
  other.addGroup(tag('G', 1), "x");
  ExportRoot dest(other);
  dest.store().setImportClock([] { return kNow; });
  const KeyGrpRecord_v1 own = dest.store().getKeyGroupRecord(tag('G', 1));
  LogCapture log(1);
  EXPECT_EQ(importChecked(dest, exportOf(source.store()), false, "moved").errCode(), 0);
  std::multiset<std::string> audited;
  const std::regex entry(" 286-(70|81|92) [^ ]+: (.*)$");
  for (const std::string& line : log.appLines()) {
    std::smatch match;
    if (std::regex_search(line, match, entry)) {
      audited.insert(match[1].str() + (match[1] == "92" ? "=" + match[2].str() : ""));
    }
  }
  EXPECT_EQ(audited,
            (std::multiset<std::string>{"70", "70", "70", "81", "81", "81", "81",
                                        "92=FIPS compliant: Yes", "92=FIPS compliant: No",
                                        "92=FIPS compliant: No", "92=FIPS compliant: No"}));
  const KeyGrpRecord_v1 alpha = dest.store().getKeyGroupRecordByName(withSuffix("alpha$"));
  EXPECT_NE(alpha.tag(), tag('G', 1));
  EXPECT_EQ(alpha.numKeys(), 2u);
  EXPECT_EQ(dest.store().getActiveKeyRecord(alpha.tag()).tag(), tag('K', 1));
  const storetest::Snapshot arrived = storetest::snapshotOf(dest.store());
  ASSERT_EQ(arrived.groups.size(), 4u);
  for (size_t i = 0; i < arrived.groups.size(); ++i) {
    if (arrived.groups[i].first.tag() == tag('G', 1)) {
      EXPECT_TRUE(arrived.groups[i].first == own);
      EXPECT_EQ(arrived.groups[i].second.first, 0u);
      continue;
    }
    EXPECT_EQ(arrived.groups[i].first.description(), "moved");
    for (const KeyRecord_v1& k : arrived.keys[i]) {
      EXPECT_EQ(k.description(), "moved");
    }
  }
}

// The same buffer again in the same second: the groups come once more, empty,
// under the next suffix.
TEST_F(FileKeyStoreEximTest, AnotherImportInTheSameSecondTakesTheNextSuffix) {
  StoreContent content;
  content.addGroup(tag('G', 1), "alpha");
  content.addGroup(tag('G', 2), "beta");
  content.addKey(tag('K', 1), tag('G', 1), "a1", KEY_ACTIVE);
  content.addKey(tag('K', 2), tag('G', 1), "a2", KEY_INACTIVE);
  ExportRoot source(content);
  const std::string buffer = exportOf(source.store());
  ExportRoot dest;
  dest.store().setImportClock([] { return kNow; });
  EXPECT_EQ(text(importChecked(dest, buffer)),
            withSuffix("0 4(alpha,alpha$) 4(beta,beta$) 12(a1,alpha$) 12(a2,alpha$)"));
  EXPECT_EQ(text(importChecked(dest, buffer)),
            withSuffix("0 9(a1,alpha,a1,alpha$) 9(a2,alpha,a2,alpha$) 4(alpha,alpha$_1) "
                       "4(beta,beta$_1) 5(alpha$_1) 5(beta$_1)"));
  EXPECT_EQ(text(importChecked(dest, buffer)),
            withSuffix("0 9(a1,alpha,a1,alpha$) 9(a2,alpha,a2,alpha$) 4(alpha,alpha$_2) "
                       "4(beta,beta$_2) 5(alpha$_2) 5(beta$_2)"));
  EXPECT_EQ(dest.store().getStats(), std::make_pair(uint64_t{2}, uint64_t{6}));
  // A name the suffix takes past 4096 bytes keeps what fits, and is found by
  // its whole name; with no room left for another suffix, a second import
  // has none that is unique, and is refused.
  StoreContent longer;
  const std::string longName(4090, 'n');
  longer.addGroup(tag('G', 3), longName);
  const std::string longBuffer = exportOf(ExportRoot(longer).store());
  const std::string kept = withSuffix(longName + "$").substr(0, 4096);
  EXPECT_EQ(text(importChecked(dest, longBuffer)), "0 4(" + longName + "," + kept + ")");
  EXPECT_EQ(dest.store().getKeyGroupRecordByName(withSuffix(longName + "$")).name(), kept);
  EXPECT_EQ(text(importChecked(dest, longBuffer)), "1200");
}

// A wrong passphrase, any changed byte and any damaged content refuse the
// import and leave the store exactly as it was.
TEST_F(FileKeyStoreEximTest, WrongAndDamagedBuffersChangeNothing) {
  StoreContent content;
  content.addGroup(tag('G', 1), "alpha");
  content.addKey(tag('K', 1), tag('G', 1), "a1", KEY_ACTIVE);
  ExportRoot source(content);
  const std::string buffer = exportOf(source.store());
  ExportRoot dest;
  const std::vector<std::string> files = dest.files();
  auto importStatus = [&](const std::string& bytes, const std::string& passphrase) {
    KSOpStatus status;
    dest.store().importFromBuffer(bytes, passphrase, false, "", status, false);
    EXPECT_TRUE(status.messages().empty());
    return status.errCode();
  };
  EXPECT_EQ(importStatus(buffer, "other words"), 1284);
  EXPECT_EQ(importStatus(buffer, ""), 1284);
  EXPECT_EQ(importStatus(buffer.substr(0, buffer.size() - 1), kPassphrase), 1208);
  EXPECT_EQ(importStatus("", kPassphrase), 1208);
  std::set<int> seen;
  for (size_t i = 0; i < buffer.size(); ++i) {
    std::string flipped = buffer;
    flipped[i] = static_cast<char>(flipped[i] ^ 0x01);
    const int code = importStatus(flipped, kPassphrase);
    EXPECT_TRUE(code == 1284 || code == 1208) << "byte " << i << ": " << code;
    seen.insert(code);
  }
  EXPECT_EQ(seen, (std::set<int>{1208, 1284}));
  // Sealed properly around content that is not right.
  FileKeyStore::KeyTable keys(true);
  FileKeyStore::GroupTable groups;
  std::string meta;
  FileKeyStore::writeEximMeta(meta, KSEximMetadata(KS_VERSION_200));
  EXPECT_EQ(importStatus(sealByHand(meta, keys, groups), kPassphrase), 1214);
  const std::string version300 = formattest::handList({{"VERSION", formattest::be(0x300, 4)}});
  const std::string extra =
      formattest::handList({{"EXTRA", "x"}, {"VERSION", formattest::be(0x200, 4)}});
  const std::string noVersion = formattest::handList({});
  for (const std::string& badMeta : {version300, extra, noVersion, std::string("junk")}) {
    EXPECT_EQ(importStatus(sealByHand(badMeta, keys, groups), kPassphrase), 1207);
  }
  KeyGrpRecord_v1 insane;
  insane.setFields(tag('G', 1), "insane", CT_INVALID_CBC, 1, 1, "", 1);
  groups.addRecord(insane);
  EXPECT_EQ(importStatus(sealByHand(meta, keys, groups), kPassphrase), 1208);
  EXPECT_EQ(dest.files(), files);
  EXPECT_EQ(dest.store().getStats(), std::make_pair(uint64_t{0}, uint64_t{0}));
}

}  // namespace
