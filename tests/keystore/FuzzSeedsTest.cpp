// The seed inputs of the store format's fuzz targets (fuzz/*Fuzz.cpp), made
// by the code under test and checked to read as intended. With
// VRKMS_FUZZ_SEED_DIR set, the seeds are also written to
// <dir>/<target>/<name>, which is how fuzz/corpus is made:
//
//   VRKMS_FUZZ_SEED_DIR=fuzz/corpus build/keystore_tests --gtest_filter='FuzzSeeds.*'
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "CryptoTestUtil.h"
#include "FormatTestUtil.h"
#include "RecordTestHelpers.h"
#include "kms/server/keystore/KSEximMetadata.h"
#include "kms/server/keystore/KSMetadata.h"
#include "kms/server/keystore/KeyFile.h"
#include "kms/server/keystore/KeyRecordTable.h"
#include "kms/server/keystore/ReaderWriter.h"
#include "kms/server/keystore/RecordTable.h"
#include "kms/server/keystore/SecuredDataHeader.h"

using namespace Vaultrest::DL::KMS;
using namespace formattest;
using cryptotest::ksStatus;

namespace {

typedef KeyRecordTable<KeyRecord_v1> KeyTable;
typedef RecordTable<KeyGrpRecord_v1> GroupTable;
typedef std::map<std::string, std::string> Seeds;  // name -> bytes

// The passphrase of fuzz/PasswordSecuredFuzz.cpp.
const std::string kFuzzPassphrase = "fuzz";

std::string listBytes(const AttributeList& list) {
  return written([&](KSOutStream& out) { ReaderWriter::writeAttributeList(out, list); });
}

KeyTable sampleKeys() {
  KeyTable keys(true);
  for (unsigned n = 0; n < 3; ++n) {
    KeyRecord_v1 rec = recordtest::keyRecord(recordtest::tagOf(n), recordtest::tagOf(n % 2, 'G'),
                                             n < 2 ? KEY_ACTIVE : KEY_DEPRECATED);
    rec.setKey(std::string(92, static_cast<char>(0x30 + n)));
    rec.setKpkTag("kpk");
    rec.setDescription("seed key");
    if (n == 1) {
      rec.attributes().addAttribute("colour", "blue");
    }
    keys.addRecord(rec);
  }
  return keys;
}

GroupTable sampleGroups() {
  GroupTable groups;
  for (unsigned n = 0; n < 2; ++n) {
    KeyGrpRecord_v1 rec;
    rec.setFields(recordtest::tagOf(n, 'G'), "group" + std::to_string(n), CT_AES256_CBC, 20, 10,
                  "seed group", 1);
    groups.addRecord(rec);
  }
  return groups;
}

AttributeList metadata(ks_version_t version) {
  KSMetadata meta(version);
  meta.setHmkID("hmk");
  meta.setKpkID("kpk");
  meta.setMasterEncAlgo(KSCrypt::AES_256_GCM);
  meta.setKeyEncAlgo(KSCrypt::AES_256_GCM);
  if (version == KS_VERSION_300) {
    meta.setHmkVerifier(std::string(92, 'v'));
    meta.setKpkVerifier(std::string(92, 'w'));
  } else {
    meta.setHmkHash(std::string(20, 'h'));
    meta.setKpkHash(std::string(20, 'k'));
  }
  if (version >= KS_VERSION_200) {
    meta.setHmkSalt(std::string("S\x02", 2) + std::string(22, 's'));
  }
  if (version == KS_VERSION_200) {
    meta.setMasterIV(std::string(16, 'i'));
  }
  return meta.attributes();
}

std::string exportPlaintext() {
  return written([](KSOutStream& out) {
    ReaderWriter::writeAttributeList(out, KSEximMetadata(KS_VERSION_200).attributes());
    ReaderWriter::writeRecordTable(out, sampleKeys());
    ReaderWriter::writeRecordTable(out, sampleGroups());
  });
}

std::map<std::string, Seeds> makeSeeds() {
  std::map<std::string, Seeds> seeds;
  AttributeList attrs;
  attrs.addAttribute("name", "value");
  attrs.addAttribute(std::string("\0bin", 4), std::string(300, '\xff'));
  seeds["AttributeListFuzz"] = {
      {"empty", listBytes(AttributeList())},
      {"two", listBytes(attrs)},
      {"old-marker", handList({{"b", "2"}, {"a", "1"}}, true)},
      {"metadata-300", listBytes(metadata(KS_VERSION_300))},
  };

  const KeyTable keys = sampleKeys();
  const std::string oldKey = handRecord({recordtest::tagOf(7), "old", be(1, 8), be(1, 8), "",
                                         be(1, 4), "g", be(2, 2), be(1, 2), "", "k"},
                                        handList({}, true), true);
  seeds["KeyRecordTableFuzz"] = {
      {"empty",
       written([](KSOutStream& out) { ReaderWriter::writeRecordTable(out, KeyTable(true)); })},
      {"three-keys", written([&](KSOutStream& out) { ReaderWriter::writeRecordTable(out, keys); })},
      {"old-marker", field("BT") + field(be(1, 4)) + oldKey},
  };
  seeds["KeyGrpRecordTableFuzz"] = {
      {"empty",
       written([](KSOutStream& out) { ReaderWriter::writeRecordTable(out, GroupTable()); })},
      {"two-groups",
       written([](KSOutStream& out) { ReaderWriter::writeRecordTable(out, sampleGroups()); })},
  };

  KeyFile keyFile(KS_VERSION_300);
  keyFile.setKey(std::string(32, 'K'));
  SecuredDataHeader header(KS_VERSION_200);
  header.setSalt(std::string("S\x03", 2) + std::string(22, 's'));
  header.setIV(std::string(16, 'i'));
  AttributeList bare100 = metadata(KS_VERSION_100);
  bare100.removeAttribute("HMKFIPS");
  bare100.removeAttribute("KPKFIPS");
  seeds["MetadataBlockFuzz"] = {
      {"metadata-100", listBytes(metadata(KS_VERSION_100))},
      {"metadata-100-no-fips", listBytes(bare100)},
      {"metadata-200", listBytes(metadata(KS_VERSION_200))},
      {"metadata-300", listBytes(metadata(KS_VERSION_300))},
      {"keyfile-300", listBytes(keyFile.attributes())},
      {"exim", listBytes(KSEximMetadata(KS_VERSION_200).attributes())},
      {"secured-header", listBytes(header.attributes())},
  };

  WeakKdf weak;
  auto sealed = [](const std::string& data) {
    return written([&](KSOutStream& out) {
      ReaderWriter::writeDataPasswordSecured(out, kFuzzPassphrase, data);
    });
  };
  // Byte 0 of an input: 0 opens the rest as a block, 1 seals the rest first.
  seeds["PasswordSecuredFuzz"] = {
      {"export", std::string(1, '\0') + sealed(exportPlaintext())},
      {"empty-data", std::string(1, '\0') + sealed("")},
      {"seal-payload", std::string(1, '\1') + "some data to seal"},
  };
  return seeds;
}

void writeFile(const std::string& path, const std::string& bytes) {
  FILE* f = std::fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr) << path;
  ASSERT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
  ASSERT_EQ(std::fclose(f), 0);
}

}  // namespace

