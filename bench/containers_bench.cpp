// Speed of the NCDataVector statistics on 10^7 floats, without and with 10% missing values,
// next to std::accumulate over the same buffer, and the cost of a copy and of its first write.
#include <mvda/containers/data_vector.h>

#include <cmath>
#include <cstdint>
#include <numeric>
#include <random>
#include <string>

#include <benchmark/benchmark.h>

namespace {

constexpr int kSize = 10'000'000;

// Values in [-1, 3) from a fixed seed; with `percentMissing` > 0 that share of the elements,
// chosen at random, is set to -99.
NCDataVector<float> MakeData(int percentMissing) {
  std::mt19937 engine(12345);
  std::uniform_real_distribution<float> value(-1.0f, 3.0f);
  std::bernoulli_distribution missing(percentMissing / 100.0);
  NCDataVector<float> v(kSize, 0.0f);
  float* p = v.GetVector();
  int count = 0;
  for (int i = 1; i <= kSize; ++i) {
    const bool gap = percentMissing > 0 && missing(engine);
    p[i] = gap ? -99.0f : value(engine);
    count += gap;
  }
  v.SetNumMisVal(count);
  return v;
}

const NCDataVector<float>& Data(int percentMissing) {
  static const NCDataVector<float> complete = MakeData(0);
  static const NCDataVector<float> gaps = MakeData(10);
  return percentMissing == 0 ? complete : gaps;
}

// The oracle: plain long double loops over the present elements, run once outside the timing.
struct Expected {
  long double sum = 0, mean = 0, variance = 0, ss = 0;
};

Expected Oracle(const NCDataVector<float>& v) {
  Expected e;
  int m = 0;
  for (float x : v) {
    if (x == -99.0f) continue;
    e.sum += x;
    e.ss += static_cast<long double>(x) * x;
    ++m;
  }
  e.mean = e.sum / m;
  for (float x : v)
    if (x != -99.0f) e.variance += (x - e.mean) * (x - e.mean);
  e.variance /= m - 1;
  return e;
}

void Check(benchmark::State& state, long double got, long double want) {
  if (std::fabs(got - want) > 1e-9L * std::fabs(want))
    state.SkipWithError(("result " + std::to_string(static_cast<double>(got)) + " expected " +
                         std::to_string(static_cast<double>(want)))
                            .c_str());
}

// Keeps a result alive through its const overload: GCC 12 loses the value of a float lvalue
// passed to the read-write overload ("+m,r"), which made a check after the loop read 0.
template <class T>
void Keep(const T& value) {
  benchmark::DoNotOptimize(value);
}

void SetBytes(benchmark::State& state) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kSize *
                          static_cast<std::int64_t>(sizeof(float)));
}

// Baselines: one pass over the whole buffer, in the accumulator type of the init value.
template <class Init>
void BM_StdAccumulate(benchmark::State& state) {
  const NCDataVector<float>& v = Data(0);
  Init sum = 0;
  for (auto _ : state) {
    sum = std::accumulate(v.begin(), v.end(), Init(0));
    Keep(sum);
  }
  SetBytes(state);
  // A float accumulator drifts over 10^7 terms; only the double one is held to the oracle.
  if (sizeof(Init) == sizeof(double)) Check(state, sum, Oracle(v).sum);
}
BENCHMARK_TEMPLATE(BM_StdAccumulate, float)->Name("StdAccumulate/float_init");
BENCHMARK_TEMPLATE(BM_StdAccumulate, double)->Name("StdAccumulate/double_init");

enum Statistic { kSum, kMean, kVariance, kSS };

// Arg 0: percent missing. Bytes are those of the buffer once per call, so the figures compare
// with the baseline; GetVariance reads the buffer twice (mean, then deviations).
template <Statistic S>
void BM_Statistic(benchmark::State& state) {
  const NCDataVector<float>& v = Data(static_cast<int>(state.range(0)));
  long double result = 0;
  for (auto _ : state) {
    switch (S) {
      case kSum:
        result = v.GetSum();
        break;
      case kMean:
        result = v.GetMean();
        break;
      case kVariance:
        result = v.GetVariance();
        break;
      case kSS:
        result = v.GetSS();
        break;
    }
    Keep(result);
  }
  SetBytes(state);
  const Expected e = Oracle(v);
  const long double want[] = {e.sum, e.mean, e.variance, e.ss};
  Check(state, result, want[S]);
}
BENCHMARK_TEMPLATE(BM_Statistic, kSum)->Name("GetSum")->Arg(0)->Arg(10);
BENCHMARK_TEMPLATE(BM_Statistic, kMean)->Name("GetMean")->Arg(0)->Arg(10);
BENCHMARK_TEMPLATE(BM_Statistic, kVariance)->Name("GetVariance")->Arg(0)->Arg(10);
BENCHMARK_TEMPLATE(BM_Statistic, kSS)->Name("GetSS")->Arg(0)->Arg(10);

// A copy shares the buffer: its cost must not depend on the 10^7 elements.
void BM_Copy(benchmark::State& state) {
  const NCDataVector<float>& v = Data(0);
  for (auto _ : state) {
    NCDataVector<float> copy(v);
    Keep(copy.GetVector());
  }
  NCDataVector<float> copy(v);
  if (static_cast<const NCDataVector<float>&>(copy).GetVector() != v.GetVector())
    state.SkipWithError("the copy did not share the buffer");
}
BENCHMARK(BM_Copy);

// The first write to a copy pays for the private buffer; reported in bytes of the buffer.
void BM_CopyAndFirstWrite(benchmark::State& state) {
  const NCDataVector<float>& v = Data(0);
  float first = 0;
  for (auto _ : state) {
    NCDataVector<float> copy(v);
    copy(1, -99.0f);
    first = copy[2];
    Keep(first);
  }
  SetBytes(state);
  if (first != v[2] || v[1] == -99.0f) state.SkipWithError("the write reached the source");
}
BENCHMARK(BM_CopyAndFirstWrite);

}  // namespace

BENCHMARK_MAIN();
