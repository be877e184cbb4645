#include <mvda/cluster/detail/distance_list.h>

#include <algorithm>
#include <cstring>

#include <omp.h>
#include <parallel/algorithm>

namespace mvda::detail {

void SortForPopping(DistanceAndIndex* from, DistanceAndIndex* to, int team) {
  const auto in_front = [](const DistanceAndIndex& a, const DistanceAndIndex& b) {
    return PopsBefore(b, a);
  };
  // Below this the threads cost more than they save.
  constexpr std::size_t kParallelFrom = 1 << 16;
  if (team > 1 && to - from >= static_cast<std::ptrdiff_t>(kParallelFrom))
    // The in-place quicksort: a merge sort would need a second list, and memory is what a large
    // list is short of.
    __gnu_parallel::sort(from, to, in_front, __gnu_parallel::balanced_quicksort_tag(team));
  else
    std::sort(from, to, in_front);
}

void CompactAfterMerge(std::vector<DistanceAndIndex>& list, int a, int b, int team) {
  const std::size_t length = list.size();
  if (length == 0) return;
  if (team < 1) team = 1;
  if (static_cast<std::size_t>(team) > length) team = static_cast<int>(length);
  // Per-chunk results go to their own slots: chunk t keeps kept[t] entries from begin[t] on.
  std::vector<std::size_t> begin(team + 1), kept(team);
  const std::size_t base = length / team, longer = length % team;
  for (int t = 0; t < team; ++t) begin[t + 1] = begin[t] + base + (std::size_t(t) < longer ? 1 : 0);
  DistanceAndIndex* data = list.data();
  const auto compact = [&](int t) {
    std::size_t out = begin[t];
    for (std::size_t k = begin[t]; k < begin[t + 1]; ++k) {
      DistanceAndIndex e = data[k];
      if (e.first == b || e.second == b) continue;
      if (e.first > b) --e.first;
      if (e.second > b) --e.second;
      if (e.first == a || e.second == a) e.distance = -1.0f;
      data[out++] = e;
    }
    kept[t] = out - begin[t];
  };
  // An OpenMP runtime may give fewer threads than asked for (dynamic teams), so each thread works
  // through the chunks numbered like it, modulo the team it got.
#pragma omp parallel num_threads(team) if (team > 1)
  {
    const int threads = omp_get_num_threads();
    for (int t = omp_get_thread_num(); t < team; t += threads) compact(t);
  }
  std::size_t size = kept[0];
  for (int t = 1; t < team; ++t) {
    if (begin[t] != size) std::memmove(data + size, data + begin[t], kept[t] * sizeof(*data));
    size += kept[t];
  }
  list.resize(size);
}

}  // namespace mvda::detail
