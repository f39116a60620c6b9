// Record encoding: fields, attribute lists, records and tables, the marker
// and digest rules, and the byte layouts of the key files.
#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>

#include "CryptoTestUtil.h"
#include "FormatTestUtil.h"
#include "kms/server/keystore/crypto/CryptFactory.h"
#include "kms/server/keystore/crypto/GCMCrypter.h"
#include "kms/server/keystore/files/FileFaults.h"
#include "kms/server/keystore/format/FileOutDest.h"
#include "kms/server/keystore/format/KeyFile.h"
#include "kms/server/keystore/format/ReaderWriter.h"
#include "kms/server/keystore/records/KeyRecordTable.h"
#include "kms/server/keystore/records/RecordTable.h"
#include "support/TempRoot.h"

using namespace Vaultrest::DL::KMS;
using namespace formattest;

namespace {

typedef KeyRecordTable<KeyRecord_v1> KeyTable;
typedef RecordTable<KeyGrpRecord_v1> GroupTable;

KeyRecord_v1 fullKey(unsigned n, const std::string& group, ks_keystate_t state) {
  KeyRecord_v1 rec = keyRecord(tagOf(n), group, state);
  rec.setName(std::string("key\0name", 8) + std::to_string(n));
  rec.setUpdateTime(0x0102030405060708ull + n);
  rec.setCreateTime(0xfffffffffffffff0ull);
  rec.setDescription(std::string(4096, 'd'));
  rec.setRev(0x80000001u);
  rec.setKpkTag(std::string(32, '\xee'));
  rec.setKey(std::string(92, static_cast<char>(n)));
  rec.attributes().addAttribute("colour", "blue");
  rec.attributes().addAttribute(std::string("\0bin", 4), std::string(4096, '\x01'));
  return rec;
}

KeyGrpRecord_v1 fullGroup(unsigned n) {
  KeyGrpRecord_v1 rec;
  rec.setFields(tagOf(n, 'G'), "group " + std::to_string(n), CT_AES256_CBC, 1700000000, 1600000000,
                "", 7);
  rec.attributes().addAttribute("owner", "ops");
  return rec;
}

template <typename Record>
Record readBack(const std::string& bytes, unsigned long* left = nullptr) {
  KSInputBuffer in(bytes);
  Record rec;
  ReaderWriter::readRecord(in, rec);
  if (left != nullptr) {
    *left = in.remaining();
  }
  return rec;
}

template <typename Record>
int readStatus(const std::string& bytes) {
  return KS_STATUS(readBack<Record>(bytes));
}

template <typename Record>
std::string bytesOf(const Record& rec) {
  return written([&](KSOutStream& out) { ReaderWriter::writeRecord(out, rec); });
}

int readListStatus(const std::string& bytes) {
  KSInputBuffer in(bytes);
  AttributeList list;
  return KS_STATUS(ReaderWriter::readAttributeList(in, list));
}

// Fails the first call to encrypt with 1224, then passes through to GCM.
class FlakyCrypter : public GCMCrypter {
 public:
  FlakyCrypter() : GCMCrypter(std::string(32, '\x01')) {}
  int encrypt(const unsigned char* data, unsigned long len, bool final) override {
    return m_failed++ == 0 ? 1224 : GCMCrypter::encrypt(data, len, final);
  }

 private:
  int m_failed = 0;
};

}  // namespace

TEST(ReaderWriter, FieldsUpTo4096BytesAndTheReadChecks) {
  const std::string max(4096, '\x7f');
  const std::string bytes = written([&](KSOutStream& out) {
    ReaderWriter::writeRecordField(out, "", 0);
    ReaderWriter::writeRecordField(out, max.data(), max.size());
  });
  ASSERT_EQ(bytes, field("") + field(max));
  KSInputBuffer in(bytes);
  char out[4096];
  EXPECT_EQ(ReaderWriter::readRecordField(in, out, 0), 0u);
  // Too long for the caller's buffer: refused, and the cursor stays.
  EXPECT_EQ(KS_STATUS(ReaderWriter::readRecordField(in, out, 4095)), 1208);
  EXPECT_EQ(in.remaining(), 4098u);
  EXPECT_EQ(ReaderWriter::readRecordField(in, out, sizeof out), 4096u);
  EXPECT_EQ(std::string(out, 4096), max);
  EXPECT_EQ(in.remaining(), 0u);
  // Fewer than two bytes for the length, and content past the end.
  for (const std::string& bad : {std::string(), std::string(1, '\0'), std::string("\x00\x03xy", 4),
                                 std::string("\xff\xff", 2)}) {
    KSInputBuffer short_(bad);
    EXPECT_EQ(KS_STATUS(ReaderWriter::readRecordField(short_, out, sizeof out)), 1208);
    EXPECT_EQ(short_.remaining(), bad.size());
  }
  const std::string tooLong(4097, 'x');
  EXPECT_DEATH(
      {
        logAppToStderr();
        written([&](KSOutStream& o) {
          ReaderWriter::writeRecordField(o, tooLong.data(), tooLong.size());
        });
      },
      "_size <= 4096");
}

