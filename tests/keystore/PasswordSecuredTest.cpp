// The passphrase-sealed envelope of an export: its layout, checked with an
// independent reading through OpenSSL alone, and every way a block can be
// wrong.
#include <gtest/gtest.h>

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <string>

#include "CryptoTestUtil.h"
#include "FormatTestUtil.h"
#include "kms/server/keystore/format/ReaderWriter.h"

using namespace Vaultrest::DL::KMS;
using namespace formattest;
using cryptotest::unhex;

namespace {

const std::string kPass = "correct horse";
const std::string kV200 = be(0x200, 4);

std::string seal(const std::string& data, const std::string& passphrase = kPass) {
  return written(
      [&](KSOutStream& out) { ReaderWriter::writeDataPasswordSecured(out, passphrase, data); });
}

int openStatus(const std::string& block, std::string* data = nullptr,
               const std::string& passphrase = kPass) {
  std::string sink = "untouched";
  KSInputBuffer in(block);
  const int status = KS_STATUS(ReaderWriter::readDataPasswordSecured(in, passphrase, sink));
  if (data != nullptr) {
    *data = sink;
  }
  return status;
}

// The header list of a block (after the HMAC field of 34 bytes and the N
// field of 6) and its length.
AttributeList headerOf(const std::string& block, size_t* length) {
  KSInputBuffer in(block.substr(40));
  AttributeList header;
  ReaderWriter::readAttributeList(in, header);
  *length = block.size() - 40 - in.remaining();
  return header;
}

AttributeList header(const std::string& version, const std::string& salt, const std::string& iv) {
  AttributeList list;
  list.addAttribute("VERSION", version);
  list.addAttribute("SALT", salt);
  list.addAttribute("IV", iv);
  return list;
}

// A block laid out by hand with keys derived the way scheme 3 says
// (PBKDF2-HMAC-SHA-1, 2 iterations, 64 bytes): `header` as given, a right
// HMAC, and `content` as the ciphertext or, with `encrypt`, encrypted under
// AES-256-CBC with the first half of the keys and the header's IV.
std::string handBlock(const AttributeList& header, std::string content, bool encrypt = false) {
  const std::string salt = header.getAttribute("SALT");
  unsigned char derived[64];
  PKCS5_PBKDF2_HMAC(kPass.data(), static_cast<int>(kPass.size()), cryptotest::u8(salt),
                    static_cast<int>(salt.size()), 2, EVP_sha1(), sizeof derived, derived);
  if (encrypt) {
    std::string cipher(content.size() + 16, '\0');
    int len = 0;
    int tail = 0;
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(ctx, EVP_aes_256_cbc(), nullptr, derived,
                       cryptotest::u8(header.getAttribute("IV")));
    EVP_EncryptUpdate(ctx, reinterpret_cast<unsigned char*>(&cipher[0]), &len,
                      cryptotest::u8(content), static_cast<int>(content.size()));
    EVP_EncryptFinal_ex(ctx, reinterpret_cast<unsigned char*>(&cipher[len]), &tail);
    EVP_CIPHER_CTX_free(ctx);
    content = cipher.substr(0, static_cast<size_t>(len + tail));
  }
  const std::string region =
      written([&](KSOutStream& out) { ReaderWriter::writeAttributeList(out, header); }) +
      field(be(content.size(), 4)) + content;
  unsigned char mac[32];
  unsigned int macLen = 0;
  HMAC(EVP_sha256(), derived + 32, 32, cryptotest::u8(region), region.size(), mac, &macLen);
  return field(std::string(reinterpret_cast<const char*>(mac), macLen)) +
         field(be(region.size(), 4)) + region;
}

std::string data() {
  std::string s(300, '\0');
  for (size_t i = 0; i < s.size(); ++i) {
    s[i] = static_cast<char>(i * 37);
  }
  return s;
}

const std::string kWeakSalt = std::string("S\x03", 2) + std::string(22, '\x11');

}  // namespace

