// The store file format: streams, fields, lists, records and tables, the metadata
// blocks, and the passphrase-sealed envelope against an encoding by OpenSSL alone.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "CryptoTestUtil.h"
#include "FormatTestUtil.h"
#include "kms/server/keystore/crypto/CryptFactory.h"
#include "kms/server/keystore/crypto/EVPCrypter.h"
#include "kms/server/keystore/crypto/GCMCrypter.h"
#include "kms/server/keystore/crypto/Hmac.h"
#include "kms/server/keystore/format/FileOutDest.h"
#include "kms/server/keystore/format/KSEximMetadata.h"
#include "kms/server/keystore/format/KSInputBuffer.h"
#include "kms/server/keystore/format/KSMetadata.h"
#include "kms/server/keystore/format/KSOutStream.h"
#include "kms/server/keystore/format/KeyFile.h"
#include "kms/server/keystore/format/ReaderWriter.h"
#include "kms/server/keystore/format/SecuredDataHeader.h"
#include "kms/server/keystore/format/StringOutDest.h"
#include "kms/server/keystore/records/KeyRecordTable.h"
#include "kms/server/keystore/records/RecordTable.h"

using namespace Vaultrest::DL::KMS;
using namespace cryptotest;
using namespace formattest;

namespace {

const std::string kKey(32, '\x5c'), kIv(16, '\x0f');

// Keeps every write it is given, call by call.
struct RecordingDest : KSOutDest {
  void write(const void* data, unsigned long len) override {
    calls.push_back(len);
    bytes.append(static_cast<const char*>(data), len);
  }
  std::vector<unsigned long> calls;
  std::string bytes;
};

typedef KeyRecordTable<KeyRecord_v1> KeyTable;
typedef RecordTable<KeyGrpRecord_v1> GroupTable;

// What reading one record of `bytes` throws; a record read takes all the bytes.
template <typename Record>
int readStatus(const std::string& bytes) {
  KSInputBuffer in(bytes);
  Record rec;
  const int status = KS_STATUS(ReaderWriter::readRecord(in, rec));
  EXPECT_TRUE(status != 0 || in.remaining() == 0);
  return status;
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
struct FlakyCrypter : GCMCrypter {
  FlakyCrypter() : GCMCrypter(std::string(32, '\x01')) {}
  int encrypt(const unsigned char* data, unsigned long len, bool final) override {
    return calls++ == 0 ? 1224 : GCMCrypter::encrypt(data, len, final);
  }
  int calls = 0;
};

const std::string kV100 = be(0x100, 4), kV200 = be(0x200, 4), kV300 = be(0x300, 4);

// A complete, valid list of `version` as a store of that version has it.
AttributeList metadataList(ks_version_t version) {
  KSMetadata meta(version);
  const bool v3 = version == KS_VERSION_300;
  meta.setHmkID("hmk-id");
  meta.setKpkID("kpk-id");
  v3 ? meta.setHmkVerifier(std::string(92, 'h')) : meta.setHmkHash(std::string(20, 'h'));
  v3 ? meta.setKpkVerifier(std::string(92, 'k')) : meta.setKpkHash(std::string(20, 'k'));
  meta.setMasterEncAlgo(v3 ? KSCrypt::AES_256_GCM : KSCrypt::AES_256_CBC);
  meta.setKeyEncAlgo(KSCrypt::AES_256_GCM);
  meta.setHmkRandom(true);
  meta.setKpkFips(true);
  if (version >= KS_VERSION_200) {
    meta.setHmkSalt(std::string(24, 's'));
  }
  if (version == KS_VERSION_200) {
    meta.setMasterIV(std::string(16, 'i'));
  }
  return meta.attributes();
}

AttributeList with(AttributeList list, const std::string& name, const std::string& value) {
  (void)(list.updateAttribute(name, value) || list.addAttribute(name, value));
  return list;
}

AttributeList without(AttributeList list, std::string_view name) {
  list.removeAttribute(name);
  return list;
}

int metadataStatus(const AttributeList& list) {
  return KS_STATUS(KSMetadata{list});
}

const std::string kPass = "correct horse";

std::string seal(const std::string& data, const std::string& passphrase = kPass) {
  return written(
      [&](KSOutStream& out) { ReaderWriter::writeDataPasswordSecured(out, passphrase, data); });
}

int openStatus(const std::string& block, std::string& data, const std::string& pass = kPass) {
  data = "untouched";
  KSInputBuffer in(block);
  return KS_STATUS(ReaderWriter::readDataPasswordSecured(in, pass, data));
}

// The header list of a block (behind the HMAC field of 34 bytes and N of 6), and its length.
AttributeList headerOf(const std::string& block, size_t* length) {
  KSInputBuffer in(block.substr(40));
  AttributeList header;
  ReaderWriter::readAttributeList(in, header);
  *length = block.size() - 40 - in.remaining();
  return header;
}

// A block by hand: keys as scheme 3 derives them (PBKDF2-HMAC-SHA-1, 2 iterations, 64
// bytes), the header given, a right HMAC, and `content` as the ciphertext or, with
// `encrypt`, encrypted under AES-256-CBC with the first half of the keys.
std::string handBlock(const std::string& version, const std::string& salt, const std::string& iv,
                      std::string content, bool encrypt = false) {
  const AttributeList header = with(with(with({}, "VERSION", version), "SALT", salt), "IV", iv);
  unsigned char derived[64];
  PKCS5_PBKDF2_HMAC(kPass.data(), static_cast<int>(kPass.size()), u8(salt),
                    static_cast<int>(salt.size()), 2, EVP_sha1(), sizeof derived, derived);
  if (encrypt) {
    EVPCrypter c(EVPCrypter::EVP_AES_256_CBC, std::string(reinterpret_cast<char*>(derived), 32),
                 iv);
    content = encryptAll(c, content).bytes;
  }
  const std::string region =
      written([&](KSOutStream& out) { ReaderWriter::writeAttributeList(out, header); }) +
      field(be(content.size(), 4)) + content;
  const std::string macKey(reinterpret_cast<char*>(derived) + 32,
                           32);  // HMAC pinned in KeyCryptoTest
  return field(Utils::hmac(EVP_sha256(), macKey, u8(region), region.size())) +
         field(be(region.size(), 4)) + region;
}

const std::string kData = unhex("00ff25") + std::string(297, '\x5a');

const std::string kWeakSalt = std::string("S\x03", 2) + std::string(22, '\x11');

}  // namespace

TEST(KSOutStream, BufferRulesPartialAndEmptyFinalFlushesAndCrypterFailures) {
  RecordingDest dest;
  KSOutStream out(dest, nullptr, 16);
  out.write("0123456789", 10);
  out.write("abcdef", 6);  // exactly fills the buffer
  EXPECT_TRUE(dest.calls.empty());
  out.write("g", 1);  // does not fit: the 16 go first
  EXPECT_EQ(dest.calls, (std::vector<unsigned long>{16}));
  // A large write flushes the one byte held, then goes in whole: one call at the next flush.
  const std::string big(100, 'B');
  out.write(big.data(), big.size());
  EXPECT_EQ(dest.calls, (std::vector<unsigned long>{16, 1}));
  out.flush(true);
  EXPECT_EQ(dest.calls, (std::vector<unsigned long>{16, 1, 100}));
  EXPECT_EQ(dest.bytes, "0123456789abcdefg" + big);
  // Without a crypter a final flush of nothing writes nothing more.
  out.flush(true);
  EXPECT_EQ(dest.bytes.size(), 117u);
  // With GCM it is IV and tag, and a finished crypter refuses more (empty buffer too).
  GCMCrypter crypter(kKey), opener(kKey);
  RecordingDest gcm;
  KSOutStream sealed(gcm, &crypter, KSOutStream::kBufferSize);
  sealed.flush(true);
  EXPECT_EQ(gcm.bytes.size(), 28u);
  EXPECT_EQ(decryptAll(opener, gcm.bytes).status, 0);
  EXPECT_EQ(KS_STATUS(sealed.flush(true)), 1224);
  EXPECT_EQ(gcm.bytes.size(), 28u);
  // A crypter failure while writing a table is mapped to 1200.
  KeyTable keys(true);
  keys.addRecord(keyRecord(tagOf(1), "g", KEY_ACTIVE));  // more than the buffer holds
  FlakyCrypter flaky;
  RecordingDest sink;
  KSOutStream failing(sink, &flaky, 100);
  EXPECT_EQ(KS_STATUS(ReaderWriter::writeRecordTable(failing, keys)), 1200);
  failing.flush(true);
  // A file destination with room for 20 bytes takes them and refuses one more, unwritten.
  std::unique_ptr<FILE, int (*)(FILE*)> file(std::tmpfile(), &std::fclose);
  FileOutDest bounded(file.get(), 20);
  bounded.write("0123456789ab", 12);
  bounded.write("cdefghij", 8);
  EXPECT_EQ(KS_STATUS(bounded.write("k", 1)), 1210);
  EXPECT_EQ(std::ftell(file.get()), 20);
  // A partial flush then a final one writes what one final flush does.
  const std::string first(5000, 'a');
  const std::string second = "tail of the stream";
  // The same IV for both GCM streams, so their bytes can be compared.
  ScriptedRandom fixedIv(0, std::string(1, '\x24'));
  for (KSCrypt::CryptType type :
       {KSCrypt::CRYPT_INVALID, KSCrypt::AES_256_CBC_EVP, KSCrypt::AES_256_GCM}) {
    SCOPED_TRACE(KSCrypt::cryptTypeToString(type));
    std::string streams[2];
    for (int split = 0; split < 2; ++split) {
      std::unique_ptr<KSCrypt> crypter(
          type == KSCrypt::CRYPT_INVALID ? nullptr : CryptFactory::createCrypter(type, kKey, kIv));
      StringOutDest dest(streams[split]);
      KSOutStream out(dest, crypter.get(), KSOutStream::kBufferSize);
      out.write(first.data(), first.size());
      if (split == 1) {
        out.flush(false);
      }
      out.write(second.data(), second.size());
      out.flush(true);
    }
    EXPECT_EQ(streams[0], streams[1]);
  }
}

// Dropping a stream with bytes in it, and a field over 4096 bytes, abort.
TEST(ReaderWriterDeathTest, UnflushedStreamAndFieldOf4097BytesAbort) {
  RecordingDest dest;
  const std::string tooLong(4097, 'x');
  EXPECT_DEATH((logAppToStderr(), KSOutStream(dest, nullptr, 64).write("x", 1)), "m_buf.empty");
  EXPECT_DEATH(
      {
        logAppToStderr();
        written([&](KSOutStream& o) { ReaderWriter::writeRecordField(o, tooLong.data(), 4097); });
      },
      "_size <= 4096");
}

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
}

