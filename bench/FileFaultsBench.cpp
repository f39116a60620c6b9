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

#include "kms/server/keystore/FileFaults.h"
#include "kms/server/keystore/FileUtils.h"

using namespace Vaultrest::DL::KMS;

namespace {

typedef std::chrono::steady_clock Clock;

constexpr int kBatch = 256;

double seconds(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

void report(benchmark::State& state, double subject, double reference) {
  const double n = static_cast<double>(state.iterations()) * kBatch;
  state.counters["subject_ns"] = subject / n * 1e9;
  state.counters["reference_ns"] = reference / n * 1e9;
  state.counters["ratio"] = reference > 0 ? subject / reference : 0;
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
  report(state, subject, reference);
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
  report(state, subject, reference);
}
BENCHMARK(BM_SeamBufferedWrite);

}  // namespace

BENCHMARK_MAIN();
