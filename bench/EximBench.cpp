// Cost of an export and of an import of a whole store of 3,000 keys (60
// groups of 50), against the passphrase derivation that each of them runs
// once (PBKDF2-HMAC-SHA-512, 500000 iterations, with a new salt).
//
// Each iteration times the operation and then, as the reference, one
// derivation of the same length on its own, so that both share the
// machine's state. The derivation is most of either operation by design;
// what is left (beyond_ms) is the work that grows with the store: copying
// and unwrapping or wrapping every key, encoding or decoding the tables,
// the clash checks, and for the import the commit of the store's three
// files, which is also the reason the import runs into a fresh empty store
// each time (made outside the timing).
//
// Counters: total_ms and derivation_ms per operation, beyond_ms, and ratio
// (total over derivation) with the common report fields.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "bench/BenchReport.h"
#include "kms/server/keystore/crypto/KPKMgr.h"
#include "kms/server/keystore/crypto/KeyGen.h"
#include "kms/server/keystore/crypto/KeyWrap.h"
#include "kms/server/keystore/crypto/RandData.h"
#include "kms/server/keystore/files/KMSFileLocator.h"
#include "kms/server/keystore/format/KSMetadata.h"
#include "kms/server/keystore/format/KeyFile.h"
#include "kms/server/keystore/store/FileKeyStore.h"
#include "kms/server/keystore/store/KSOpStatus.h"

using namespace Vaultrest::DL::KMS;

namespace {

using bench::Clock;
using bench::seconds;

constexpr int kGroups = 60;
constexpr int kKeysPerGroup = 50;
constexpr unsigned long kDerivedLength = 64;
const char* const kPassphrase = "benchmark export words";
const char* const kConfig =
    "[KMSConfig]\n"
    "\"max_key_groups\"=dword:000003e8\n"
    "\"max_keys_per_group\"=dword:00000064\n";

std::string g_root;

// The master keys and metadata of a store, random.
struct MasterKeys {
  KeyFile hmk{KS_VERSION_300};
  KeyFile kpk{KS_VERSION_300};
  KSMetadata meta{KS_VERSION_300};
  std::string plainKpk = Utils::getRandData(32);

  MasterKeys() {
    const std::string hmkKey = Utils::getRandData(32);
    hmk.setKey(hmkKey);
    kpk.setKey(Utils::encryptKeyWithKey(plainKpk, hmkKey, KSCrypt::AES_256_GCM, KS_VERSION_300));
    meta.setHmkID("hmk-id");
    meta.setKpkID("kpk-id");
    meta.setHmkVerifier(
        FileKeyStore::generateVerifier("HMKV", hmkKey, KSCrypt::AES_256_GCM, KS_VERSION_300));
    meta.setKpkVerifier(
        FileKeyStore::generateVerifier("KPKV", plainKpk, KSCrypt::AES_256_GCM, KS_VERSION_300));
    meta.setMasterEncAlgo(KSCrypt::AES_256_GCM);
    meta.setKeyEncAlgo(KSCrypt::AES_256_GCM);
  }
};

// Commits the tables under `dir` as a new store and brings it up.
std::unique_ptr<FileKeyStore> liveStore(const std::string& dir, const MasterKeys& master,
                                        const FileKeyStore::KeyTable& keys,
                                        const FileKeyStore::GroupTable& groups) {
  KMSFileLocator locator(dir);
  locator.createMissingDirectories();
  for (const std::string* path : {&locator.hmkPath(), &locator.kpkPath(), &locator.ksPath()}) {
    std::ofstream(*path, std::ios::trunc);
  }
  FileKeyStore::writeToFile(master.hmk, master.kpk, master.meta, keys, groups, locator);
  auto store = std::make_unique<FileKeyStore>(locator);
  if (store->init() != 0) {
    std::fprintf(stderr, "init of the store under %s failed\n", dir.c_str());
    std::abort();
  }
  return store;
}

// The store that is exported, and its export.
struct Source {
  MasterKeys master;
  std::unique_ptr<FileKeyStore> store;
  std::string buffer;

