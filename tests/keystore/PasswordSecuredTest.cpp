// The passphrase-sealed envelope of an export: its layout, checked with an
// independent reading through OpenSSL alone, and every way a block can be
// wrong.
#include <gtest/gtest.h>

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <string>

#include "CryptoTestUtil.h"
#include "FormatTestUtil.h"
#include "RecordTestHelpers.h"
#include "kms/server/keystore/format/KSEximMetadata.h"
#include "kms/server/keystore/format/ReaderWriter.h"
#include "kms/server/keystore/records/KeyRecordTable.h"
#include "kms/server/keystore/records/RecordTable.h"

using namespace Vaultrest::DL::KMS;
using namespace formattest;
using cryptotest::ksStatus;
using cryptotest::unhex;

namespace {

typedef KeyRecordTable<KeyRecord_v1> KeyTable;
typedef RecordTable<KeyGrpRecord_v1> GroupTable;

const std::string kPass = "correct horse";

std::string seal(const std::string& data, const std::string& passphrase = kPass) {
  return written(
      [&](KSOutStream& out) { ReaderWriter::writeDataPasswordSecured(out, passphrase, data); });
}

int openStatus(const std::string& block, std::string* data = nullptr,
               const std::string& passphrase = kPass) {
  std::string sink = "untouched";
  const int status = ksStatus([&] {
    KSInputBuffer in(block);
    ReaderWriter::readDataPasswordSecured(in, passphrase, sink);
  });
  if (data != nullptr) {
    *data = sink;
  }
  return status;
}

// The plaintext of an export: metadata, one key (in the clear), one group.
std::string exportPlaintext() {
  KeyTable keys(true);
  KeyRecord_v1 key =
      recordtest::keyRecord(recordtest::tagOf(1), recordtest::tagOf(2, 'G'), KEY_ACTIVE);
  key.setKey(std::string(32, '\x6b'));
  keys.addRecord(key);
  GroupTable groups;
  KeyGrpRecord_v1 group;
  group.setFields(recordtest::tagOf(2, 'G'), "grp", CT_AES256_CBC, 2, 1, "", 1);
  groups.addRecord(group);
  return written([&](KSOutStream& out) {
    ReaderWriter::writeAttributeList(out, KSEximMetadata(KS_VERSION_200).attributes());
    ReaderWriter::writeRecordTable(out, keys);
    ReaderWriter::writeRecordTable(out, groups);
  });
}

struct Layout {
  size_t regionStart = 40;  // HMAC field 34 bytes, N field 6 bytes
  size_t headerLen = 0;
  size_t cipherStart = 0;
};

// Offsets of a block, found by walking the hand layout.
Layout layoutOf(const std::string& block) {
  Layout l;
  KSInputBuffer in(block.substr(l.regionStart));
  AttributeList header;
  ReaderWriter::readAttributeList(in, header);
  l.headerLen = block.size() - l.regionStart - in.remaining();
  l.cipherStart = l.regionStart + l.headerLen + 6;
  return l;
}

// A block laid out by hand with keys derived the way scheme 3 says
// (PBKDF2-HMAC-SHA-1, 2 iterations, 64 bytes): `header` as given, a right
// HMAC, and `content` as the ciphertext or, with `encrypt`, encrypted under
// AES-256-CBC with the first half of the keys and the header's IV.
std::string handBlock(const AttributeList& header, std::string content,
                      const std::string& passphrase = kPass, bool encrypt = false) {
  const std::string salt = header.getAttribute("SALT");
  unsigned char derived[64];
  PKCS5_PBKDF2_HMAC(passphrase.data(), static_cast<int>(passphrase.size()),
                    reinterpret_cast<const unsigned char*>(salt.data()),
                    static_cast<int>(salt.size()), 2, EVP_sha1(), sizeof derived, derived);
  if (encrypt) {
    std::string cipher(content.size() + 16, '\0');
    int len = 0;
    int tail = 0;
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(ctx, EVP_aes_256_cbc(), nullptr, derived,
                       reinterpret_cast<const unsigned char*>(header.getAttribute("IV").data()));
    EVP_EncryptUpdate(ctx, reinterpret_cast<unsigned char*>(&cipher[0]), &len,
                      reinterpret_cast<const unsigned char*>(content.data()),
                      static_cast<int>(content.size()));
    EVP_EncryptFinal_ex(ctx, reinterpret_cast<unsigned char*>(&cipher[len]), &tail);
    EVP_CIPHER_CTX_free(ctx);
    cipher.resize(static_cast<size_t>(len + tail));
    content = cipher;
  }
  const std::string region =
      written([&](KSOutStream& out) { ReaderWriter::writeAttributeList(out, header); }) +
      field(be(content.size(), 4)) + content;
  unsigned char mac[32];
  unsigned int macLen = 0;
  HMAC(EVP_sha256(), derived + 32, 32, reinterpret_cast<const unsigned char*>(region.data()),
       region.size(), mac, &macLen);
  return field(std::string(reinterpret_cast<const char*>(mac), macLen)) +
         field(be(region.size(), 4)) + region;
}

AttributeList headerOf(const std::string& version, const std::string& salt, const std::string& iv) {
  AttributeList header;
  header.addAttribute("VERSION", version);
  header.addAttribute("SALT", salt);
  header.addAttribute("IV", iv);
  return header;
}

// The value of the N field.
uint32_t loadN(const std::string& block) {
  uint32_t n = 0;
  for (size_t i = 36; i < 40; ++i) {
    n = (n << 8) | static_cast<unsigned char>(block[i]);
  }
  return n;
}

std::string weakSalt() {
  return std::string("S\x03", 2) + std::string(22, '\x11');
}

}  // namespace

