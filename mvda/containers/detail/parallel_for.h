// ParallelFor: the OpenMP loop of the containers, with its team size taken from
// NCMultiThreading::ThreadingControl and every exception kept inside the region. Include it only
// from library sources, which are compiled with OpenMP.
#ifndef MVDA_CONTAINERS_DETAIL_PARALLEL_FOR_H_
#define MVDA_CONTAINERS_DETAIL_PARALLEL_FOR_H_

#include <mvda/containers/detail/critical_section.h>
#include <mvda/containers/multi_threading.h>

namespace mvda::detail {

// The team of a parallel loop: the processor count while threading is on, else 1. Passed to every
// loop explicitly, since omp_set_num_threads reaches only the thread that called it and hosts may
// compute on another one.
inline int TeamSize() {
  using NCMultiThreading::ThreadingControl;
  return ThreadingControl::IsThreadingOn() ? ThreadingControl::GetNumberOfProcessors() : 1;
}

// Calls body(k) for k in [0, count) with a static schedule; the first exception thrown by any
// iteration is rethrown on the calling thread once the loop has ended. Iterations must write only
// their own outputs: results then do not depend on the team.
template <class Body>
void ParallelFor(int count, Body&& body) {
  const int team = count > 1 ? TeamSize() : 1;
  FirstException first;
#pragma omp parallel for num_threads(team) schedule(static) if (team > 1)
  for (int k = 0; k < count; ++k) first.Run([&] { body(k); });
  first.Rethrow();
}

}  // namespace mvda::detail

#endif  // MVDA_CONTAINERS_DETAIL_PARALLEL_FOR_H_
