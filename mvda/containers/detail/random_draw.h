// UniformBelow: an unbiased draw from 0..range-1 out of a generator of a given width, such as the
// C library's rand() with its RAND_MAX of 2^15-1 on some platforms and 2^31-1 on others.
#ifndef MVDA_CONTAINERS_DETAIL_RANDOM_DRAW_H_
#define MVDA_CONTAINERS_DETAIL_RANDOM_DRAW_H_

namespace mvda::detail {

// `draw()` returns values uniform on 0..max (max >= 1). Each call contributes its low bits: as
// many as make a power-of-two range (values above it are drawn again, so a max like 2 or 2^31-2
// still gives uniform bits), at most 32. Draws are concatenated until they cover `range`
// (1..2^32), and a combined value in the incomplete top block is rejected, so the result has no
// modulo bias. With a 15-bit rand() and a range above 32768 two draws are combined; with glibc's
// 31-bit rand() one draw covers any int range.
template <class Draw>
unsigned long long UniformBelow(unsigned long long range, unsigned long long max, Draw&& draw) {
  if (range <= 1) return 0;
  unsigned long long mask = 0;  // the largest 2^b - 1 not above max
  int bits = 0;
  while (mask != max && ((mask << 1) | 1) <= max) {
    mask = (mask << 1) | 1;
    ++bits;
  }
  const int used = bits < 32 ? bits : 32;
  const unsigned long long used_mask = (1ULL << used) - 1;
  int total = 0;  // bits of the combined value: a multiple of `used` covering range - 1
  while (total < 64 && ((range - 1) >> total) != 0) total += used;
  const unsigned long long space_mask = total >= 64 ? ~0ULL : (1ULL << total) - 1;
  // Values at or above `limit` fall into an incomplete block of `range` values.
  const unsigned long long limit = space_mask - (space_mask % range + 1) % range;
  for (;;) {
    unsigned long long value = 0;
    for (int got = 0; got < total; got += used) {
      unsigned long long r;
      do {
        r = static_cast<unsigned long long>(draw());
      } while (r > mask);
      value = (value << used) | (r & used_mask);
    }
    if (value <= limit) return value % range;
  }
}

}  // namespace mvda::detail

#endif  // MVDA_CONTAINERS_DETAIL_RANDOM_DRAW_H_