TEST(PasswordSecured, LayoutMatchesAnIndependentEncoding) {
  WeakKdf weak;
  const std::string data = exportPlaintext();
  const std::string block = seal(data);
  const Layout l = layoutOf(block);
  // Header: IV, SALT, VERSION in sorted order, with the list's own digest.
  KSInputBuffer headerIn(block.substr(l.regionStart, l.headerLen));
  AttributeList header;
  ReaderWriter::readAttributeList(headerIn, header);
  const std::string iv = header.getAttribute("IV");
  const std::string salt = header.getAttribute("SALT");
  ASSERT_EQ(iv.size(), 16u);
  ASSERT_EQ(salt.size(), 24u);
  EXPECT_EQ(salt.substr(0, 2), std::string("S\x03", 2));
  EXPECT_EQ(block.substr(l.regionStart, l.headerLen),
            handList({{"IV", iv}, {"SALT", salt}, {"VERSION", unhex("00000200")}}));
  // The same keys, HMAC and cipher through OpenSSL alone give the same bytes.
  EXPECT_EQ(cryptotest::hex(handBlock(header, data, kPass, true)), cryptotest::hex(block));
}

TEST(PasswordSecured, RoundTripsNeverRepeatsAndNeedsTheRightPassphrase) {
  std::string block;
  std::string back;
  {
    WeakKdf weak;
    const std::string data = exportPlaintext();
    block = seal(data);
    ASSERT_EQ(openStatus(block, &back), 0);
    EXPECT_EQ(back, data);
    // Salt, IV, ciphertext and HMAC are new each time.
    const std::string again = seal(data);
    const Layout l = layoutOf(block);
    ASSERT_EQ(again.size(), block.size());
    EXPECT_NE(again.substr(2, 32), block.substr(2, 32));
    EXPECT_NE(again.substr(l.regionStart, l.headerLen), block.substr(l.regionStart, l.headerLen));
    EXPECT_NE(again.substr(l.cipherStart), block.substr(l.cipherStart));
  }
  // The reader follows the salt, not the flag.
  EXPECT_EQ(openStatus(block), 0);
  EXPECT_EQ(openStatus(block, &back, "wrong"), 1284);
  EXPECT_EQ(back, "untouched");
  EXPECT_EQ(openStatus(block, &back, ""), 1284);

  // The real scheme: PBKDF2-HMAC-SHA-512 with 500000 iterations on each
  // side; empty data is one block of padding.
  const std::string strong = seal("", "pass");
  const Layout l = layoutOf(strong);
  EXPECT_NE(strong.substr(l.regionStart, l.headerLen).find(std::string("S\x02", 2)),
            std::string::npos);
  EXPECT_EQ(strong.substr(l.cipherStart - 6), field(be(16, 4)) + strong.substr(strong.size() - 16));
  back = "x";
  EXPECT_EQ(openStatus(strong, &back, "pass"), 0);
  EXPECT_EQ(back, "");
}