TEST(ReaderWriter, EveryFlippedBitMixedMarkersAndRecordFieldsOfTheWrongLengthOrValue) {
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
  const std::vector<std::string> base = {tagOf(2), "n",      be(1, 8), be(1, 8), "", be(1, 4),
                                         "grp",    be(1, 2), be(1, 2), "",       ""};
  auto keyWith = [&](size_t index, const std::string& content) {
    std::vector<std::string> contents = base;
    contents[index] = content;
    return handRecord(contents, handList({}));
  };
  // Each marker picks its own digest: old and new record and list markers mix.
  EXPECT_EQ(readStatus<KeyRecord_v1>(handRecord(base, handList({}, true))), 0);
  EXPECT_EQ(readStatus<KeyRecord_v1>(handRecord(base, handList({}), true)), 0);
  // Times of 7 and 9 bytes, a short revision and state, then values the setters refuse.
  const std::pair<size_t, std::string> bad[] = {{2, be(1, 7)}, {3, be(1, 9)}, {5, be(1, 2)},
                                                {7, be(1, 4)}, {7, be(6, 2)}, {8, be(0xffff, 2)}};
  for (const auto& b : bad) {
    EXPECT_EQ(readStatus<KeyRecord_v1>(keyWith(b.first, b.second)), 1208) << b.first;
  }
  const std::vector<std::string> group = {tagOf(2), "g",      be(1, 8), be(1, 8),
                                          "",       be(1, 4), be(5, 2)};
  EXPECT_EQ(readStatus<KeyGrpRecord_v1>(handRecord(group, handList({}))), 1208);
  // A group record where a key record belongs runs out of fields.
  KeyGrpRecord_v1 grp;
  grp.setFields(tagOf(1, 'G'), "group", CT_AES256_CBC, 1, 1, "", 7);
  EXPECT_EQ(readStatus<KeyRecord_v1>(bytesOf(grp)), 1208);
}

