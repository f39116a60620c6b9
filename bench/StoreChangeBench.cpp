// Cost of a change of one key in a live store of 3,000, 30,000 and 100,000
// keys on real files, against the bare commit of a store of the same size.
//
// Each iteration times the change (addKey of a random pre-live key,
// updateKeyRecord of a description, or deleteKeyRecord of a pre-live key
// added outside the timing) and, as the reference, writeToFile of the
// store's starting state into a second directory of the same file system,
// so that both sides share the machine's state. The ratio says what a change
// adds to its commit: the checks, the key generation and wrapping, the copy
// of the table with its invariant walks, and the audit entries. A key that
// was added is deleted again outside the timing (and one deleted was added
// before it), so the store keeps its size; that is one more commit, not
// measured. Group tags are random, as the store makes them.
//
// Counters: wall times (with the ratio of the means and, steadier on a
// machine whose disk is shared, the median of the per-iteration ratios),
// CPU times of the thread (cpu_ratio: the work without the waits for fsync),
// and the copy of the key table alone (copy_ms), the part of a change that
// grows with the store besides the commit.
//
// The limits are raised through the service's configuration file: 50 keys
// in each group, at most 100 keys per group and 1,000 groups.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/BenchReport.h"
#include "kms/server/keystore/crypto/KPKMgr.h"
#include "kms/server/keystore/crypto/KeyWrap.h"
#include "kms/server/keystore/crypto/RandData.h"
#include "kms/server/keystore/files/KMSFileLocator.h"
#include "kms/server/keystore/format/KSMetadata.h"
#include "kms/server/keystore/format/KeyFile.h"
#include "kms/server/keystore/store/FileKeyStore.h"

using namespace Vaultrest::DL::KMS;

namespace {

using bench::Clock;
using bench::seconds;

constexpr int kKeysPerGroup = 50;
const char* const kConfig =
    "[KMSConfig]\n"
    "\"max_key_groups\"=dword:000003e8\n"
    "\"max_keys_per_group\"=dword:00000064\n";

std::string g_root;

// CPU time of this thread, in seconds: what a commit costs without its waits
// for the disk.
double threadCpuSeconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Wall and CPU time of the subject and the reference over the iterations.
struct Totals {
  double subject = 0;
  double subjectCpu = 0;
  double reference = 0;
  double referenceCpu = 0;
  double copy = 0;
  std::vector<double> ratios;  // per iteration, wall time
};

// The three final names, empty, so that a first commit may replace them.
void placeEmptyFiles(const KMSFileLocator& locator) {
  locator.createMissingDirectories();
  for (const std::string* path : {&locator.hmkPath(), &locator.kpkPath(), &locator.ksPath()}) {
    std::ofstream(*path, std::ios::trunc);
  }
}

// A store of `n` keys committed to disk and brought up by init, and the
// objects it was made from, which the reference commits again.
struct Fixture {
  KeyFile hmk{KS_VERSION_300};
  KeyFile kpk{KS_VERSION_300};
  KSMetadata meta{KS_VERSION_300};
  FileKeyStore::KeyTable keys{true};
  FileKeyStore::GroupTable groups;
  std::string firstGroup;
  std::string firstKey;
  KMSFileLocator storeFiles;
  KMSFileLocator referenceFiles;
  std::unique_ptr<FileKeyStore> store;

  explicit Fixture(int n)
      : storeFiles(g_root + "/store-" + std::to_string(n)),
        referenceFiles(g_root + "/reference-" + std::to_string(n)) {
    const std::string hmkKey = Utils::getRandData(32);
    const std::string kpkKey = Utils::getRandData(32);
    hmk.setKey(hmkKey);
    kpk.setKey(Utils::encryptKeyWithKey(kpkKey, hmkKey, KSCrypt::AES_256_GCM, KS_VERSION_300));
    meta.setHmkID("hmk-id");
    meta.setKpkID("kpk-id");
    meta.setHmkVerifier(
        FileKeyStore::generateVerifier("HMKV", hmkKey, KSCrypt::AES_256_GCM, KS_VERSION_300));
    meta.setKpkVerifier(
        FileKeyStore::generateVerifier("KPKV", kpkKey, KSCrypt::AES_256_GCM, KS_VERSION_300));
    meta.setMasterEncAlgo(KSCrypt::AES_256_GCM);
    meta.setKeyEncAlgo(KSCrypt::AES_256_GCM);
    const KPKMgr kpkMgr(kpkKey, KSCrypt::AES_256_GCM, KS_VERSION_300, true);

    // The table is checked once when whole, not after every record.
    keys.setSkipInvariant(true);
    std::string group;
    for (int i = 0; i < n; ++i) {
      const int g = i / kKeysPerGroup;
      const int k = i % kKeysPerGroup;
      if (k == 0) {
        group = Utils::getRandData(32);
        KeyGrpRecord_v1 grp;
        grp.setFields(group, "group-" + std::to_string(g), CT_AES256_CBC, 1700000000, 1700000000,
                      "a group of the benchmark", 1);
        groups.addRecord(grp);
      }
      KeyRecord_v1 rec;
      const std::string tag = Utils::getRandData(32);
      rec.setFields(tag, "key-" + std::to_string(k), group, k == 0 ? KEY_ACTIVE : KEY_INACTIVE,
                    1700000000, 1700000000, "a key of the benchmark", 1, KPK_LOCAL, std::string(),
                    kpkMgr.encryptKey(Utils::getRandData(32), KPK_LOCAL, std::string()));
      rec.addOrUpdateKRAttribute("KEY_FIPS", "false");
      keys.addRecord(rec);
      if (i == 0) {
        firstGroup = group;
        firstKey = tag;
      }
    }

    keys.setSkipInvariant(false);
    keys.testInvariant();

    placeEmptyFiles(storeFiles);
    FileKeyStore::writeToFile(hmk, kpk, meta, keys, groups, storeFiles);
    placeEmptyFiles(referenceFiles);
    FileKeyStore::writeToFile(hmk, kpk, meta, keys, groups, referenceFiles);
    store = std::make_unique<FileKeyStore>(storeFiles);
    if (store->init() != 0) {
      std::fprintf(stderr, "init of the store of %d keys failed\n", n);
      std::abort();
    }
  }