TEST(PasswordSecured, LayoutMatchesAnIndependentEncodingAndNeverRepeats) {
  std::string block;
  std::string back;
  {
    WeakKdf weak;
    block = seal(data());
    size_t headerLen = 0;
    const AttributeList list = headerOf(block, &headerLen);
    // Header: IV, SALT, VERSION in sorted order, with the list's own digest.
    const std::string iv = list.getAttribute("IV");
    const std::string salt = list.getAttribute("SALT");
    ASSERT_EQ(iv.size(), 16u);
    ASSERT_EQ(salt.size(), 24u);
    EXPECT_EQ(salt.substr(0, 2), std::string("S\x03", 2));
    EXPECT_EQ(block.substr(40, headerLen),
              handList({{"IV", iv}, {"SALT", salt}, {"VERSION", kV200}}));
    // The same keys, HMAC and cipher through OpenSSL alone give the same bytes.
    EXPECT_EQ(cryptotest::hex(handBlock(list, data(), true)), cryptotest::hex(block));
    // Salt, IV, ciphertext and HMAC are new each time.
    const std::string again = seal(data());
    ASSERT_EQ(again.size(), block.size());
    for (size_t at : {size_t{2}, size_t{58}, 40 + headerLen + 6}) {  // HMAC, IV, cipher
      EXPECT_NE(again.substr(at, 16), block.substr(at, 16)) << at;
    }
  }
  // The reader follows the salt, not the flag.
  ASSERT_EQ(openStatus(block, &back), 0);
  EXPECT_EQ(back, data());
  EXPECT_EQ(openStatus(block, &back, "wrong"), 1284);
  EXPECT_EQ(back, "untouched");
  EXPECT_EQ(openStatus(block, &back, ""), 1284);
  // The real scheme: PBKDF2-HMAC-SHA-512 with 500000 iterations on each
  // side; empty data is one block of padding.
  const std::string strong = seal("", "pass");
  size_t headerLen = 0;
  EXPECT_EQ(headerOf(strong, &headerLen).getAttribute("SALT").substr(0, 2),
            std::string("S\x02", 2));
  EXPECT_EQ(strong.substr(40 + headerLen), field(be(16, 4)) + strong.substr(strong.size() - 16));
  back = "x";
  EXPECT_EQ(openStatus(strong, &back, "pass"), 0);
  EXPECT_EQ(back, "");
}

TEST(PasswordSecured, EveryFlippedBitOfABlockIsRefused) {
  WeakKdf weak;
  const std::string block = seal(data());
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
      ASSERT_EQ(openStatus(bad, &back), expected) << "byte " << i << " bit " << bit;
      ASSERT_EQ(back, "untouched");
    }
  }
}

TEST(PasswordSecured, MalformedBlocks) {
  WeakKdf weak;
  const std::string block = seal("data");
  std::string longN = block;
  longN.replace(36, 4, be(block.size() - 39, 4));
  const std::string iv(16, '\x01');
  const std::string cipher(16, '\x02');
  std::string scheme9 = kWeakSalt;
  scheme9[1] = 9;
  const std::pair<std::string, int> rows[] = {
      {field(std::string(65, 'h')) + block.substr(34), 1208},  // an HMAC field over 64 bytes
      {longN, 1208},                                           // N beyond the bytes there
      {block.substr(0, block.size() - 1), 1208},
      {"", 1208},
      {block + "trailing", 0},  // bytes after the block are not read
      // Past the HMAC with a wrong ciphertext: the cipher fails.
      {handBlock(header(kV200, kWeakSalt, iv), cipher), 1200},
      {handBlock(header(be(0x100, 4), kWeakSalt, iv), cipher), 1218},
      {handBlock(header(kV200, kWeakSalt.substr(1), iv), cipher), 1208},
      {handBlock(header(kV200, scheme9, iv), cipher), 1208},
      {handBlock(header(kV200, kWeakSalt, iv.substr(1)), cipher), 1208},
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    std::string back;
    EXPECT_EQ(openStatus(rows[i].first, &back), rows[i].second) << i;
    EXPECT_EQ(back, rows[i].second == 0 ? "data" : "untouched") << i;
  }
}
