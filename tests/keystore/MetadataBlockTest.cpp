// The metadata blocks: which attributes each version has, how a read list is
// validated, and which accessors belong to which version.
#include <gtest/gtest.h>

#include <functional>
#include <iterator>
#include <memory>
#include <string>

#include "CryptoTestUtil.h"
#include "FormatTestUtil.h"
#include "kms/server/keystore/crypto/CryptFactory.h"
#include "kms/server/keystore/format/KSEximMetadata.h"
#include "kms/server/keystore/format/KSMetadata.h"
#include "kms/server/keystore/format/KeyFile.h"
#include "kms/server/keystore/format/ReaderWriter.h"
#include "kms/server/keystore/format/SecuredDataHeader.h"

using namespace Vaultrest::DL::KMS;
using cryptotest::unhex;

namespace {

const std::string kV100 = unhex("00000100");
const std::string kV200 = unhex("00000200");
const std::string kV300 = unhex("00000300");

// A complete, valid list of `version` as a store of that version has it.
AttributeList metadataList(ks_version_t version) {
  KSMetadata meta(version);
  meta.setHmkID("hmk-id");
  meta.setKpkID("kpk-id");
  if (version == KS_VERSION_300) {
    meta.setHmkVerifier(std::string(92, 'h'));
    meta.setKpkVerifier(std::string(92, 'k'));
  } else {
    meta.setHmkHash(std::string(20, 'h'));
    meta.setKpkHash(std::string(20, 'k'));
  }
  meta.setMasterEncAlgo(version == KS_VERSION_300 ? KSCrypt::AES_256_GCM : KSCrypt::AES_256_CBC);
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
  if (!list.updateAttribute(name, value)) {
    list.addAttribute(name, value);
  }
  return list;
}

AttributeList without(AttributeList list, const std::string& name) {
  list.removeAttribute(name);
  return list;
}

int metadataStatus(const AttributeList& list) {
  return KS_STATUS(KSMetadata{list});
}

}  // namespace

TEST(KSMetadata, EachVersionHasItsAttributesAndRoundTripsThroughBytes) {
  const struct {
    ks_version_t version;
    size_t count;
  } kVersions[] = {{KS_VERSION_100, 11}, {KS_VERSION_200, 14}, {KS_VERSION_300, 13}};
  for (const auto& v : kVersions) {
    SCOPED_TRACE(testing::Message() << std::hex << v.version);
    const AttributeList list = metadataList(v.version);
    EXPECT_EQ(list.size(), v.count);
    EXPECT_EQ(list.getAttribute("VERSION"), formattest::be(v.version, 4));
    EXPECT_EQ(list.getAttribute("HMKRAND"), "true");
    EXPECT_EQ(list.getAttribute("KPKRAND"), "false");
    EXPECT_EQ(list.getAttribute("KENCALG"), "AES_256_GCM");
    EXPECT_EQ(list.find("HMKHASH") != list.end(), v.version != KS_VERSION_300);
    EXPECT_EQ(list.find("HMKVERIF") != list.end(), v.version == KS_VERSION_300);
    EXPECT_EQ(list.find("MASTERIV") != list.end(), v.version == KS_VERSION_200);
    EXPECT_EQ(list.find("KPKSALT") != list.end(), v.version != KS_VERSION_100);

    const KSMetadata meta(list);
    EXPECT_EQ(meta.version(), v.version);
    EXPECT_EQ(meta.hmkID(), "hmk-id");
    EXPECT_TRUE(meta.hmkRandom());
    EXPECT_FALSE(meta.kpkRandom());
    EXPECT_FALSE(meta.hmkFips());
    EXPECT_TRUE(meta.kpkFips());
    EXPECT_EQ(meta.keyEncAlgo(), KSCrypt::AES_256_GCM);
    EXPECT_EQ(meta.attributes(), list);
    if (v.version == KS_VERSION_300) {
      EXPECT_EQ(meta.hmkVerifier(), std::string(92, 'h'));
      EXPECT_EQ(meta.masterIV(), "");
    } else {
      EXPECT_EQ(meta.kpkHash(), std::string(20, 'k'));
    }
    // Every attribute is required (but the FIPS flags of 0x100).
    for (const auto& attr : list) {
      const bool optional = v.version == KS_VERSION_100 && attr.first.find("FIPS") == 3;
      if (!optional) {
        EXPECT_EQ(metadataStatus(without(list, attr.first)), 1208) << attr.first;
      }
    }
  }
}

TEST(KSMetadata, CountsDefaultsBooleansAndVersionBytes) {
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

  const AttributeList v1 = metadataList(KS_VERSION_100);
  const AttributeList v2 = metadataList(KS_VERSION_200);
  const AttributeList v3 = metadataList(KS_VERSION_300);
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
}

TEST(KSMetadata, AccessorsBelongToTheirVersions) {
  KSMetadata v1(KS_VERSION_100);
  KSMetadata v2(KS_VERSION_200);
  KSMetadata v3(KS_VERSION_300);
  const std::pair<std::function<void()>, int> calls[] = {
      {[&] { v3.setMasterIV("iv"); }, 1219},   {[&] { v1.setMasterIV("iv"); }, 1219},
      {[&] { v2.setMasterIV("iv"); }, 0},      {[&] { v3.hmkHash(); }, 1219},
      {[&] { v3.setKpkHash("h"); }, 1219},     {[&] { v2.hmkVerifier(); }, 1219},
      {[&] { v1.setKpkVerifier("v"); }, 1219}, {[&] { v1.setHmkSalt("s"); }, 1219},
      {[&] { v1.setKpkSalt("s"); }, 1219},     {[&] { v1.kpkHash(); }, 0},
      {[&] { v3.kpkVerifier(); }, 0},          {[&] { v3.setHmkSalt("s"); }, 0},
  };
  for (size_t i = 0; i < std::size(calls); ++i) {
    EXPECT_EQ(cryptotest::ksStatus(calls[i].first), calls[i].second) << i;
  }
  EXPECT_EQ(v1.hmkSalt(), "");
}

TEST(KSMetadata, UnknownCipherNamePassesUntilACrypterIsMade) {
  const KSMetadata meta(with(metadataList(KS_VERSION_300), "MENCALG", "AES_512_XYZ"));
  EXPECT_EQ(meta.masterEncAlgo(), KSCrypt::CRYPT_INVALID);
  // The list keeps what was read.
  EXPECT_EQ(meta.attributes().getAttribute("MENCALG"), "AES_512_XYZ");
  EXPECT_EQ(
      KS_STATUS((void)CryptFactory::createCrypter(meta.masterEncAlgo(), std::string(32, 'k'), "")),
      1223);
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
  EXPECT_EQ(file.attributes().getAttribute("THEKEY") + header.attributes().getAttribute("SALT"),
            "");
}