TEST(ReaderWriter, ListAndTableMarkersCountsDuplicatesAndRefusedRecords) {
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
    EXPECT_EQ(readListStatus(c.first), c.second) << hex(c.first);
  }
  // A list read keeps its bytes until it changes, a copy through the other's
  // change; bytes under SHA-1 or with names out of order are written afresh.
  const std::string ab = handList({{"a", "1"}, {"b", "2"}});
  AttributeList l[7];
  for (int i = 0; i < 7; ++i) {
    KSInputBuffer in(i < 5    ? ab
                     : i == 5 ? handList({{"a", "1"}, {"b", "2"}}, true)
                              : handList({{"b", "2"}, {"a", "1"}}));
    ReaderWriter::readAttributeList(in, l[i]);
  }
  l[0].addAttribute("c", "3"), l[1].updateAttribute("a", "9"), l[2].removeAttribute("a");
  l[4] = l[3], l[3].updateAttribute("b", "");
  EXPECT_EQ(written([&](KSOutStream& out) {
              for (const AttributeList& list : l) {
                ReaderWriter::writeAttributeList(out, list);
              }
            }),
            handList({{"a", "1"}, {"b", "2"}, {"c", "3"}}) + handList({{"a", "9"}, {"b", "2"}}) +
                handList({{"b", "2"}}) + handList({{"a", "1"}, {"b", ""}}) + ab + ab + ab);
  EXPECT_EQ(written([](KSOutStream& out) { ReaderWriter::writeRecordTable(out, GroupTable()); }),
            field("BT") + field(be(0, 4)));
  const std::string a = bytesOf(keyRecord(tagOf(1), "g", KEY_ACTIVE));
  const std::string b = bytesOf(keyRecord(tagOf(2), "g", KEY_ACTIVE));
  const std::pair<std::string, int> tables[] = {
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
  for (size_t i = 0; i < std::size(tables); ++i) {
    KSInputBuffer in(tables[i].first);
    KeyTable keys(true);
    keys.setSkipInvariant(true);
    EXPECT_EQ(KS_STATUS(ReaderWriter::readRecordTable(in, keys)), tables[i].second) << i;
    EXPECT_EQ(keys.size(), tables[i].second == 0 ? i : keys.size()) << i;
  }
}