TEST(FuzzSeeds, EverySeedReadsAsItShould) {
  const std::map<std::string, Seeds> seeds = makeSeeds();
  for (const auto& seed : seeds.at("AttributeListFuzz")) {
    SCOPED_TRACE(seed.first);
    KSInputBuffer in(seed.second);
    AttributeList list;
    EXPECT_EQ(ksStatus([&] { ReaderWriter::readAttributeList(in, list); }), 0);
    EXPECT_EQ(in.remaining(), 0u);
  }
  for (const auto& seed : seeds.at("KeyRecordTableFuzz")) {
    SCOPED_TRACE(seed.first);
    KSInputBuffer in(seed.second);
    KeyTable keys(true);
    EXPECT_EQ(ksStatus([&] { ReaderWriter::readRecordTable(in, keys); }), 0);
  }
  for (const auto& seed : seeds.at("KeyGrpRecordTableFuzz")) {
    KSInputBuffer in(seed.second);
    GroupTable groups;
    EXPECT_EQ(ksStatus([&] { ReaderWriter::readRecordTable(in, groups); }), 0) << seed.first;
  }
  for (const auto& seed : seeds.at("MetadataBlockFuzz")) {
    SCOPED_TRACE(seed.first);
    KSInputBuffer in(seed.second);
    AttributeList list;
    ReaderWriter::readAttributeList(in, list);
    // Each seed is a valid block of one of the four kinds.
    const int accepted = (ksStatus([&] { KSMetadata m(list); }) == 0) +
                         (ksStatus([&] { KeyFile f(list); }) == 0) +
                         (ksStatus([&] { KSEximMetadata e(list); }) == 0) +
                         (ksStatus([&] { SecuredDataHeader h(list); }) == 0);
    EXPECT_EQ(accepted, 1);
  }
  for (const auto& seed : seeds.at("PasswordSecuredFuzz")) {
    if (seed.second[0] == '\0') {
      KSInputBuffer in(seed.second.substr(1));
      std::string data;
      EXPECT_EQ(ksStatus([&] { ReaderWriter::readDataPasswordSecured(in, kFuzzPassphrase, data); }),
                0)
          << seed.first;
    }
  }

  const char* dir = std::getenv("VRKMS_FUZZ_SEED_DIR");
  if (dir != nullptr && *dir != '\0') {
    for (const auto& target : seeds) {
      const std::string targetDir = std::string(dir) + "/" + target.first;
      ::mkdir(targetDir.c_str(), 0755);
      for (const auto& seed : target.second) {
        writeFile(targetDir + "/" + seed.first, seed.second);
      }
    }
  }
}
