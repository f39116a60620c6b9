// Cost of the key table operations that every change of the store pays: a
// full copy of the table (one per change), a change on that copy with its
// invariant check, and the lookup by KAD. Each benchmark times a plain
// reference in the same iterations and reports the ratio:
//   copy, change: copying a std::vector<std::string> of the same key bytes;
//   KAD lookup:   std::map<std::string, std::string>::find of the full tag;
//   a long attribute list read from its bytes (1,000 to 100,000 entries):
//                 filling a std::map of the same pairs in their order. A
//                 ratio that stays flat over the sizes says the read is as
//                 linear as the map it fills.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "bench/BenchReport.h"
#include "kms/server/keystore/format/KSInputBuffer.h"
#include "kms/server/keystore/format/KSOutStream.h"
#include "kms/server/keystore/format/ReaderWriter.h"
#include "kms/server/keystore/format/StringOutDest.h"
#include "kms/server/keystore/records/KeyRecordTable.h"
#include "kms/server/keystore/records/KeyRecord_v1.h"
#include "kms/server/keystore/records/RecordUtils.h"

using namespace Vaultrest::DL::KMS;

namespace {

typedef KeyRecordTable<KeyRecord_v1> KeyTable;
using bench::Clock;
using bench::seconds;

std::string randomBytes(std::mt19937_64& rng, size_t n) {
  std::string s(n, '\0');
  for (char& c : s) {
    c = static_cast<char>(rng() & 0xff);
  }
  return s;
}

// A store-like table: 32-byte tags, `perGroup` keys per group with the first
// one active, 48-byte wrapped keys, a KPK tag, the KEY_FIPS and KEY_SALT
// attributes. Records are added in tag order, as a load from the data file
// adds them, so the table's memory is laid out as in a running store.
struct Fixture {
  KeyTable table{true};
  std::vector<std::string> tags;
  std::vector<std::string> keys;
  std::map<std::string, std::string> plainIndex;