  // The bare commit of the same state.
  void reference(Totals& totals) {
    const double cpu0 = threadCpuSeconds();
    const Clock::time_point t0 = Clock::now();
    FileKeyStore::writeToFile(hmk, kpk, meta, keys, groups, referenceFiles);
    const Clock::time_point t1 = Clock::now();
    totals.referenceCpu += threadCpuSeconds() - cpu0;
    totals.reference += seconds(t0, t1);
    totals.ratios.back() /= seconds(t0, t1);
  }

  void copyTable(Totals& totals) {
    const Clock::time_point t0 = Clock::now();
    FileKeyStore::KeyTable copy(keys);
    const Clock::time_point t1 = Clock::now();
    benchmark::DoNotOptimize(copy.size());
    totals.copy += seconds(t0, t1);
  }
};

Fixture& fixture(int n) {
  static std::map<int, std::unique_ptr<Fixture>> fixtures;
  std::unique_ptr<Fixture>& fx = fixtures[n];
  if (!fx) {
    fx = std::make_unique<Fixture>(n);
  }
  return *fx;
}

// Runs `change` once as the subject of an iteration, timed; then the
// reference commit and the table copy, untimed.
template <typename Change>
void measure(benchmark::State& state, Totals& totals, Change&& change) {
  const double cpu0 = threadCpuSeconds();
  const Clock::time_point t0 = Clock::now();
  change();
  const Clock::time_point t1 = Clock::now();
  totals.subjectCpu += threadCpuSeconds() - cpu0;
  totals.subject += seconds(t0, t1);
  totals.ratios.push_back(seconds(t0, t1));
  state.SetIterationTime(seconds(t0, t1));
}

void report(benchmark::State& state, const char* subjectName, Totals& totals) {
  const double n = static_cast<double>(state.iterations());
  bench::report(state,
                {subjectName, "bare commit (writeToFile) of the same state",
                 std::to_string(state.range(0)) + " keys"},
                totals.subject, totals.reference);
  state.counters["subject_cpu_ms"] = totals.subjectCpu / n * 1e3;
  state.counters["writeToFile_cpu_ms"] = totals.referenceCpu / n * 1e3;
  state.counters["copy_ms"] = totals.copy / n * 1e3;
  state.counters["cpu_ratio"] =
      totals.referenceCpu > 0 ? totals.subjectCpu / totals.referenceCpu : 0;
  // The disk's latency swings on a shared machine: the median of the
  // iterations' ratios is the steadier figure.
  std::vector<double>& r = totals.ratios;
  std::nth_element(r.begin(), r.begin() + static_cast<long>(r.size() / 2), r.end());
  state.counters["median_ratio"] = r.empty() ? 0 : r[r.size() / 2];
}

void BM_AddKey(benchmark::State& state) {
  Fixture& fx = fixture(static_cast<int>(state.range(0)));
  KeyRecord_v1 request;
  request.setKeyGroup(fx.firstGroup);
  request.setName("added");
  request.setState(KEY_PRELIVE);
  request.setKpkType(KPK_LOCAL);
  Totals totals;
  for (auto _ : state) {
    KeyRecord_v1 added;
    measure(state, totals, [&] { added = fx.store->addKey(request, std::string()); });
    fx.store->deleteKeyRecord(std::string(added.tag()));
    fx.reference(totals);
    fx.copyTable(totals);
  }
  report(state, "addKey", totals);
}

void BM_UpdateKeyRecord(benchmark::State& state) {
  Fixture& fx = fixture(static_cast<int>(state.range(0)));
  KeyRecord_v1 rec = fx.store->getKeyRecord(fx.firstKey);
  // Each update must change something, across the runs of this function too.
  static unsigned long changes = 0;
  Totals totals;
  for (auto _ : state) {
    rec.setDescription("description " + std::to_string(++changes));
    measure(state, totals, [&] { rec = fx.store->updateKeyRecord(rec); });
    fx.reference(totals);
    fx.copyTable(totals);
  }
  report(state, "updateKeyRecord", totals);
}

void BM_DeleteKey(benchmark::State& state) {
  Fixture& fx = fixture(static_cast<int>(state.range(0)));
  KeyRecord_v1 request;
  request.setKeyGroup(fx.firstGroup);
  request.setName("to be deleted");
  request.setState(KEY_PRELIVE);
  request.setKpkType(KPK_LOCAL);
  Totals totals;
  for (auto _ : state) {
    const std::string tag(fx.store->addKey(request, std::string()).tag());
    measure(state, totals, [&] { fx.store->deleteKeyRecord(tag); });
    fx.reference(totals);
    fx.copyTable(totals);
  }
  report(state, "deleteKeyRecord", totals);
}

BENCHMARK(BM_AddKey)->Arg(3000)->Arg(30000)->Arg(100000)->UseManualTime()->Unit(
    benchmark::kMillisecond);
BENCHMARK(BM_UpdateKeyRecord)
    ->Arg(3000)
    ->Arg(30000)
    ->Arg(100000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DeleteKey)
    ->Arg(3000)
    ->Arg(30000)
    ->Arg(100000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

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
