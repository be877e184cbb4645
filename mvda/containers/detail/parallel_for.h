// ParallelFor: the parallel loop of the containers and the models, on the library's own threads
// (RunPieces), with its team size taken from NCMultiThreading::ThreadingControl; TeamSize, that
// size, for the few loops that still open an OpenMP team themselves. Include it only from library
// sources.
#ifndef MVDA_CONTAINERS_DETAIL_PARALLEL_FOR_H_
#define MVDA_CONTAINERS_DETAIL_PARALLEL_FOR_H_

#include <mvda/containers/detail/critical_section.h>
#include <mvda/containers/detail/pieces.h>
#include <mvda/containers/multi_threading.h>

#include <utility>

namespace mvda::detail {

// The team of a parallel loop: the processor count while threading is on, else 1. Passed to every
// OpenMP loop explicitly, since omp_set_num_threads reaches only the thread that called it and
// hosts may compute on another one.
inline int TeamSize() { return PiecesTeamSize(); }

// Calls body(k) for k in [0, count), the iterations handed out one at a time to the threads (see
// RunPieces); the exception of the lowest failing iteration is rethrown on the calling thread once
// the loop has ended, and no iteration starts after a failure. Iterations must write only their
// own outputs: results then do not depend on the team, its size or the load of the machine.
template <class Body>
void ParallelFor(int count, Body&& body) {
  RunPieces(count, std::forward<Body>(body));
}

// The same for iterations that together read about `work` elements: small loops stay on the
// calling thread (see RunPieces).
template <class Body>
void ParallelFor(int count, long long work, Body&& body) {
  RunPieces(count, work, std::forward<Body>(body));
}

}  // namespace mvda::detail

#endif  // MVDA_CONTAINERS_DETAIL_PARALLEL_FOR_H_
