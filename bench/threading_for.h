// ThreadingFor: the library's threading switch for one benchmark, from the benchmark's argument
// `arg` (0 off, else on with every processor), and the default put back afterwards.
#ifndef MVDA_BENCH_THREADING_FOR_H_
#define MVDA_BENCH_THREADING_FOR_H_

#include <mvda/containers/multi_threading.h>

#include <cstdlib>
#include <cstring>

#include <benchmark/benchmark.h>
#include <omp.h>

// OpenMP's dynamic teams are switched off: the runtime sizes them by the load average, which the
// benchmark itself raises to 1, so "on" would run on one thread of two and measure the machine's
// other jobs rather than the code. OMP_DYNAMIC=true in the environment keeps them on instead, to
// measure a host that leaves them to the runtime.
class ThreadingFor {
 public:
  ThreadingFor(const benchmark::State& state, int arg) {
    NCMultiThreading::ThreadingControl::Reset();
    NCMultiThreading::ThreadingControl::SetThreadingIsOn(state.range(arg) != 0);
    const char* dynamic = std::getenv("OMP_DYNAMIC");
    omp_set_dynamic(dynamic && std::strcmp(dynamic, "true") == 0);
  }
  ThreadingFor(const ThreadingFor&) = delete;
  ThreadingFor& operator=(const ThreadingFor&) = delete;
  ~ThreadingFor() { NCMultiThreading::ThreadingControl::Reset(); }
};

#endif  // MVDA_BENCH_THREADING_FOR_H_
