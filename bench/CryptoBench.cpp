// Cost of the crypto operations on the store's paths. Each benchmark times a
// plain reference in the same iterations and reports the ratio:
//   key wrap and unwrap under 0x300 (GCM, a 32-byte key, so 64 bytes of
//   plaintext): one bare AES-256-GCM encryption of 64 bytes through EVP,
//   context set-up and tag included;
//   passphrase derivation (scheme 2 salt: PBKDF2-HMAC-SHA-512, 500000
//   iterations, 32 bytes): one raw PKCS5_PBKDF2_HMAC call with the same
//   parameters.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "bench/BenchReport.h"
#include "kms/platform/MangleRandom.h"
#include "kms/server/keystore/crypto/KPKMgr.h"
#include "kms/server/keystore/crypto/KeyGen.h"
#include "kms/server/keystore/crypto/KeyWrap.h"

using namespace Vaultrest::DL::KMS;

namespace {

using bench::Clock;
using bench::seconds;

const std::string kKpk(32, '\x11');
const std::string kKey(32, '\x22');

// The reference: AES-256-GCM of 64 bytes under a fresh random IV, the way
// a caller would do it with EVP alone.
std::string rawGcm64(const unsigned char* plain) {
  unsigned char iv[12];
  unsigned char out[12 + 64 + 16];
  if (mangleGetRandom(iv, sizeof iv) != 0) {
    std::abort();
  }
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  int len = 0;
  int tail = 0;
  if (ctx == nullptr ||
      EVP_EncryptInit_ex(ctx, EVP_aes_256_gcm(), nullptr, nullptr, nullptr) != 1 ||
      EVP_EncryptInit_ex(ctx, nullptr, nullptr, reinterpret_cast<const unsigned char*>(kKpk.data()),
                         iv) != 1 ||
      EVP_EncryptUpdate(ctx, out + 12, &len, plain, 64) != 1 ||
      EVP_EncryptFinal_ex(ctx, out + 12 + len, &tail) != 1 ||
      EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, 16, out + 12 + 64) != 1) {
    std::abort();
  }
  EVP_CIPHER_CTX_free(ctx);
  std::copy(iv, iv + 12, out);
  return std::string(reinterpret_cast<const char*>(out), sizeof out);
}

void BM_WrapKey_0x300(benchmark::State& state) {
  const KPKMgr mgr(kKpk, KSCrypt::AES_256_GCM, KS_VERSION_300, true);
  const std::string plain(64, '\x33');
  double subject = 0;
  double reference = 0;
  for (auto _ : state) {
    Clock::time_point t0 = Clock::now();
    std::string wrapped = mgr.encryptKey(kKey, KPK_LOCAL, "");
    Clock::time_point t1 = Clock::now();
    benchmark::DoNotOptimize(wrapped.data());

    Clock::time_point t2 = Clock::now();
    std::string raw = rawGcm64(reinterpret_cast<const unsigned char*>(plain.data()));
    Clock::time_point t3 = Clock::now();
    benchmark::DoNotOptimize(raw.data());

    subject += seconds(t0, t1);
    reference += seconds(t2, t3);
    state.SetIterationTime(seconds(t0, t1));
  }
  bench::report(state, {"key wrap under 0x300", "bare AES-256-GCM of 64 bytes", ""}, subject,
                reference);
}
BENCHMARK(BM_WrapKey_0x300)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_UnwrapKey_0x300(benchmark::State& state) {
  const KPKMgr mgr(kKpk, KSCrypt::AES_256_GCM, KS_VERSION_300, true);
  const std::string wrapped = mgr.encryptKey(kKey, KPK_LOCAL, "");
  const std::string plain(64, '\x33');
  double subject = 0;
  double reference = 0;
  for (auto _ : state) {
    Clock::time_point t0 = Clock::now();
    std::string key = mgr.decryptKey(wrapped, KPK_LOCAL, "");
    Clock::time_point t1 = Clock::now();
    benchmark::DoNotOptimize(key.data());

    Clock::time_point t2 = Clock::now();
    std::string raw = rawGcm64(reinterpret_cast<const unsigned char*>(plain.data()));
    Clock::time_point t3 = Clock::now();
    benchmark::DoNotOptimize(raw.data());

    subject += seconds(t0, t1);
    reference += seconds(t2, t3);
    state.SetIterationTime(seconds(t0, t1));
  }
  bench::report(state, {"key unwrap under 0x300", "bare AES-256-GCM of 64 bytes", ""}, subject,
                reference);
}
BENCHMARK(BM_UnwrapKey_0x300)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_PassphraseToKey(benchmark::State& state) {
  const std::string passphrase = "a passphrase of ordinary length";
  const std::string salt = KeyGen::generateSalt();  // scheme 2
  double subject = 0;
  double reference = 0;
  for (auto _ : state) {
    Clock::time_point t0 = Clock::now();
    std::string key = KeyGen::passphraseToKey(passphrase, salt, 32);
    Clock::time_point t1 = Clock::now();
    benchmark::DoNotOptimize(key.data());

    unsigned char raw[32];
    Clock::time_point t2 = Clock::now();
    const int ok = PKCS5_PBKDF2_HMAC(passphrase.data(), static_cast<int>(passphrase.size()),
                                     reinterpret_cast<const unsigned char*>(salt.data()),
                                     static_cast<int>(salt.size()), KeyGen::STRONG_ITERATIONS,
                                     EVP_sha512(), sizeof raw, raw);
    Clock::time_point t3 = Clock::now();
    benchmark::DoNotOptimize(ok);
    benchmark::DoNotOptimize(raw);

    subject += seconds(t0, t1);
    reference += seconds(t2, t3);
    state.SetIterationTime(seconds(t0, t1));
  }
  bench::report(state, {"passphrase derivation", "raw PKCS5_PBKDF2_HMAC call", ""}, subject,
                reference);
}
BENCHMARK(BM_PassphraseToKey)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
