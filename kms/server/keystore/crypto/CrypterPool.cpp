#include "kms/server/keystore/crypto/CrypterPool.h"

#include <utility>

#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/crypto/CryptFactory.h"
#include "kms/server/keystore/crypto/SecureBytes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

CrypterPool::Lease::Lease(CrypterPool& pool, std::unique_ptr<KSCrypt> crypter, Side side,
                          uint64_t generation)
    : m_pool(pool), m_crypter(std::move(crypter)), m_side(side), m_generation(generation) {}

CrypterPool::Lease::~Lease() {
  m_pool.giveBack(std::move(m_crypter), m_side, m_generation);
}

CrypterPool::~CrypterPool() {
  wipeString(m_key);
}

void CrypterPool::setKey(KSCrypt::CryptType type, const std::string& key) {
  // Swapped with the idle list, so that the list keeps room for kMaxIdle and
  // giving a crypter back never allocates; the old crypters die unlocked.
  std::vector<std::unique_ptr<KSCrypt>> dropped;
  dropped.reserve(kMaxIdle);
  std::lock_guard<std::mutex> lock(m_mutex);
  dropped.swap(m_idle);
  wipeString(m_key);
  m_key = key;
  m_type = type;
  m_keySet = true;
  ++m_generation;
}

void CrypterPool::clear() {
  std::vector<std::unique_ptr<KSCrypt>> dropped;
  dropped.reserve(kMaxIdle);
  std::lock_guard<std::mutex> lock(m_mutex);
  dropped.swap(m_idle);
  wipeString(m_key);
  m_type = KSCrypt::CRYPT_INVALID;
  m_keySet = false;
  ++m_generation;
}

CrypterPool::Lease CrypterPool::lease(Side side) {
  Secret key;
  KSCrypt::CryptType type;
  uint64_t generation;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_keySet) {
      KS_THROW(EC_KS_crypter_not_ready, "CrypterPool::lease");
    }
    if (!m_idle.empty()) {
      std::unique_ptr<KSCrypt> crypter = std::move(m_idle.back());
      m_idle.pop_back();
      return Lease(*this, std::move(crypter), side, m_generation);
    }
    key = Secret(std::string(m_key));
    type = m_type;
    generation = m_generation;
  }
  // Built unlocked: the other threads need not wait for it.
  std::unique_ptr<KSCrypt> crypter(CryptFactory::createCrypter(type, key.str(), std::string()));
  return Lease(*this, std::move(crypter), side, generation);
}

void CrypterPool::giveBack(std::unique_ptr<KSCrypt> crypter, Side side, uint64_t generation) {
  if (crypter == nullptr) {
    return;
  }
  // Wipes the side's output (plaintext after a decryption) and, on the
  // encrypt side, draws the next IV.
  const int rc = side == ENCRYPT ? crypter->encryptReset() : crypter->decryptReset();
  if (rc != 0) {
    return;
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  // The idle list has room reserved, so this never allocates. A crypter not
  // kept dies with the parameter, after the lock is released.
  if (generation == m_generation && m_idle.size() < m_idle.capacity() && m_idle.size() < kMaxIdle) {
    m_idle.push_back(std::move(crypter));
  }
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
