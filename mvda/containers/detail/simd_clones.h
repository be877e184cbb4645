// MVDA_AVX2_CLONES: put before a hot loop's function to have GCC build an AVX2 copy of it next to
// the baseline one and pick it when the library loads, so one binary runs on every x86-64 and
// uses eight float lanes where the processor has them. The arithmetic is the same in both copies
// (no fused multiply-add is enabled), so results do not depend on the processor. Clang cannot
// clone function templates, and gets the baseline only. Nor does a ThreadSanitizer build: the
// sanitizer instruments the resolver that picks the copy, and the loader runs that resolver
// before the sanitizer is set up, which crashes every program at start.
#ifndef MVDA_CONTAINERS_DETAIL_SIMD_CLONES_H_
#define MVDA_CONTAINERS_DETAIL_SIMD_CLONES_H_

#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && \
    !defined(__SANITIZE_THREAD__)
#define MVDA_AVX2_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define MVDA_AVX2_CLONES
#endif

#endif  // MVDA_CONTAINERS_DETAIL_SIMD_CLONES_H_
