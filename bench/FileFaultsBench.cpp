// Cost of the file seam when no hook is installed, which is how the service
// always runs: each wrapper is timed against the plain call it wraps, in the
// same iterations, and the ratio is reported.
//   access: FileFaults::accessPath against ::access of an existing file
//   fwrite: Utils::fwriteall of 64 bytes against std::fwrite, both buffered
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/BenchReport.h"
#include "kms/server/keystore/files/FileFaults.h"
#include "kms/server/keystore/files/FileUtils.h"

using namespace Vaultrest::DL::KMS;

namespace {

using bench::Clock;
using bench::seconds;

constexpr int kBatch = 256;

double operations(const benchmark::State& state) {
  return static_cast<double>(state.iterations()) * kBatch;
}

void BM_SeamAccess(benchmark::State& state) {
  const char* path = "/proc/self/exe";
  double subject = 0;
  double reference = 0;
  for (auto _ : state) {
    Clock::time_point t0 = Clock::now();
    for (int i = 0; i < kBatch; ++i) {
      benchmark::DoNotOptimize(::access(path, F_OK));
    }
    Clock::time_point t1 = Clock::now();
    for (int i = 0; i < kBatch; ++i) {
      benchmark::DoNotOptimize(FileFaults::accessPath(path, F_OK));
    }
    Clock::time_point t2 = Clock::now();
    reference += seconds(t0, t1);
    subject += seconds(t1, t2);
  }
  bench::report(state, {"access through the file seam", "access(2)", ""}, subject, reference,
                operations(state));
}
BENCHMARK(BM_SeamAccess);

void BM_SeamBufferedWrite(benchmark::State& state) {
  FILE* out = std::fopen("/dev/null", "wb");
  const std::string piece(64, 'k');
  double subject = 0;
  double reference = 0;
  for (auto _ : state) {
    Clock::time_point t0 = Clock::now();
    for (int i = 0; i < kBatch; ++i) {
      benchmark::DoNotOptimize(std::fwrite(piece.data(), 1, piece.size(), out));
    }
    Clock::time_point t1 = Clock::now();
    for (int i = 0; i < kBatch; ++i) {
      benchmark::DoNotOptimize(Utils::fwriteall(out, piece.data(), piece.size()));
    }
    Clock::time_point t2 = Clock::now();
    reference += seconds(t0, t1);
    subject += seconds(t1, t2);
  }
  std::fclose(out);
  bench::report(state, {"64-byte write through the file seam", "fwrite", ""}, subject, reference,
                operations(state));
}
BENCHMARK(BM_SeamBufferedWrite);

}  // namespace

BENCHMARK_MAIN();
