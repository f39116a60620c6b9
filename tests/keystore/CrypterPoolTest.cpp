// Reuse of crypters: the pool's leases and the KPK manager that wraps and
// unwraps through it from many threads at once.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "CryptoTestUtil.h"
#include "kms/server/keystore/crypto/CrypterPool.h"
#include "kms/server/keystore/crypto/GCMCrypter.h"
#include "kms/server/keystore/crypto/KPKMgr.h"
#include "kms/server/keystore/crypto/KeyWrap.h"
#include "kms/server/keystore/crypto/RandData.h"

using namespace Vaultrest::DL::KMS;
using namespace cryptotest;

namespace {

const std::string kKeyA(32, 'a');
const std::string kKeyB(32, 'b');

std::string sealUnder(const std::string& key, const std::string& plain) {
  GCMCrypter c(key);
  return encryptAll(c, plain).bytes;
}

}  // namespace

TEST(CrypterPool, LeasesComeBackResetAndFollowTheKey) {
  CrypterPool pool;
  EXPECT_EQ(KS_STATUS(pool.lease(CrypterPool::DECRYPT)), 1223) << "no key yet";
  pool.setKey(KSCrypt::AES_256_GCM, kKeyA);
  // A decryption that nobody fetched leaves no plaintext for the next lease.
  const std::string secretA = sealUnder(kKeyA, "plaintext left behind");
  ASSERT_EQ(pool.lease(CrypterPool::DECRYPT)->decrypt(u8(secretA), secretA.size(), true), 0);
  {
    CrypterPool::Lease c = pool.lease(CrypterPool::DECRYPT);
    const unsigned char* p = nullptr;
    unsigned long n = 99;
    ASSERT_EQ(c->getDecryptedData(&p, &n), 0);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(decryptAll(*c, secretA).bytes, "plaintext left behind");
  }
  // An encrypt side comes back with a fresh IV, ready for the next stream.
  const std::string first = encryptAll(*pool.lease(CrypterPool::ENCRYPT), "same").bytes;
  const auto second = encryptAll(*pool.lease(CrypterPool::ENCRYPT), "same");
  ASSERT_EQ(second.status, 0);
  EXPECT_NE(first.substr(0, 12), second.bytes.substr(0, 12));
  EXPECT_EQ(decryptAll(*pool.lease(CrypterPool::DECRYPT), second.bytes).bytes, "same");
  // A crypter leased under the old key does not return to serve the new one.
  const std::string secretB = sealUnder(kKeyB, "under b");
  {
    CrypterPool::Lease old = pool.lease(CrypterPool::DECRYPT);
    pool.setKey(KSCrypt::AES_256_GCM, kKeyB);
  }
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(decryptAll(*pool.lease(CrypterPool::DECRYPT), secretB).bytes, "under b") << i;
  }
  pool.clear();
  EXPECT_EQ(KS_STATUS(pool.lease(CrypterPool::ENCRYPT)), 1223);
  pool.setKey(KSCrypt::AES_256_GCM, std::string(31, 'x'));
  EXPECT_EQ(KS_STATUS(pool.lease(CrypterPool::ENCRYPT)), 1223) << "the factory's error";
}

TEST(CrypterPool, ManagerWrapsAndUnwrapsFromManyThreadsAndFollowsRefills) {
  for (ks_version_t version : {KS_VERSION_100, KS_VERSION_300}) {
    KPKMgr mgr(kKeyA, KSCrypt::AES_256_GCM, version, true);
    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&] {
        for (int i = 0; i < 150; ++i) {
          const std::string key = Utils::getRandData(32);
          std::string wrapped = mgr.encryptKey(key, KPK_LOCAL, "");
          if (mgr.decryptKey(wrapped, KPK_LOCAL, "") != key) {
            ++bad;
          }
          // A damaged wrap between good ones fails alone.
          if (i % 7 == 0) {
            wrapped[wrapped.size() - 1] ^= 0x01;
            if (KS_STATUS(mgr.decryptKey(wrapped, KPK_LOCAL, "")) != 1200) {
              ++bad;
            }
          }
        }
      });
    }
    for (std::thread& t : threads) {
      t.join();
    }
    EXPECT_EQ(bad.load(), 0) << version;

    // After a refill, the crypters of the old KPK are gone.
    const std::string underA = mgr.encryptKey(kKeyB, KPK_LOCAL, "");
    mgr.set(kKeyB, KSCrypt::AES_256_GCM, version, true);
    EXPECT_EQ(KS_STATUS(mgr.decryptKey(underA, KPK_LOCAL, "")), 1200) << version;
    const std::string underB = mgr.encryptKey(kKeyA, KPK_LOCAL, "");
    EXPECT_EQ(Utils::decryptKeyWithKey(underB, kKeyB, KSCrypt::AES_256_GCM, version), kKeyA);
    const KPKMgr copy(mgr);
    EXPECT_EQ(copy.decryptKey(underB, KPK_LOCAL, ""), kKeyA) << version;
  }
}
