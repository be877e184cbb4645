// RunPieces: the library's own parallel loop. Work is cut into pieces whose bounds the caller
// derives from the data sizes alone, and the pieces are handed out one at a time to the library's
// worker threads and the calling thread. Include it only from library sources.
#ifndef MVDA_CONTAINERS_DETAIL_PIECES_H_
#define MVDA_CONTAINERS_DETAIL_PIECES_H_

#include <mvda/mvda_export.h>

#include <algorithm>
#include <type_traits>
#include <utility>

namespace mvda::detail {

// The team of a parallel loop: the processor count while threading is on, else 1.
int PiecesTeamSize();

// Calls piece(k) exactly once for every k in [0, count), on at most PiecesTeamSize() threads:
// the calling thread and idle workers of a pool that the library keeps. Contract:
// - Each piece writes only its own outputs, so the answer cannot depend on which thread ran which
//   piece, nor on the team size, the load of the machine or OpenMP's settings. Partial results
//   that must be added are kept per piece and added by the caller in piece order afterwards.
// - Pieces are handed out one at a time from a shared counter: a thread that another process
//   slows down simply takes fewer pieces. Cut the work into several pieces per thread (8 to 64 in
//   all is a good number) so that the others can take over.
// - Waiting threads sleep on a condition variable; nothing spins.
// - The calling thread takes pieces too, and never waits for a piece nobody has started, so a
//   piece may itself call RunPieces (the inner call gets whatever workers are idle).
// - With threading off, a count of 1 or no worker to be had, the pieces run in order on the
//   calling thread.
// - An exception thrown by a piece stops the handing out of further pieces; once every started
//   piece has ended, the exception of the lowest-numbered failing piece is rethrown here.
// - BLAS calls inside a piece run single-threaded (the library keeps the BLAS at one thread).
template <class Piece>
void RunPieces(int count, Piece&& piece);

// Waking a sleeping worker takes tens of microseconds, and on a virtual machine or a busy one
// hundreds: a thread joins a loop only for at least this much work, counted in elements read (or
// multiply-adds), about a millisecond of the masked loops on one thread.
constexpr long long kMinWorkPerThread = 1LL << 20;

// As above, for pieces that together read about `work` elements: on at most
// work / kMinWorkPerThread threads, so that a small loop runs on the calling thread alone and
// never waits for a worker to wake. The pieces are the same whatever the team, and so is the
// answer.
template <class Piece>
void RunPieces(int count, long long work, Piece&& piece);

// ---------------------------------------------------------------------------------------------

// The type-erased core: calls run(context, k). Exported for its tests only.
// A team of at most `most` threads; most <= 0 means no bound but the processor count.
MVDA_EXPORT void RunPiecesImpl(int count, int most, void (*run)(void* context, int k),
                               void* context);

// The team that `work` elements pay for: at least 1.
inline int TeamForWork(long long work) {
  return static_cast<int>(std::clamp(work / kMinWorkPerThread, 1LL, 1LL << 20));
}

template <class Piece>
void RunPieces(int count, Piece&& piece) {
  using P = std::remove_reference_t<Piece>;
  RunPiecesImpl(
      count, 0, [](void* context, int k) { (*static_cast<P*>(context))(k); },
      const_cast<void*>(static_cast<const void*>(&piece)));
}

template <class Piece>
void RunPieces(int count, long long work, Piece&& piece) {
  using P = std::remove_reference_t<Piece>;
  RunPiecesImpl(
      count, TeamForWork(work), [](void* context, int k) { (*static_cast<P*>(context))(k); },
      const_cast<void*>(static_cast<const void*>(&piece)));
}

}  // namespace mvda::detail

#endif  // MVDA_CONTAINERS_DETAIL_PIECES_H_