TEST(KSMetadata, EachVersionsAttributesCountsDefaultsBooleansVersionBytesAndAccessors) {
  const struct {
    ks_version_t version;
    size_t count;
  } kVersions[] = {{KS_VERSION_100, 11}, {KS_VERSION_200, 14}, {KS_VERSION_300, 13}};
  for (const auto& v : kVersions) {
    SCOPED_TRACE(testing::Message() << std::hex << v.version);
    const AttributeList list = metadataList(v.version);
    EXPECT_EQ(list.size(), v.count);
    EXPECT_EQ(
        std::string(list.getAttribute("VERSION")) + std::string(list.getAttribute("HMKRAND")) +
            std::string(list.getAttribute("KPKRAND")) + std::string(list.getAttribute("KENCALG")),
        be(v.version, 4) + "truefalseAES_256_GCM");
    const KSMetadata meta(list);
    EXPECT_EQ(meta.version(), v.version);
    EXPECT_EQ(
        std::vector<bool>({meta.hmkRandom(), meta.kpkRandom(), meta.hmkFips(), meta.kpkFips()}),
        std::vector<bool>({true, false, false, true}));
    EXPECT_EQ(meta.attributes(), list);
    // Every attribute is required (but the FIPS flags of 0x100).
    for (const auto& attr : list) {
      const bool optional = v.version == KS_VERSION_100 && attr.first.find("FIPS") == 3;
      if (!optional) {
        EXPECT_EQ(metadataStatus(without(list, attr.first)), 1208) << attr.first;
      }
    }
  }
  // 0x100 may lack the FIPS flags, which then read as false and join the list.
  const AttributeList bare = without(without(metadataList(KS_VERSION_100), "HMKFIPS"), "KPKFIPS");
  ASSERT_EQ(bare.size(), 9u);
  const KSMetadata old(bare);
  EXPECT_FALSE(old.hmkFips() || old.kpkFips());
  EXPECT_EQ(old.attributes().size(), 11u);
  EXPECT_EQ(old.attributes().getAttribute("KPKFIPS"), "false");
  const KSMetadata given(with(metadataList(KS_VERSION_100), "HMKFIPS", "true"));
  EXPECT_TRUE(given.hmkFips() && given.kpkFips());
  EXPECT_EQ(KSMetadata(with(bare, "VERSION", unhex("0100"))).version(), KS_VERSION_100);
  // An unknown cipher name passes, and the list keeps what was read.
  const KSMetadata odd(with(metadataList(KS_VERSION_300), "MENCALG", "AES_512_XYZ"));
  EXPECT_EQ(odd.masterEncAlgo(), KSCrypt::CRYPT_INVALID);
  EXPECT_EQ(odd.attributes().getAttribute("MENCALG"), "AES_512_XYZ");
  const AttributeList v1 = metadataList(KS_VERSION_100), v2 = metadataList(KS_VERSION_200),
                      v3 = metadataList(KS_VERSION_300);
  const std::pair<AttributeList, int> rows[] = {
      {with(v3, "HMKHASH", "x"), 1208},  // an attribute of another version: the count is wrong
      {with(v2, "EXTRA", ""), 1208},
      {without(v2, "HMKFIPS"), 1208},  // only 0x100 may lack the FIPS flags
      {without(v3, "KPKFIPS"), 1208},
      {with(v3, "HMKRAND", "TRUE"), 1208},
      {with(v3, "KPKFIPS", ""), 1208},
      {with(v1, "VERSION", std::string(1, '\x01')), 1218},
      {with(v1, "VERSION", unhex("0000000100")), 0},
      {with(v1, "VERSION", unhex("0100000100")), 1218},
      {with(v1, "VERSION", ""), 1218},
      {without(v1, "VERSION"), 1208},
      {with(v3, "VERSION", unhex("00000400")), 1218},
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    EXPECT_EQ(metadataStatus(rows[i].first), rows[i].second) << i;
  }
  for (ks_version_t bad : {0u, 0x101u, 0x400u}) {
    EXPECT_EQ(KS_STATUS(KSMetadata{bad}), 1218);
  }
  // Accessors belong to their versions.
  KSMetadata m1(KS_VERSION_100), m2(KS_VERSION_200), m3(KS_VERSION_300);
  const std::pair<std::function<void()>, int> calls[] = {
      {[&] { m3.setMasterIV("iv"); }, 1219},   {[&] { m1.setMasterIV("iv"); }, 1219},
      {[&] { m2.setMasterIV("iv"); }, 0},      {[&] { m3.hmkHash(); }, 1219},
      {[&] { m3.setKpkHash("h"); }, 1219},     {[&] { m2.hmkVerifier(); }, 1219},
      {[&] { m1.setKpkVerifier("v"); }, 1219}, {[&] { m1.setHmkSalt("s"); }, 1219},
      {[&] { m1.setKpkSalt("s"); }, 1219},     {[&] { m1.kpkHash(); }, 0},
      {[&] { m3.kpkVerifier(); }, 0},          {[&] { m3.setHmkSalt("s"); }, 0},
  };
  for (size_t i = 0; i < std::size(calls); ++i) {
    EXPECT_EQ(ksStatus(calls[i].first), calls[i].second) << i;
  }
  EXPECT_EQ(m1.hmkSalt(), "");
}