  Source() {
    const KPKMgr kpkMgr(master.plainKpk, KSCrypt::AES_256_GCM, KS_VERSION_300, true);
    FileKeyStore::KeyTable keys(true);
    FileKeyStore::GroupTable groups;
    keys.setSkipInvariant(true);
    for (int g = 0; g < kGroups; ++g) {
      const std::string group = Utils::getRandData(32);
      KeyGrpRecord_v1 grp;
      grp.setFields(group, "group-" + std::to_string(g), CT_AES256_CBC, 1700000000, 1700000000,
                    "a group of the benchmark", 1);
      groups.addRecord(grp);
      for (int k = 0; k < kKeysPerGroup; ++k) {
        KeyRecord_v1 rec;
        rec.setFields(Utils::getRandData(32), "key-" + std::to_string(k), group,
                      k == 0 ? KEY_ACTIVE : KEY_INACTIVE, 1700000000, 1700000000,
                      "a key of the benchmark", 1, KPK_LOCAL, std::string(),
                      kpkMgr.encryptKey(Utils::getRandData(32), KPK_LOCAL, std::string()));
        rec.addOrUpdateKRAttribute("KEY_FIPS", "false");
        keys.addRecord(rec);
      }
    }
    keys.setSkipInvariant(false);
    keys.testInvariant();
    store = liveStore(g_root + "/source", master, keys, groups);
    KSOpStatus status;
    buffer = store->exportToBuffer({}, kPassphrase, status);
    if (status.hasErrors()) {
      std::fprintf(stderr, "export failed with %d\n", status.errCode());
      std::abort();
    }
  }
};

Source& source() {
  static Source instance;
  return instance;
}

// One derivation as export and import run it; its seconds.
double timeDerivation() {
  const std::string salt = KeyGen::generateSalt();
  const Clock::time_point t0 = Clock::now();
  std::string derived = KeyGen::passphraseToKey(kPassphrase, salt, kDerivedLength);
  const Clock::time_point t1 = Clock::now();
  if (derived.size() != kDerivedLength) {
    std::abort();
  }
  benchmark::DoNotOptimize(derived.data());
  return seconds(t0, t1);
}

void report(benchmark::State& state, const char* operation, double total, double derivation) {
  const double n = static_cast<double>(state.iterations());
  bench::report(state,
                {operation, "one passphrase derivation (PBKDF2-SHA-512 500000)",
                 std::to_string(kGroups * kKeysPerGroup) + " keys"},
                total, derivation);
  state.counters["total_ms"] = total / n * 1e3;
  state.counters["derivation_ms"] = derivation / n * 1e3;
  state.counters["beyond_ms"] = (total - derivation) / n * 1e3;
}

void BM_Export(benchmark::State& state) {
  Source& src = source();
  double total = 0;
  double derivation = 0;
  for (auto _ : state) {
    KSOpStatus status;
    const Clock::time_point t0 = Clock::now();
    std::string buffer = src.store->exportToBuffer({}, kPassphrase, status);
    const Clock::time_point t1 = Clock::now();
    if (status.hasErrors()) {
      state.SkipWithError("export failed");
      break;
    }
    benchmark::DoNotOptimize(buffer.data());
    total += seconds(t0, t1);
    state.SetIterationTime(seconds(t0, t1));
    derivation += timeDerivation();
  }
  report(state, "exportToBuffer (whole store)", total, derivation);
}

void BM_Import(benchmark::State& state) {
  Source& src = source();
  const MasterKeys master;
  const FileKeyStore::KeyTable noKeys(true);
  const FileKeyStore::GroupTable noGroups;
  double total = 0;
  double derivation = 0;
  int round = 0;
  for (auto _ : state) {
    const std::string dir = g_root + "/dest-" + std::to_string(++round);
    std::unique_ptr<FileKeyStore> dest = liveStore(dir, master, noKeys, noGroups);
    KSOpStatus status;
    const Clock::time_point t0 = Clock::now();
    dest->importFromBuffer(src.buffer, kPassphrase, false, std::string(), status, false);
    const Clock::time_point t1 = Clock::now();
    if (status.hasErrors()) {
      state.SkipWithError("import failed");
      break;
    }
    total += seconds(t0, t1);
    state.SetIterationTime(seconds(t0, t1));
    derivation += timeDerivation();
    dest.reset();
    std::filesystem::remove_all(dir);
  }
  report(state, "importFromBuffer (into an empty store)", total, derivation);
}

BENCHMARK(BM_Export)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Import)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  char dir[] = "/tmp/vrkms-bench-XXXXXX";
  if (mkdtemp(dir) == nullptr) {
    return 1;
  }
  g_root = dir;
  setenv("VREST_ROOT", dir, 1);
  // Before the first store reads its limits.
  std::filesystem::create_directories(g_root + "/kms");
  std::ofstream(g_root + "/kms/vrkms.conf") << kConfig;
  // This process asks for no FIPS mode.
  FileKeyStore::g_fips_mode_disabled = true;

  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
  return 0;
}