TEST(ReaderWriter, HmkFileAndRecordsByteForByte) {
  KeyFile hmk(KS_VERSION_300);
  hmk.setKey(std::string("\0\1\2\3", 4) + std::string(28, '\x1f'));
  const std::string bytes =
      written([&](KSOutStream& out) { ReaderWriter::writeAttributeList(out, hmk.attributes()); });
  EXPECT_EQ(bytes, handList({{"THEKEY", hmk.key()}, {"VERSION", be(0x300, 4)}}));
  KSInputBuffer in(bytes);
  AttributeList list;
  ReaderWriter::readAttributeList(in, list);
  EXPECT_EQ(KeyFile(list).key(), hmk.key());

  const KeyRecord_v1 key = fullKey(3, tagOf(9, 'G'), KEY_ACTIVE);
  unsigned long left = 1;
  EXPECT_EQ(readBack<KeyRecord_v1>(bytesOf(key), &left), key);
  EXPECT_EQ(left, 0u);
  const KeyRecord_v1 plain = keyRecord(tagOf(1), "g", KEY_PRELIVE);
  EXPECT_EQ(bytesOf(plain), handRecord({plain.tag(), "key", be(0, 8), be(0, 8), "", be(0, 4), "g",
                                        be(4, 2), be(1, 2), "", ""},
                                       handList({})));
  const KeyGrpRecord_v1 group = fullGroup(4);
  EXPECT_EQ(readBack<KeyGrpRecord_v1>(bytesOf(group)), group);
  EXPECT_EQ(bytesOf(group), handRecord({group.tag(), "group 4", be(1700000000, 8),
                                        be(1600000000, 8), "", be(7, 4), be(CT_AES256_CBC, 2)},
                                       handList({{"owner", "ops"}})));
}

TEST(ReaderWriter, EveryFlippedBitOfARecordIsRefused) {
  KeyRecord_v1 key = keyRecord(tagOf(5), "grp", KEY_ACTIVE);
  key.setKey("wrapped");
  key.attributes().addAttribute("n", "v");
  const std::string keyBytes = bytesOf(key);
  for (size_t i = 0; i < keyBytes.size(); ++i) {
    for (int bit = 0; bit < 8; ++bit) {
      std::string bad = keyBytes;
      bad[i] = static_cast<char>(bad[i] ^ (1 << bit));
      ASSERT_EQ(readStatus<KeyRecord_v1>(bad), 1208) << "byte " << i << " bit " << bit;
    }
  }
}

TEST(ReaderWriter, OldMarkersReadWithSha1AndAreWrittenBackNew) {
  const std::vector<std::string> contents = {tagOf(2), "old",    be(10, 8), be(9, 8),
                                             "descr",  be(3, 4), "grp",     be(2, 2),
                                             be(1, 2), "kpk",    "key"};
  const KeyRecord_v1 rec =
      readBack<KeyRecord_v1>(handRecord(contents, handList({{"x", "y"}}, true), true));
  EXPECT_EQ(rec.state(), KEY_INACTIVE);
  EXPECT_EQ(rec.attributes().getAttribute("x"), "y");
  EXPECT_EQ(bytesOf(rec), handRecord(contents, handList({{"x", "y"}})));
  // Each marker picks its own digest: a new record may carry an old list.
  EXPECT_EQ(readBack<KeyRecord_v1>(handRecord(contents, handList({}, true))).name(), "old");
}