TEST(KeyFile, TheSmallBlocksRoundTripAndRefuseMissingExtraOrOtherVersions) {
  KeyFile file(KS_VERSION_200);
  file.setKey(std::string(4096, 'k'));
  EXPECT_EQ(KS_STATUS(file.setKey(std::string(4097, 'k'))), 1214);
  const AttributeList keyFile = file.attributes();
  EXPECT_EQ(KeyFile(keyFile).key(), std::string(4096, 'k'));
  EXPECT_EQ(KeyFile(with(keyFile, "VERSION", kV100)).version(), KS_VERSION_100);
  SecuredDataHeader header(KS_VERSION_200);
  header.setSalt(std::string(24, 's'));
  header.setIV(std::string(16, 'i'));
  const AttributeList secured = header.attributes();
  EXPECT_EQ(SecuredDataHeader(secured).salt() + SecuredDataHeader(secured).iv(),
            header.salt() + header.iv());
  const AttributeList exim = KSEximMetadata(KS_VERSION_200).attributes();
  EXPECT_EQ(exim.getAttribute("VERSION"), kV200);
  const struct {
    AttributeList list;
    std::string wrongVersion;
    std::function<void(const AttributeList&)> read;
  } blocks[] = {
      {keyFile, unhex("00000301"), [](const AttributeList& l) { KeyFile{l}; }},
      {secured, kV100, [](const AttributeList& l) { SecuredDataHeader{l}; }},
      {exim, kV300, [](const AttributeList& l) { EXPECT_EQ(KSEximMetadata(l).version(), 0x200u); }},
  };
  for (const auto& b : blocks) {
    EXPECT_EQ(KS_STATUS(b.read(b.list)), 0);
    EXPECT_EQ(KS_STATUS(b.read(with(b.list, "EXTRA", ""))), 1208);
    EXPECT_EQ(KS_STATUS(b.read(with(b.list, "VERSION", b.wrongVersion))), 1218);
    for (const auto& attr : b.list) {
      EXPECT_EQ(KS_STATUS(b.read(without(b.list, attr.first))), 1208) << attr.first;
    }
  }
  EXPECT_EQ(KS_STATUS(KeyFile{0x400}), 1218);
  EXPECT_EQ(KS_STATUS(KSEximMetadata{KS_VERSION_300}), 1218);
  EXPECT_EQ(KS_STATUS(SecuredDataHeader{KS_VERSION_100}), 1218);
  file.clear();
  header.clear();
  EXPECT_TRUE(file.attributes().getAttribute("THEKEY").empty() &&
              header.attributes().getAttribute("SALT").empty());
}