  Fixture(size_t count, size_t perGroup) {
    std::mt19937_64 rng(count * 31 + perGroup);
    const std::string kpkTag = randomBytes(rng, 32);
    std::vector<KeyRecord_v1> records(count);
    std::string group;
    for (size_t i = 0; i < count; ++i) {
      if (i % perGroup == 0) {
        group = randomBytes(rng, 32);
      }
      KeyRecord_v1& rec = records[i];
      rec.setFields(randomBytes(rng, 32), "key-" + std::to_string(i), group,
                    i % perGroup == 0 ? KEY_ACTIVE : KEY_INACTIVE, 1700000000, 1700000000, "", 1,
                    KPK_LOCAL, kpkTag, randomBytes(rng, 48));
      rec.addOrUpdateKRAttribute("KEY_FIPS", "true");
      rec.addOrUpdateKRAttribute("KEY_SALT", Utils::binToHex(randomBytes(rng, 32)));
    }
    std::sort(records.begin(), records.end(),
              [](const KeyRecord_v1& a, const KeyRecord_v1& b) { return a.tag() < b.tag(); });
    table.setSkipInvariant(true);
    for (const KeyRecord_v1& rec : records) {
      table.addRecord(rec);
      tags.emplace_back(rec.tag());
      keys.emplace_back(rec.key());
      plainIndex.emplace(rec.tag(), rec.key());
    }
    table.setSkipInvariant(false);
    table.testInvariant();
  }
};

// Fixtures are built once per shape: the benchmark library calls each
// function several times.
const Fixture& fixture(size_t count, size_t perGroup) {
  static std::map<std::pair<size_t, size_t>, std::unique_ptr<Fixture>> cache;
  std::unique_ptr<Fixture>& slot = cache[{count, perGroup}];
  if (!slot) {
    slot = std::make_unique<Fixture>(count, perGroup);
  }
  return *slot;
}

// Merges and sorts the chunks that an iteration freed, so that neither side
// pays for the other's garbage inside its timing. A request of this size
// makes the allocator consolidate, but glibc sorts at most 10,000 freed
// chunks per request, and an iteration at 100,000 keys frees ten times that:
// so there are 32 requests, each of a size that no freed chunk fits exactly.
// With the thresholds set in main nothing goes back to the system, and the
// heap stays warm as in a long-running service.
void settleHeap() {
  void* blocks[32];
  for (size_t i = 0; i < std::size(blocks); ++i) {
    blocks[i] = malloc(64 * 1024 + 4096 * i);
    benchmark::DoNotOptimize(blocks[i]);
  }
  for (void* block : blocks) {
    free(block);
  }
}

std::string keys(const benchmark::State& state) {
  return std::to_string(state.range(0)) + " keys";
}

void BM_CopyKeyTable(benchmark::State& state) {
  const Fixture& fx = fixture(static_cast<size_t>(state.range(0)), 30);
  double subject = 0;
  double reference = 0;
  for (auto _ : state) {
    Clock::time_point t0 = Clock::now();
    auto copy = std::make_unique<KeyTable>(fx.table);
    Clock::time_point t1 = Clock::now();
    benchmark::DoNotOptimize(copy.get());
    copy.reset();
    settleHeap();

    Clock::time_point t2 = Clock::now();
    auto plain = std::make_unique<std::vector<std::string>>(fx.keys);
    Clock::time_point t3 = Clock::now();
    benchmark::DoNotOptimize(plain.get());
    plain.reset();
    settleHeap();

    subject += seconds(t0, t1);
    reference += seconds(t2, t3);
    state.SetIterationTime(seconds(t0, t1));
  }
  bench::report(state,
                {"copy of the key table", "copy of a vector of the key strings", keys(state)},
                subject, reference);
}
// A fixed count: the copy takes about a microsecond and the reference
// milliseconds, so a count set by the copy's time would run for minutes.
BENCHMARK(BM_CopyKeyTable)
    ->Arg(3000)
    ->Arg(100000)
    ->Iterations(200)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// One change as the store makes it: copy, update one record (group list
// moves and the full invariant check), drop the copy. range(1) is the number
// of keys per group; one group of 100,000 keys is the worst case of the
// group lists.
void BM_UpdateOnCopy(benchmark::State& state) {
  const Fixture& fx =
      fixture(static_cast<size_t>(state.range(0)), static_cast<size_t>(state.range(1)));
  KeyRecord_v1 changed = fx.table.getRecord(fx.tags[1]);
  changed.setState(KEY_DEPRECATED);
  double subject = 0;
  double reference = 0;
  for (auto _ : state) {
    Clock::time_point t0 = Clock::now();
    auto copy = std::make_unique<KeyTable>(fx.table);
    const bool updated = copy->updateRecord(changed);
    Clock::time_point t1 = Clock::now();
    benchmark::DoNotOptimize(updated);
    copy.reset();
    settleHeap();

    Clock::time_point t2 = Clock::now();
    auto plain = std::make_unique<std::vector<std::string>>(fx.keys);
    Clock::time_point t3 = Clock::now();
    benchmark::DoNotOptimize(plain.get());
    plain.reset();
    settleHeap();

    subject += seconds(t0, t1);
    reference += seconds(t2, t3);
    state.SetIterationTime(seconds(t0, t1));
  }
  const std::string size = keys(state) + " (" + std::to_string(state.range(1)) + " per group)";
  bench::report(state, {"copy and update one record", "copy of a vector of the key strings", size},
                subject, reference);
}
BENCHMARK(BM_UpdateOnCopy)
    ->Args({3000, 30})
    ->Args({100000, 30})
    ->Args({100000, 100000})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// KADs of 12 to 19 bytes of existing tags; each iteration looks up a batch
// of them, and the counters are per lookup.
void BM_GetTagsByKad(benchmark::State& state) {
  const Fixture& fx = fixture(static_cast<size_t>(state.range(0)), 30);
  std::vector<std::string> kads;
  std::vector<std::string> fullTags;
  for (size_t i = 0; i < fx.tags.size(); i += 7) {
    kads.push_back(fx.tags[i].substr(0, 12 + i % 8));
    fullTags.push_back(fx.tags[i]);
  }
  KeyTable::TagList found;
  size_t next = 0;
  double subject = 0;
  double reference = 0;
  const size_t kBatch = 64;
  for (auto _ : state) {
    Clock::time_point t0 = Clock::now();
    for (size_t i = 0; i < kBatch; ++i) {
      fx.table.getTagsByKad(kads[(next + i) % kads.size()], found);
      benchmark::DoNotOptimize(found.data());
    }
    Clock::time_point t1 = Clock::now();
    for (size_t i = 0; i < kBatch; ++i) {
      auto iter = fx.plainIndex.find(fullTags[(next + i) % kads.size()]);
      benchmark::DoNotOptimize(iter);
    }
    Clock::time_point t2 = Clock::now();
    next = (next + kBatch) % kads.size();

    subject += seconds(t0, t1);
    reference += seconds(t1, t2);
    state.SetIterationTime(seconds(t0, t1));
  }
  bench::report(state, {"getTagsByKad", "lookup of the full tag in a map", keys(state)}, subject,
                reference, static_cast<double>(state.iterations()) * kBatch);
}
BENCHMARK(BM_GetTagsByKad)->Arg(3000)->Arg(100000)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_ReadLongAttributeList(benchmark::State& state) {
  const size_t count = static_cast<size_t>(state.range(0));
  std::vector<std::pair<std::string, std::string>> pairs;
  for (size_t i = 0; i < count; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "ATTRIBUTE_%08zu", i);
    pairs.emplace_back(name, "value of attribute " + std::to_string(i));
  }
  // At once: each change to a list rebuilds it.
  std::vector<AttributeList::value_type> entries(pairs.begin(), pairs.end());
  AttributeList list;
  list.assignEntries(entries);
  std::string bytes;
  StringOutDest dest(bytes);
  KSOutStream out(dest, nullptr, KSOutStream::kBufferSize);
  ReaderWriter::writeAttributeList(out, list);
  out.flush(true);
  double subject = 0;
  double reference = 0;
  for (auto _ : state) {
    Clock::time_point t0 = Clock::now();
    KSInputBuffer in(bytes);
    AttributeList read;
    ReaderWriter::readAttributeList(in, read);
    Clock::time_point t1 = Clock::now();
    if (read.size() != count) {
      std::abort();
    }
    Clock::time_point t2 = Clock::now();
    std::map<std::string, std::string> plain;
    for (const auto& pair : pairs) {
      plain.emplace_hint(plain.end(), pair.first, pair.second);
    }
    Clock::time_point t3 = Clock::now();
    benchmark::DoNotOptimize(plain.size());
    subject += seconds(t0, t1);
    reference += seconds(t2, t3);
    state.SetIterationTime(seconds(t0, t1));
  }
  bench::report(state,
                {"read of a long attribute list", "filling a map of the same pairs in order",
                 std::to_string(count) + " attributes"},
                subject, reference);
}
BENCHMARK(BM_ReadLongAttributeList)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