TEST(ReaderWriter, AttributeListMarkersCountsAndDuplicates) {
  const std::string empty =
      written([](KSOutStream& out) { ReaderWriter::writeAttributeList(out, AttributeList()); });
  EXPECT_EQ(empty, handList({}));
  EXPECT_EQ(readListStatus(empty), 0);
  // A count above 100000 is refused before any name is read.
  const std::string tooMany = field("BB") + field(be(100001, 4)) + handList({{"a", "b"}});
  KSInputBuffer in(tooMany);
  AttributeList list;
  EXPECT_EQ(KS_STATUS(ReaderWriter::readAttributeList(in, list)), 1208);
  EXPECT_EQ(in.remaining(), tooMany.size() - 10);
  EXPECT_EQ(list.size(), 0u);
  const std::string z = field(digest(EVP_sha256(), "Z"));
  const std::string sha1Z = field(digest(EVP_sha1(), "Z"));
  const std::pair<std::string, int> cases[] = {
      // 100000 is allowed, and fails at the first field that overruns.
      {field("BB") + field(be(100000, 4)) + field("a") + field("b") + std::string("\x00\x05xy", 4),
       1208},
      {handList({{"a", "1"}, {"a", "2"}}), 1208},  // a duplicate name under a right digest
      {field("BBB") + field(be(0, 4)) + z, 1208},
      {field("BB") + field(be(0, 3)) + z, 1208},
      {handList({{"b", "1"}, {"a", "2"}}), 0},  // the digest follows the order on disk
      {field("BB") + field(be(0, 4)) + sha1Z, 1208},
      {field("BA") + field(be(0, 4)) + sha1Z, 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(readListStatus(c.first), c.second) << cryptotest::hex(c.first);
  }
}

TEST(ReaderWriter, RecordFieldsOfTheWrongLengthOrValue) {
  auto keyWith = [&](size_t index, const std::string& content) {
    std::vector<std::string> contents = {tagOf(2), "n",      be(1, 8), be(1, 8), "", be(1, 4),
                                         "grp",    be(1, 2), be(1, 2), "",       ""};
    contents[index] = content;
    return handRecord(contents, handList({}));
  };
  EXPECT_EQ(readStatus<KeyRecord_v1>(keyWith(0, tagOf(2))), 0);
  // Times of 7 and 9 bytes, a short revision and state, then values the
  // setters refuse (1214), which are malformed input too.
  const std::pair<size_t, std::string> bad[] = {{2, be(1, 7)}, {3, be(1, 9)}, {5, be(1, 2)},
                                                {7, be(1, 4)}, {7, be(6, 2)}, {8, be(0xffff, 2)}};
  for (const auto& b : bad) {
    EXPECT_EQ(readStatus<KeyRecord_v1>(keyWith(b.first, b.second)), 1208) << b.first;
  }
  const std::vector<std::string> group = {tagOf(2), "g",      be(1, 8), be(1, 8),
                                          "",       be(1, 4), be(5, 2)};
  EXPECT_EQ(readStatus<KeyGrpRecord_v1>(handRecord(group, handList({}))), 1208);
  // A group record where a key record belongs runs out of fields.
  EXPECT_EQ(readStatus<KeyRecord_v1>(bytesOf(fullGroup(1))), 1208);
}

TEST(ReaderWriter, TablesRoundTripThroughARealCrypterWithTheirDigests) {
  KeyTable keys(true);
  GroupTable groups;
  for (unsigned g = 0; g < 3; ++g) {
    groups.addRecord(fullGroup(g));
    for (unsigned k = 0; k < 4; ++k) {
      ASSERT_TRUE(
          keys.addRecord(fullKey(g * 10 + k, tagOf(g, 'G'), k == 0 ? KEY_ACTIVE : KEY_INACTIVE)));
    }
  }
  const std::string hmk(32, '\x42');
  const std::string iv(16, '\x07');
  for (KSCrypt::CryptType type : {KSCrypt::AES_256_GCM, KSCrypt::AES_256_CBC_EVP}) {
    SCOPED_TRACE(KSCrypt::cryptTypeToString(type));
    std::unique_ptr<KSCrypt> crypter(CryptFactory::createCrypter(type, hmk, iv));
    std::string body;
    {
      StringOutDest dest(body);
      // A small buffer, so that the crypter is fed in many pieces.
      KSOutStream out(dest, crypter.get(), 1000);
      ReaderWriter::writeRecordTable(out, keys);
      ReaderWriter::writeRecordTable(out, groups);
      out.flush(true);
    }
    EXPECT_EQ(body.find("group 1"), std::string::npos);
    std::unique_ptr<KSCrypt> opener(CryptFactory::createCrypter(type, hmk, iv));
    const cryptotest::Result plain = cryptotest::decryptAll(*opener, body);
    ASSERT_EQ(plain.status, 0);
    KSInputBuffer in(plain.bytes);
    KeyTable keysBack(true);
    keysBack.setSkipInvariant(true);
    ReaderWriter::readRecordTable(in, keysBack);
    keysBack.setSkipInvariant(false);
    keysBack.testInvariant();
    GroupTable groupsBack;
    ReaderWriter::readRecordTable(in, groupsBack);
    EXPECT_EQ(in.remaining(), 0u);
    ASSERT_EQ(keysBack.size(), keys.size());
    for (const auto& entry : keys) {
      EXPECT_EQ(keysBack.getRecord(entry.first), entry.second);
    }
    EXPECT_EQ(keysBack.getActiveKeyInGroup(tagOf(1, 'G')), tagOf(10));
    ASSERT_EQ(groupsBack.size(), 3u);
    for (const auto& entry : groups) {
      EXPECT_EQ(groupsBack.getRecord(entry.first), entry.second);
    }
  }
}

TEST(ReaderWriter, TableMarkerCountAndRefusedRecords) {
  EXPECT_EQ(written([](KSOutStream& out) { ReaderWriter::writeRecordTable(out, GroupTable()); }),
            field("BT") + field(be(0, 4)));
  const std::string a = bytesOf(keyRecord(tagOf(1), "g", KEY_ACTIVE));
  const std::string b = bytesOf(keyRecord(tagOf(2), "g", KEY_ACTIVE));
  const std::pair<std::string, int> cases[] = {
      {field("BT") + field(be(0, 4)), 0},
      {field("BT") + field(be(1, 4)) + a, 0},
      {field("BT") + field(be(2, 4)) + a + a, 1208},  // same tag twice
      {field("BT") + field(be(2, 4)) + a + b, 1208},  // two active keys
      {field("BT") + field(be(2, 4)) + a, 1208},      // runs out
      {field("BS") + field(be(1, 4)) + a, 1208},
      {field("BTT") + field(be(1, 4)) + a, 1208},
      {field("BT") + field(be(1, 2)) + a, 1208},
      {field("BT") + field(be(0xffffffff, 4)) + a, 1208},  // bounded only by the bytes there
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    KSInputBuffer in(cases[i].first);
    KeyTable keys(true);
    keys.setSkipInvariant(true);
    EXPECT_EQ(KS_STATUS(ReaderWriter::readRecordTable(in, keys)), cases[i].second) << i;
    EXPECT_EQ(keys.size(), cases[i].second == 0 ? i : keys.size()) << i;
  }
}

TEST(ReaderWriter, WriteFailuresAreMappedOnTheWayOut) {
  KeyTable keys(true);
  keys.addRecord(fullKey(1, "g", KEY_ACTIVE));
  // A file that cannot be written: 1210 passes every level.
  TempRoot dir("vrkms-rw");
  FILE* file = std::fopen(dir.file("out").c_str(), "wb");
  ASSERT_NE(file, nullptr);
  {
    FileOutDest dest(file);
    KSOutStream out(dest, nullptr, 100);
    {
      FailNthFileOp full(1, ENOSPC, FileOp::Fwrite);
      ScopedFileFaultHook hook(&full);
      EXPECT_EQ(KS_STATUS(ReaderWriter::writeRecordTable(out, keys)), 1210);
    }
    out.flush(true);
  }
  std::fclose(file);
  // A crypter that fails: 1224 becomes 1200.
  FlakyCrypter flaky;
  std::string sink;
  StringOutDest dest(sink);
  KSOutStream out(dest, &flaky, 100);
  EXPECT_EQ(KS_STATUS(ReaderWriter::writeRecordTable(out, keys)), 1200);
  out.flush(true);
}