TEST(PasswordSecured, LayoutMatchesAnIndependentEncodingAndNeverRepeats) {
  std::string block;
  std::string back;
  {
    WeakKdf weak;
    block = seal(kData);
    size_t headerLen = 0;
    const AttributeList list = headerOf(block, &headerLen);
    // Header: IV, SALT, VERSION in sorted order, with the list's own digest.
    const std::string iv(list.getAttribute("IV"));
    const std::string salt(list.getAttribute("SALT"));
    ASSERT_EQ(iv.size(), 16u);
    ASSERT_EQ(salt.size(), 24u);
    EXPECT_EQ(salt.substr(0, 2), std::string("S\x03", 2));
    EXPECT_EQ(block.substr(40, headerLen),
              handList({{"IV", iv}, {"SALT", salt}, {"VERSION", kV200}}));
    // The same keys, HMAC and cipher through OpenSSL alone give the same bytes.
    EXPECT_EQ(hex(handBlock(kV200, salt, iv, kData, true)), hex(block));
    // Salt, IV, ciphertext and HMAC are new each time.
    const std::string again = seal(kData);
    ASSERT_EQ(again.size(), block.size());
    for (size_t at : {size_t{2}, size_t{58}, 40 + headerLen + 6}) {  // HMAC, IV, cipher
      EXPECT_NE(again.substr(at, 16), block.substr(at, 16)) << at;
    }
  }
  // The reader follows the salt, not the flag.
  ASSERT_EQ(openStatus(block, back), 0);
  EXPECT_EQ(back, kData);
  EXPECT_EQ(openStatus(block, back, "wrong"), 1284);
  EXPECT_EQ(back, "untouched");
}

