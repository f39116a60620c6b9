// Idle crypters of one type under one key, kept so that repeated wraps and
// unwraps under that key skip building a crypter each time (its contexts,
// its key schedule and the first IV of its encrypt side).
//
// A lease takes an idle crypter, or builds one with CryptFactory, for one
// side's use, and gives it back when it ends, with that side reset: no
// plaintext stays in an idle crypter, and its encrypt side always holds a
// fresh IV. So every idle crypter is ready on both sides, as a new one is.
// A crypter whose reset fails is destroyed, not kept.
//
// Thread-safe: any number of threads may lease at once (a short internal
// lock guards the idle list), and a leased crypter belongs to its lease
// alone. setKey and clear may run while leases are out: a crypter leased
// under an earlier key is destroyed when its lease ends. A lease must end
// before its pool is destroyed. The pool's copy of the key is wiped when it
// is replaced or the pool is destroyed.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kms/server/keystore/crypto/KSCrypt.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class CrypterPool {
 public:
  enum Side { ENCRYPT, DECRYPT };
  // Idle crypters kept at most; more are destroyed as their leases end.
  static constexpr size_t kMaxIdle = 8;

  class Lease {
   public:
    ~Lease();
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

    // Use only the side the lease was taken for.
    KSCrypt& operator*() const { return *m_crypter; }
    KSCrypt* operator->() const { return m_crypter.get(); }

   private:
    friend class CrypterPool;
    Lease(CrypterPool& pool, std::unique_ptr<KSCrypt> crypter, Side side, uint64_t generation);

    CrypterPool& m_pool;
    std::unique_ptr<KSCrypt> m_crypter;
    Side m_side;
    uint64_t m_generation;
  };

  // No key: lease() throws KeyStoreError 1223 until setKey.
  CrypterPool() = default;
  ~CrypterPool();
  CrypterPool(const CrypterPool&) = delete;
  CrypterPool& operator=(const CrypterPool&) = delete;

  // Drops the idle crypters; from now on crypters of `type` under `key`
  // (with an empty IV, so only types whose crypter takes the key alone).
  void setKey(KSCrypt::CryptType type, const std::string& key);
  // Drops the idle crypters and the key.
  void clear();

  // A crypter ready on both sides, for use of `side`. Building a new one
  // passes on CryptFactory's KeyStoreError (1223 for a key of the wrong
  // length).
  Lease lease(Side side);

 private:
  void giveBack(std::unique_ptr<KSCrypt> crypter, Side side, uint64_t generation);

  std::mutex m_mutex;  // guards everything below
  bool m_keySet = false;
  KSCrypt::CryptType m_type = KSCrypt::CRYPT_INVALID;
  std::string m_key;
  uint64_t m_generation = 0;  // counts setKey and clear
  std::vector<std::unique_ptr<KSCrypt>> m_idle;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