TEST(PasswordSecured, EveryFlippedBitOfAnExportBlockIsRefused) {
  WeakKdf weak;
  const std::string block = seal(exportPlaintext());
  const Layout l = layoutOf(block);
  const uint32_t n = static_cast<uint32_t>(block.size() - l.regionStart);
  for (size_t i = 0; i < block.size(); ++i) {
    for (int bit = 0; bit < 8; ++bit) {
      std::string bad = block;
      bad[i] = static_cast<char>(bad[i] ^ (1 << bit));
      int expected = 1284;  // the HMAC itself, and everything it covers
      if (i < 2 || (i >= 34 && i < 36)) {
        expected = 1208;  // lengths of the HMAC and N fields
      } else if (i >= 36 && i < 40) {
        const uint32_t flipped = loadN(bad);
        expected = flipped > n ? 1208 : 1284;  // N beyond the bytes there, or too short
      } else if (i >= l.regionStart && i < l.regionStart + l.headerLen) {
        expected = 1208;  // the header's own digest comes first
      }
      std::string back;
      ASSERT_EQ(openStatus(bad, &back), expected) << "byte " << i << " bit " << bit;
      ASSERT_EQ(back, "untouched");
    }
  }
}

TEST(PasswordSecured, MalformedBlocks) {
  WeakKdf weak;
  const std::string block = seal("data");
  // An HMAC field longer than 64 bytes.
  EXPECT_EQ(openStatus(field(std::string(65, 'h')) + block.substr(34)), 1208);
  // N beyond the bytes there, and a block cut short.
  std::string longN = block;
  longN.replace(36, 4, be(block.size() - 39, 4));
  EXPECT_EQ(openStatus(longN), 1208);
  EXPECT_EQ(openStatus(block.substr(0, block.size() - 1)), 1208);
  EXPECT_EQ(openStatus(""), 1208);
  // Bytes after the block are not read.
  std::string back;
  EXPECT_EQ(openStatus(block + "trailing", &back), 0);
  EXPECT_EQ(back, "data");

  const std::string iv(16, '\x01');
  const std::string cipher(16, '\x02');
  const std::string v200 = unhex("00000200");
  // Sanity of the hand builder: a right block with a wrong ciphertext gets
  // past the HMAC and fails in the cipher.
  EXPECT_EQ(openStatus(handBlock(headerOf(v200, weakSalt(), iv), cipher)), 1200);
  // A header of version 0x100 fails in the header.
  EXPECT_EQ(openStatus(handBlock(headerOf(unhex("00000100"), weakSalt(), iv), cipher)), 1218);
  // A malformed salt: 23 bytes, or an unknown scheme.
  EXPECT_EQ(openStatus(handBlock(headerOf(v200, weakSalt().substr(1), iv), cipher)), 1208);
  std::string scheme9 = weakSalt();
  scheme9[1] = 9;
  EXPECT_EQ(openStatus(handBlock(headerOf(v200, scheme9, iv), cipher)), 1208);
  // Made with the right passphrase but with an IV of 15 bytes.
  EXPECT_EQ(openStatus(handBlock(headerOf(v200, weakSalt(), iv.substr(1)), cipher)), 1208);
}
