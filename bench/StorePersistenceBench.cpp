// Cost of bringing a store up from its files, of one commit, and the memory
// a loaded store takes; at 3,000, 30,000 and 100,000 keys (groups of 30
// keys, one active each, each key with the two attributes that a key made
// from a passphrase carries).
//
// BM_Init: recovery, reading, unwrapping the KPK, decrypting the record
// stream and loading both tables. Each iteration also times, as the floor,
// reading the same three files whole with Utils::readFileIntoString and one
// bare AES-256-GCM pass over the store file's bytes: what init cannot avoid.
//
// BM_Commit: one writeToFile, which writes three new files, syncs them,
// renames six times, syncs both directories and deletes the old copies. The
// floor, measured in the same iteration: writing the same number of bytes
// into three new files beside the store's, syncing each, and syncing the two
// directories.
//
// BM_LoadedStoreMemory: the heap that a loaded store holds (mallinfo2 before
// the store is made and after its init) against the bytes of its three
// files.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bench/BenchReport.h"
#include "kms/server/keystore/crypto/KPKMgr.h"
#include "kms/server/keystore/crypto/KeyWrap.h"
#include "kms/server/keystore/crypto/RandData.h"
#include "kms/server/keystore/files/FileUtils.h"
#include "kms/server/keystore/files/KMSFileLocator.h"
#include "kms/server/keystore/format/KSMetadata.h"
#include "kms/server/keystore/format/KeyFile.h"
#include "kms/server/keystore/records/RecordUtils.h"
#include "kms/server/keystore/store/FileKeyStore.h"

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
      // As the service makes a key from a passphrase: its FIPS decision and
      // its own salt.
      rec.attributes().addAttribute("KEY_FIPS", "false");
      rec.attributes().addAttribute("KEY_SALT", Utils::binToHex(Utils::getRandData(24)));
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

// The bytes of the three files, read as init reads them, and one bare
// AES-256-GCM decryption over the store file's: the floor of init.
size_t readAndDecryptAllFiles(const KMSFileLocator& locator) {
  size_t total = 0;
  for (const std::string* path : {&locator.hmkPath(), &locator.kpkPath(), &locator.ksPath()}) {
    Utils::FileHolder in = Utils::openFile(path->c_str(), "rb");
    std::string bytes;
    Utils::readFileIntoString(in, bytes);
    in.close();
    total += bytes.size();
    if (path == &locator.ksPath() && bytes.size() > 28) {
      const std::string plain = bench::gcmPass(
          false, reinterpret_cast<const unsigned char*>(bytes.data()) + 12, bytes.size() - 28);
      benchmark::DoNotOptimize(plain.data());
    }
    benchmark::DoNotOptimize(bytes.data());
  }
  return total;
}

size_t fileSize(const std::string& path) {
  std::error_code ignored;
  return static_cast<size_t>(std::filesystem::file_size(path, ignored));
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
    bytes = readAndDecryptAllFiles(disk.locator);
    const Clock::time_point t3 = Clock::now();
    subject += seconds(t0, t1);
    reference += seconds(t2, t3);
    state.SetIterationTime(seconds(t0, t1));
  }
  bench::report(
      state,
      {"init (open decrypt decode index)", "reading the same file bytes + one AES-256-GCM pass",
       std::to_string(state.range(0)) + " keys"},
      subject, reference);
  state.counters["file_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_Init)->Arg(3000)->Arg(30000)->Arg(100000)->UseManualTime()->Unit(
    benchmark::kMillisecond);

// The floor of a commit: as many bytes as each of the store's three files
// written into a new file beside it, each synced, then both directories.
class SameBytesFloor {
 public:
  explicit SameBytesFloor(const KMSFileLocator& locator) : m_locator(locator) {
    for (const std::string* path : {&locator.hmkPath(), &locator.kpkPath(), &locator.ksPath()}) {
      m_files.emplace_back(*path + ".floor", std::string(fileSize(*path), 'x'));
    }
  }
  ~SameBytesFloor() {
    for (const auto& file : m_files) {
      ::unlink(file.first.c_str());
    }
  }

  bool round() const {
    for (const auto& file : m_files) {
      const int fd = ::open(file.first.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (fd < 0) {
        return false;
      }
      const bool ok = ::write(fd, file.second.data(), file.second.size()) ==
                          static_cast<ssize_t>(file.second.size()) &&
                      ::fsync(fd) == 0;
      ::close(fd);
      if (!ok) {
        return false;
      }
    }
    return syncDir(m_locator.keyDir()) && syncDir(m_locator.dbDir());
  }

 private:
  static bool syncDir(const std::string& dir) {
    const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY);
    const bool ok = fd >= 0 && ::fsync(fd) == 0;
    if (fd >= 0) {
      ::close(fd);
    }
    return ok;
  }

  const KMSFileLocator& m_locator;
  std::vector<std::pair<std::string, std::string>> m_files;
};

void BM_Commit(benchmark::State& state) {
  const DiskStore& disk = diskStore(static_cast<int>(state.range(0)));
  const SameBytesFloor floor(disk.locator);
  double subject = 0;
  double reference = 0;
  for (auto _ : state) {
    const Clock::time_point t0 = Clock::now();
    disk.commit();
    const Clock::time_point t1 = Clock::now();
    const bool synced = floor.round();
    const Clock::time_point t2 = Clock::now();
    if (!synced) {
      state.SkipWithError("fsync failed");
      break;
    }
    subject += seconds(t0, t1);
    reference += seconds(t1, t2);
    state.SetIterationTime(seconds(t0, t1));
  }
  bench::report(state,
                {"one commit (three files)",
                 "writing and syncing the same bytes into three files + syncing both directories",
                 std::to_string(state.range(0)) + " keys"},
                subject, reference);
}
BENCHMARK(BM_Commit)->Arg(3000)->Arg(30000)->Arg(100000)->UseManualTime()->Unit(
    benchmark::kMillisecond);

// Heap in use by this process, in bytes.
double heapInUse() {
  return static_cast<double>(mallinfo2().uordblks);
}

void BM_LoadedStoreMemory(benchmark::State& state) {
  const DiskStore& disk = diskStore(static_cast<int>(state.range(0)));
  const double fileBytes =
      static_cast<double>(fileSize(disk.locator.hmkPath()) + fileSize(disk.locator.kpkPath()) +
                          fileSize(disk.locator.ksPath()));
  double held = 0;
  for (auto _ : state) {
    const double before = heapInUse();
    auto store = std::make_unique<FileKeyStore>(disk.locator);
    if (store->init() != 0) {
      state.SkipWithError("init failed");
      break;
    }
    held = heapInUse() - before;
    state.PauseTiming();
    store.reset();
    state.ResumeTiming();
  }
  bench::reportMemory(state,
                      {"heap held by a loaded store", "the bytes of its three files",
                       std::to_string(state.range(0)) + " keys"},
                      held, fileBytes);
}
BENCHMARK(BM_LoadedStoreMemory)
    ->Arg(3000)
    ->Arg(30000)
    ->Arg(100000)
    ->Iterations(2)
    ->Unit(benchmark::kMillisecond);

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
