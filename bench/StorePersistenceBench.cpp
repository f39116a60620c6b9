// Cost of bringing a store up from its files and of one commit.
//
// BM_Init: init of a store of 3,000 and of 100,000 keys (groups of 30 keys,
// one active each): recovery, reading, unwrapping the KPK, decrypting the
// record stream and loading both tables. Each iteration also times, as the
// reference, reading the same three files whole with Utils::readFileIntoString,
// so that the ratio says what init adds to getting the bytes in.
//
// BM_Commit: one writeToFile of the 3,000-key store, which writes three new
// files, syncs them, renames six times, syncs both directories and deletes
// the old copies. The reference is the bare cost of three fsyncs of small
// files (a few bytes written to each first), measured in the same iteration:
// the ratio says how far a commit is from its floor of three fsyncs.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "bench/BenchReport.h"
#include "kms/server/keystore/FileKeyStore.h"
#include "kms/server/keystore/FileUtils.h"
#include "kms/server/keystore/KMSFileLocator.h"
#include "kms/server/keystore/KPKMgr.h"
#include "kms/server/keystore/KSMetadata.h"
#include "kms/server/keystore/KeyFile.h"
#include "kms/server/keystore/KeyWrap.h"
#include "kms/server/keystore/RandData.h"

using namespace Vaultrest::DL::KMS;

namespace {

using bench::Clock;
using bench::seconds;

constexpr int kKeysPerGroup = 30;

std::string g_root;

// A store of `keyCount` keys, committed once to its own root.
struct DiskStore {
  KMSFileLocator locator;
  KeyFile hmkFile{KS_VERSION_300};
  KeyFile kpkFile{KS_VERSION_300};
  KSMetadata meta{KS_VERSION_300};
  FileKeyStore::KeyTable keys{true};
  FileKeyStore::GroupTable groups;

  DiskStore(const std::string& root, int keyCount) : locator(root) {
    const std::string hmk = Utils::getRandData(32);
    const std::string kpk = Utils::getRandData(32);
    const KPKMgr kpkMgr(kpk, KSCrypt::AES_256_GCM, KS_VERSION_300, true);
    hmkFile.setKey(hmk);
    kpkFile.setKey(Utils::encryptKeyWithKey(kpk, hmk, KSCrypt::AES_256_GCM, KS_VERSION_300));
    meta.setHmkID("bench-hmk");
    meta.setKpkID("bench-kpk");
    meta.setHmkVerifier(
        FileKeyStore::generateVerifier("HMKV", hmk, KSCrypt::AES_256_GCM, KS_VERSION_300));
    meta.setKpkVerifier(
        FileKeyStore::generateVerifier("KPKV", kpk, KSCrypt::AES_256_GCM, KS_VERSION_300));
    meta.setMasterEncAlgo(KSCrypt::AES_256_GCM);
    meta.setKeyEncAlgo(KSCrypt::AES_256_GCM);

    std::string group;
    keys.setSkipInvariant(true);
    for (int k = 0; k < keyCount; ++k) {
      if (k % kKeysPerGroup == 0) {
        group = Utils::getRandData(32);
        KeyGrpRecord_v1 grp;
        grp.setFields(group, "group-" + std::to_string(k / kKeysPerGroup), CT_AES256_CBC,
                      1700000000, 1700000000, "", 1);
        groups.addRecord(grp);
      }
      KeyRecord_v1 rec;
      rec.setFields(Utils::getRandData(32), "key-" + std::to_string(k), group,
                    k % kKeysPerGroup == 0 ? KEY_ACTIVE : KEY_INACTIVE, 1700000000, 1700000000, "",
                    1, KPK_LOCAL, std::string(),
                    kpkMgr.encryptKey(Utils::getRandData(32), KPK_LOCAL, std::string()));
      keys.addRecord(rec);
    }
    keys.setSkipInvariant(false);
    keys.testInvariant();

    locator.createMissingDirectories();
    for (const std::string* path : {&locator.hmkPath(), &locator.kpkPath(), &locator.ksPath()}) {
      Utils::createFile("DiskStore", path->c_str(), __LINE__, false, __FILE__);
    }
    commit();
  }

