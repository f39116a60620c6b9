// One way for every benchmark to report a subject against the reference it
// timed in the same iterations, so that scripts/run-benchmarks can gather
// all results into one table.
//
// report() sets three counters, "subject_us" and "reference_us" (time per
// operation) and "ratio", and a label of four '|'-separated fields:
// operation, reference, store size and the meaning of the ratio. Labels and
// names must not contain commas or '|' (the table is built from CSV).
#ifndef VRKMS_BENCH_BENCHREPORT_H
#define VRKMS_BENCH_BENCHREPORT_H

#include <benchmark/benchmark.h>

#include <chrono>
#include <string>

namespace bench {

typedef std::chrono::steady_clock Clock;

inline double seconds(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

enum class Ratio {
  kTime,        // subject time / reference time: lower is better
  kThroughput,  // subject rate / reference rate: higher is better
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

inline void report(benchmark::State& state, const Comparison& what, double subject,
                   double reference) {
  report(state, what, subject, reference, static_cast<double>(state.iterations()));
}

}  // namespace bench

#endif  // VRKMS_BENCH_BENCHREPORT_H
