// Cost of the store's record stream: a table of N keys written through a
// GCM-encrypting stream into memory (writeRecordTable), and read back as the
// store reads its data file (one GCM decryption of the body, then
// readRecordTable into a table loaded with its checks held back and run
// once at the end). N is 3,000, 30,000 and 100,000.
//
// The reference, timed in the same iterations: a bare AES-256-GCM
// encryption (or decryption) through EVP of as many bytes, in pieces of
// 1048576 bytes, IV and tag included. The ratio says what
// the encoding costs over the cipher that it cannot avoid.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <string>

#include "bench/BenchReport.h"
#include "kms/server/keystore/crypto/GCMCrypter.h"
#include "kms/server/keystore/format/KSInputBuffer.h"
#include "kms/server/keystore/format/KSOutStream.h"
#include "kms/server/keystore/format/ReaderWriter.h"
#include "kms/server/keystore/format/StringOutDest.h"
#include "kms/server/keystore/records/KeyRecordTable.h"

using namespace Vaultrest::DL::KMS;

namespace {

typedef KeyRecordTable<KeyRecord_v1> KeyTable;
using bench::Clock;
using bench::seconds;

const std::string kHmk(32, '\x5a');

void report(benchmark::State& state, const char* operation, double subject, double reference,
            size_t bytes) {
  const double n = static_cast<double>(state.iterations());
  bench::report(
      state,
      {operation, "bare AES-256-GCM of the same bytes", std::to_string(state.range(0)) + " keys"},
      subject, reference);
  state.counters["stream_bytes"] = static_cast<double>(bytes);
  state.counters["keys_per_s"] = benchmark::Counter(
      static_cast<double>(state.range(0)) * n / subject, benchmark::Counter::kDefaults);
}

std::string tagOf(unsigned n, char kind) {
  std::string tag(32, kind);
  for (int i = 0; i < 4; ++i) {
    tag[i] = static_cast<char>((n >> (24 - 8 * i)) & 0xff);
  }
  return tag;
}

// A store-like table: groups of 10 keys with the first one active, 92-byte
// wrapped keys, a KPK tag and two attributes per key.
const KeyTable& tableOf(size_t keys) {
  static std::map<size_t, KeyTable> tables;
  auto found = tables.find(keys);
  if (found != tables.end()) {
    return found->second;
  }
  KeyTable& table = tables.emplace(keys, KeyTable(true)).first->second;
  table.setSkipInvariant(true);
  for (unsigned n = 0; n < keys; ++n) {
    KeyRecord_v1 rec;
    rec.setFields(tagOf(n, 'k'), "backup key " + std::to_string(n), tagOf(n / 10, 'g'),
                  n % 10 == 0 ? KEY_ACTIVE : KEY_INACTIVE, 1700000000 + n, 1600000000 + n,
                  "key of a benchmark store", 1, KPK_LOCAL, tagOf(0, 'p'),
                  std::string(92, static_cast<char>(n)));
    rec.attributes().addAttribute("KEY_FIPS", "false");
    rec.attributes().addAttribute("KEY_SALT", std::string(24, 's'));
    if (!table.addRecord(rec)) {
      std::abort();
    }
  }
  table.setSkipInvariant(false);
  table.testInvariant();
  return table;
}

std::string writeStream(const KeyTable& table) {
  GCMCrypter crypter(kHmk);
  std::string body;
  StringOutDest dest(body);
  KSOutStream out(dest, &crypter, KSOutStream::kBufferSize);
  ReaderWriter::writeRecordTable(out, table);
  out.flush(true);
  return body;
}

void BM_WriteEncryptedKeyTable(benchmark::State& state) {
  const KeyTable& table = tableOf(static_cast<size_t>(state.range(0)));
  const size_t plainLen = writeStream(table).size() - 28;
  const std::string plain(plainLen, '\x42');
  double subject = 0;
  double reference = 0;
  for (auto _ : state) {
    Clock::time_point t0 = Clock::now();
    std::string body = writeStream(table);
    Clock::time_point t1 = Clock::now();
    benchmark::DoNotOptimize(body.data());

    Clock::time_point t2 = Clock::now();
    std::string raw =
        bench::gcmPass(true, reinterpret_cast<const unsigned char*>(plain.data()), plainLen);
    Clock::time_point t3 = Clock::now();
    benchmark::DoNotOptimize(raw.data());

    subject += seconds(t0, t1);
    reference += seconds(t2, t3);
    state.SetIterationTime(seconds(t0, t1));
  }
  report(state, "write of the encrypted key table", subject, reference, plainLen + 28);
}
BENCHMARK(BM_WriteEncryptedKeyTable)
    ->Arg(3000)
    ->Arg(30000)
    ->Arg(100000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void BM_ReadEncryptedKeyTable(benchmark::State& state) {
  const KeyTable& table = tableOf(static_cast<size_t>(state.range(0)));
  const std::string body = writeStream(table);
  double subject = 0;
  double reference = 0;
  for (auto _ : state) {
    Clock::time_point t0 = Clock::now();
    GCMCrypter crypter(kHmk);
    const unsigned char* plain = nullptr;
    unsigned long plainLen = 0;
    if (crypter.decrypt(reinterpret_cast<const unsigned char*>(body.data()), body.size(), true) !=
            0 ||
        crypter.getDecryptedData(&plain, &plainLen) != 0) {
      std::abort();
    }
    KSInputBuffer in(plain, plainLen);
    KeyTable keys(true);
    keys.setSkipInvariant(true);
    ReaderWriter::readRecordTable(in, keys);
    keys.setSkipInvariant(false);
    keys.testInvariant();
    Clock::time_point t1 = Clock::now();
    if (keys.size() != table.size()) {
      std::abort();
    }

    Clock::time_point t2 = Clock::now();
    std::string raw = bench::gcmPass(
        false, reinterpret_cast<const unsigned char*>(body.data()) + 12, body.size() - 28);
    Clock::time_point t3 = Clock::now();
    benchmark::DoNotOptimize(raw.data());

    subject += seconds(t0, t1);
    reference += seconds(t2, t3);
    state.SetIterationTime(seconds(t0, t1));
  }
  report(state, "read of the encrypted key table", subject, reference, body.size());
}
BENCHMARK(BM_ReadEncryptedKeyTable)
    ->Arg(3000)
    ->Arg(30000)
    ->Arg(100000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