  void commit() const { FileKeyStore::writeToFile(hmkFile, kpkFile, meta, keys, groups, locator); }
};

const DiskStore& diskStore(int keyCount) {
  static std::map<int, std::unique_ptr<DiskStore>> stores;
  std::unique_ptr<DiskStore>& store = stores[keyCount];
  if (!store) {
    store = std::make_unique<DiskStore>(g_root + "/" + std::to_string(keyCount), keyCount);
  }
  return *store;
}

// The bytes of the three files, read as init reads them.
size_t readAllFiles(const KMSFileLocator& locator) {
  size_t total = 0;
  for (const std::string* path : {&locator.hmkPath(), &locator.kpkPath(), &locator.ksPath()}) {
    Utils::FileHolder in = Utils::openFile(path->c_str(), "rb");
    std::string bytes;
    Utils::readFileIntoString(in, bytes);
    in.close();
    total += bytes.size();
    benchmark::DoNotOptimize(bytes.data());
  }
  return total;
}

void BM_Init(benchmark::State& state) {
  const DiskStore& disk = diskStore(static_cast<int>(state.range(0)));
  double subject = 0;
  double reference = 0;
  size_t bytes = 0;
  for (auto _ : state) {
    FileKeyStore store(disk.locator);
    const Clock::time_point t0 = Clock::now();
    const int rc = store.init();
    const Clock::time_point t1 = Clock::now();
    if (rc != 0) {
      state.SkipWithError("init failed");
      break;
    }
    const Clock::time_point t2 = Clock::now();
    bytes = readAllFiles(disk.locator);
    const Clock::time_point t3 = Clock::now();
    subject += seconds(t0, t1);
    reference += seconds(t2, t3);
    state.SetIterationTime(seconds(t0, t1));
  }
  bench::report(state,
                {"init (open and read the store)", "reading the same file bytes",
                 std::to_string(state.range(0)) + " keys"},
                subject, reference);
  state.counters["file_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_Init)->Arg(3000)->Arg(100000)->UseManualTime()->Unit(benchmark::kMillisecond);

// Three small files kept open, each written and synced once per round.
class ThreeSmallFiles {
 public:
  explicit ThreeSmallFiles(const std::string& dir) {
    std::filesystem::create_directories(dir);
    for (int i = 0; i < 3; ++i) {
      const std::string path = dir + "/small-" + std::to_string(i);
      m_fd[i] = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    }
  }
  ~ThreeSmallFiles() {
    for (int fd : m_fd) {
      ::close(fd);
    }
  }
  bool ok() const { return m_fd[0] >= 0 && m_fd[1] >= 0 && m_fd[2] >= 0; }

  // A small write to each, then its fsync.
  bool syncRound() {
    static const char kBytes[128] = {'x'};
    for (int fd : m_fd) {
      if (::pwrite(fd, kBytes, sizeof kBytes, 0) != static_cast<ssize_t>(sizeof kBytes) ||
          ::fsync(fd) != 0) {
        return false;
      }
    }
    return true;
  }

 private:
  int m_fd[3] = {-1, -1, -1};
};

void BM_Commit(benchmark::State& state) {
  const DiskStore& disk = diskStore(3000);
  ThreeSmallFiles small(g_root + "/fsync-reference");
  if (!small.ok()) {
    state.SkipWithError("cannot make the reference files");
    return;
  }
  double subject = 0;
  double reference = 0;
  for (auto _ : state) {
    const Clock::time_point t0 = Clock::now();
    disk.commit();
    const Clock::time_point t1 = Clock::now();
    const bool synced = small.syncRound();
    const Clock::time_point t2 = Clock::now();
    if (!synced) {
      state.SkipWithError("fsync failed");
      break;
    }
    subject += seconds(t0, t1);
    reference += seconds(t1, t2);
    state.SetIterationTime(seconds(t0, t1));
  }
  bench::report(state, {"one commit (three files)", "three small writes and fsyncs", "3000 keys"},
                subject, reference);
}
BENCHMARK(BM_Commit)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  // The stores live under a root of their own, next to an empty
  // installation root for the configuration.
  char dir[] = "/tmp/vrkms-bench-XXXXXX";
  if (mkdtemp(dir) == nullptr) {
    return 1;
  }
  g_root = dir;
  setenv("VREST_ROOT", dir, 1);
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
