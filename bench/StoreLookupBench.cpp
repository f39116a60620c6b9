// Cost of the store's hottest read, getKey with its unwrap, in a store of
// 3,000 keys (100 groups of 30), on one thread and on two. Each iteration
// times getKey of one key and, as the reference, a bare KPKMgr::decryptKey of
// the same wrapped key, so that both sides share the machine's state; the
// ratio says what the store adds to the unwrap: the lock with its turnstile,
// the lookup, the record copy and the filter. With two threads the reference
// runs on both threads as well.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "bench/BenchReport.h"
#include "kms/server/keystore/crypto/KPKMgr.h"
#include "kms/server/keystore/crypto/RandData.h"
#include "kms/server/keystore/files/KMSFileLocator.h"
#include "kms/server/keystore/format/KSMetadata.h"
#include "kms/server/keystore/format/KeyFile.h"
#include "kms/server/keystore/store/FileKeyStore.h"

using namespace Vaultrest::DL::KMS;

namespace {

using bench::Clock;
using bench::seconds;

constexpr int kGroups = 100;
constexpr int kKeysPerGroup = 30;

// A store made live from tables built in memory.
class BenchStore : public FileKeyStore {
 public:
  explicit BenchStore(const KMSFileLocator& locator) : FileKeyStore(locator) {}
  using FileKeyStore::installState;
};

struct Fixture {
  KPKMgr kpkMgr;
  std::vector<std::string> tags;
  std::vector<std::string> wrapped;
  std::unique_ptr<BenchStore> store;

  explicit Fixture(const std::string& root)
      : kpkMgr(Utils::getRandData(32), KSCrypt::AES_256_GCM, KS_VERSION_300, true) {
    auto keys = std::make_unique<FileKeyStore::KeyTable>(true);
    auto groups = std::make_unique<FileKeyStore::GroupTable>();
    for (int g = 0; g < kGroups; ++g) {
      const std::string group = Utils::getRandData(32);
      KeyGrpRecord_v1 grp;
      grp.setFields(group, "group-" + std::to_string(g), CT_AES256_CBC, 1700000000, 1700000000, "",
                    1);
      groups->addRecord(grp);
      for (int k = 0; k < kKeysPerGroup; ++k) {
        KeyRecord_v1 rec;
        const std::string tag = Utils::getRandData(32);
        const std::string enc = kpkMgr.encryptKey(Utils::getRandData(32), KPK_LOCAL, std::string());
        rec.setFields(tag, "key-" + std::to_string(k), group, k == 0 ? KEY_ACTIVE : KEY_INACTIVE,
                      1700000000, 1700000000, "", 1, KPK_LOCAL, std::string(), enc);
        keys->addRecord(rec);
        tags.push_back(tag);
        wrapped.push_back(enc);
      }
    }
    store = std::make_unique<BenchStore>(KMSFileLocator(root));
    store->installState(std::make_unique<KeyFile>(KS_VERSION_300),
                        std::make_unique<KeyFile>(KS_VERSION_300), std::make_unique<KPKMgr>(kpkMgr),
                        std::make_unique<KSMetadata>(KS_VERSION_300), std::move(keys),
                        std::move(groups));
  }
};

std::string g_root;

const Fixture& fixture() {
  static const Fixture fx(g_root);
  return fx;
}

void BM_GetKey(benchmark::State& state) {
  const Fixture& fx = fixture();
  size_t next = static_cast<size_t>(state.thread_index()) * 1009;
  double subject = 0;
  double reference = 0;
  for (auto _ : state) {
    const size_t i = next++ % fx.tags.size();
    Clock::time_point t0 = Clock::now();
    KeyRecord_v1 rec = fx.store->getKey(fx.tags[i]);
    Clock::time_point t1 = Clock::now();
    benchmark::DoNotOptimize(rec.key().data());
    Clock::time_point t2 = Clock::now();
    std::string plain = fx.kpkMgr.decryptKey(fx.wrapped[i], KPK_LOCAL, std::string());
    Clock::time_point t3 = Clock::now();
    benchmark::DoNotOptimize(plain.data());
    subject += seconds(t0, t1);
    reference += seconds(t2, t3);
    state.SetIterationTime(seconds(t0, t1));
  }
  const std::string size = std::to_string(kGroups * kKeysPerGroup) + " keys; " +
                           std::to_string(state.threads()) + " thread(s)";
  bench::report(state, {"getKey with unwrap", "bare KPKMgr::decryptKey", size}, subject, reference);
}
BENCHMARK(BM_GetKey)->Threads(1)->Threads(2)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  // Nothing is written, but the store reads its configuration under the
  // installation root: give it an empty one of its own.
  char dir[] = "/tmp/vrkms-bench-XXXXXX";
  if (mkdtemp(dir) == nullptr) {
    return 1;
  }
  g_root = dir;
  setenv("VREST_ROOT", dir, 1);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  fixture();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
  return 0;
}
