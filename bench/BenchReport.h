// One way for every benchmark to report a subject against the reference it
// timed in the same iterations, so that scripts/run-benchmarks can gather
// all results into one table.
//
// report() sets three counters, "subject_us" and "reference_us" (time per
// operation) and "ratio", and a label of four '|'-separated fields:
// operation, reference, store size and the meaning of the ratio. Labels and
// names must not contain commas or '|' (the table is built from CSV).
//
// reportMemory() is the same for a size in bytes against a reference size:
// the two counters then hold bytes, and the row is marked "memory".
//
// gcmPass() is the floor of every operation that encrypts or decrypts the
// store's record stream: one bare AES-256-GCM pass through EVP.
#ifndef VRKMS_BENCH_BENCHREPORT_H
#define VRKMS_BENCH_BENCHREPORT_H

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>

namespace bench {

typedef std::chrono::steady_clock Clock;

inline double seconds(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

enum class Ratio {
  kTime,        // subject time / reference time: lower is better
  kThroughput,  // subject rate / reference rate: higher is better
  kMemory,      // subject bytes / reference bytes: lower is better
};

struct Comparison {
  const char* operation;
  const char* reference;
  std::string storeSize;  // "" when the benchmark has no store
  Ratio ratio = Ratio::kTime;
};

// `subject` and `reference` are total seconds over `operations` operations.
// With several benchmark threads the counters are averaged over threads.
inline void report(benchmark::State& state, const Comparison& what, double subject,
                   double reference, double operations) {
  const benchmark::Counter::Flags avg =
      state.threads() > 1 ? benchmark::Counter::kAvgThreads : benchmark::Counter::kDefaults;
  const double n = operations > 0 ? operations : 1;
  double ratio = 0;
  if (what.ratio == Ratio::kTime) {
    ratio = reference > 0 ? subject / reference : 0;
  } else {
    ratio = subject > 0 ? reference / subject : 0;
  }
  state.counters["subject_us"] = benchmark::Counter(subject / n * 1e6, avg);
  state.counters["reference_us"] = benchmark::Counter(reference / n * 1e6, avg);
  state.counters["ratio"] = benchmark::Counter(ratio, avg);
  state.SetLabel(std::string(what.operation) + "|" + what.reference + "|" + what.storeSize + "|" +
                 (what.ratio == Ratio::kTime ? "time" : "throughput"));
}

// A size in bytes against a reference size.
inline void reportMemory(benchmark::State& state, const Comparison& what, double subjectBytes,
                         double referenceBytes) {
  state.counters["subject_us"] = subjectBytes;
  state.counters["reference_us"] = referenceBytes;
  state.counters["ratio"] = referenceBytes > 0 ? subjectBytes / referenceBytes : 0;
  state.SetLabel(std::string(what.operation) + "|" + what.reference + "|" + what.storeSize +
                 "|memory");
}

// One AES-256-GCM pass over `len` bytes at `in` (encrypting, or decrypting
// with the tag check), in pieces of `piece` bytes as a stream feeds it;
// returns IV, output and tag. Aborts on a failure of the library.
inline std::string gcmPass(bool encrypt, const unsigned char* in, size_t len,
                           size_t piece = 0x100000) {
  static const unsigned char kKey[32] = {0x5a};
  static const unsigned char kIv[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  std::string out(len + 28, '\0');
  unsigned char* at = reinterpret_cast<unsigned char*>(&out[0]);
  if (ctx == nullptr ||
      EVP_CipherInit_ex(ctx, EVP_aes_256_gcm(), nullptr, kKey, kIv, encrypt ? 1 : 0) != 1) {
    std::abort();
  }
  std::copy(kIv, kIv + 12, at);
  size_t done = 0;
  while (done < len) {
    const size_t n = std::min(len - done, piece);
    int written = 0;
    if (EVP_CipherUpdate(ctx, at + 12 + done, &written, in + done, static_cast<int>(n)) != 1) {
      std::abort();
    }
    done += n;
  }
  unsigned char tag[16] = {};
  if (!encrypt) {
    EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_TAG, 16, tag);
  }
  int tail = 0;
  const int final = EVP_CipherFinal_ex(ctx, at + 12 + len, &tail);
  if (encrypt && (final != 1 || EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, 16, tag) != 1)) {
    std::abort();
  }
  EVP_CIPHER_CTX_free(ctx);
  return out;
}

inline void report(benchmark::State& state, const Comparison& what, double subject,
                   double reference) {
  report(state, what, subject, reference, static_cast<double>(state.iterations()));
}

}  // namespace bench

#endif  // VRKMS_BENCH_BENCHREPORT_H