TEST(PasswordSecured, EveryFlippedBitAndMalformedBlocksAreRefused) {
  WeakKdf weak;
  const std::string block = seal(kData);
  size_t headerLen = 0;
  headerOf(block, &headerLen);
  const size_t n = block.size() - 40;
  for (size_t i = 0; i < block.size(); ++i) {
    for (int bit = 0; bit < 8; ++bit) {
      std::string bad = block;
      bad[i] = static_cast<char>(bad[i] ^ (1 << bit));
      int expected = 1284;  // the HMAC itself, and everything it covers
      if (i < 2 || (i >= 34 && i < 36)) {
        expected = 1208;  // lengths of the HMAC and N fields
      } else if (i >= 36 && i < 40) {
        // N beyond the bytes there, or too short.
        expected = (n ^ (size_t{1} << (bit + 8 * (39 - i)))) > n ? 1208 : 1284;
      } else if (i >= 40 && i < 40 + headerLen) {
        expected = 1208;  // the header's own digest comes first
      }
      std::string back;
      ASSERT_EQ(openStatus(bad, back), expected) << "byte " << i << " bit " << bit;
      ASSERT_EQ(back, "untouched");
    }
  }
  // Malformed blocks.
  const std::string small = seal("data");
  std::string longN = small;
  longN.replace(36, 4, be(small.size() - 39, 4));
  const std::string iv(16, '\x01');
  const std::string cipher(16, '\x02');
  std::string scheme9 = kWeakSalt;
  scheme9[1] = 9;
  const std::pair<std::string, int> rows[] = {
      {field(std::string(65, 'h')) + small.substr(34), 1208},  // an HMAC field over 64 bytes
      {longN, 1208},                                           // N beyond the bytes there
      {small.substr(0, small.size() - 1), 1208},
      {small + "trailing", 0},  // bytes after the small are not read
      // Past the HMAC with a wrong ciphertext: the cipher fails.
      {handBlock(kV200, kWeakSalt, iv, cipher), 1200},
      {handBlock(kV100, kWeakSalt, iv, cipher), 1218},
      {handBlock(kV200, kWeakSalt.substr(1), iv, cipher), 1208},
      {handBlock(kV200, scheme9, iv, cipher), 1208},
      {handBlock(kV200, kWeakSalt, iv.substr(1), cipher), 1208},
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    std::string back;
    EXPECT_EQ(openStatus(rows[i].first, back), rows[i].second) << i;
    EXPECT_EQ(back, rows[i].second == 0 ? "data" : "untouched") << i;
  }
}
