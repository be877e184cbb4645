#!/bin/sh
# Threaded against one thread, from the same runs: the algebra benchmarks and the PCA fit, on a
# quiet machine, with one core kept busy by another process, and with that busy core and OpenMP's
# dynamic teams left on. Every benchmark takes a threads argument (1 on, 0 off); the repetitions of
# the two are interleaved, so both see the same load, and the median of each is reported with
# threaded / one thread (below 1: the threads pay; the aim is at most 1.10 when busy).
#
#   bench/threads_compare.sh [build dir] [repetitions] [algebra filter] [PCA filter]
#
# The PCA filter defaults to the 5-component fit (BM_Pca5FitOnly), complete and with 10 % missing.
#
# The busy core is a shell loop pinned to the last processor with taskset, started and stopped
# here. Run it on an otherwise quiet machine and note `uptime`: other jobs distort every figure.
set -eu
build=${1:-build/release}
reps=${2:-7}
algebra_filter=${3:-.}
pca_filter=${4:-BM_Pca5FitOnly}
dynamic=false
cores=$(nproc)

busy_pid=
stop_busy() {
  if [ -n "$busy_pid" ]; then
    kill "$busy_pid" 2>/dev/null || true
    wait "$busy_pid" 2>/dev/null || true
    busy_pid=
  fi
}
trap stop_busy EXIT INT TERM

start_busy() {
  taskset -c $((cores - 1)) sh -c 'while :; do :; done' &
  busy_pid=$!
}

# Runs one benchmark binary and prints: name, one thread (ms), threaded (ms), threaded / one.
compare() {
  OMP_DYNAMIC=$dynamic "$build/bench/$1" --benchmark_filter="$2" --benchmark_repetitions="$reps" \
    --benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true \
    --benchmark_format=csv 2>/dev/null |
    awk -F, '
      /_median"?,/ {
        name = $1; gsub(/"/, "", name); sub(/_median$/, "", name)
        ms = $3
        if ($5 ~ /ns/) ms /= 1e6; else if ($5 ~ /us/) ms /= 1e3; else if ($5 ~ /^"?s/) ms *= 1e3
        key = name
        if (sub(/threads:1/, "threads:*", key) || sub(/\/1\/manual_time/, "/*/manual_time", key)) on[key] = ms
        else if (sub(/threads:0/, "threads:*", key) || sub(/\/0\/manual_time/, "/*/manual_time", key)) off[key] = ms
        if (!(key in seen)) { seen[key] = 1; order[++n] = key }
      }
      END {
        for (k = 1; k <= n; ++k) {
          key = order[k]
          if ((key in on) && (key in off))
            printf "  %-62s one %9.3f ms  threaded %9.3f ms  ratio %.3f\n", key, off[key], on[key], on[key] / off[key]
        }
      }'
}

run_all() {
  echo "== $1 ($(uptime | sed 's/.*load/load/'))"
  compare algebra_bench "$algebra_filter"
  compare pca_cv_bench "$pca_filter"
}

run_all "quiet"
start_busy
run_all "one core busy"
dynamic=true
run_all "one core busy, OpenMP dynamic teams on"
stop_busy
