#!/usr/bin/env bash
# Builds everything twice, a Release build and an AddressSanitizer + UndefinedBehaviorSanitizer
# build, with warnings as errors, and runs the whole test suite on both. Then a short bounded run
# of every stream-reader fuzzer (clang, libFuzzer), since those readers face files from outside.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh

jobs=$(nproc 2>/dev/null || echo 2)

run() {  # run NAME BUILD_TYPE SANITIZE
  local dir="build/$1"
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$2" -DMVDA_SANITIZE="$3" \
        -DMVDA_WERROR=ON -DMVDA_BUILD_BENCHMARKS=ON >/dev/null
  cmake --build "$dir" -j "$jobs"
  (cd "$dir" && ctest --output-on-failure -j "$jobs")
}

run release Release OFF
run asan RelWithDebInfo ON

fuzz_dir=build/fuzz
CC=clang CXX=clang++ cmake -S . -B "$fuzz_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DMVDA_SANITIZE=ON -DMVDA_WERROR=ON -DMVDA_BUILD_FUZZERS=ON -DMVDA_BUILD_TESTS=OFF \
  -DMVDA_BUILD_APPS=ON >/dev/null  # the tool's CSV and model file readers are fuzzed too
cmake --build "$fuzz_dir" -j "$jobs"
(cd "$fuzz_dir" && ctest --output-on-failure)
