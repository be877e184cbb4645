#!/usr/bin/env bash
# Builds everything twice, a Release build and an AddressSanitizer + UndefinedBehaviorSanitizer
# build, with warnings as errors, and runs the whole test suite on both, and the Python package's
# tests against the release build; the numerical suites run again, repeated and shuffled inside one
# process, on the sanitizer build. Then a short bounded run of every fuzzer of a reader of outside
# bytes (clang, libFuzzer).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh

jobs=$(nproc 2>/dev/null || echo 2)

# Each stage says how long it took, so that the slow one is known without a second run.
stage_start=$SECONDS
stage() {  # stage NAME: ends the stage running so far under that name
  echo "test.sh: $1 took $((SECONDS - stage_start)) s" >&2
  stage_start=$SECONDS
}

run() {  # run NAME BUILD_TYPE SANITIZE BENCHMARKS [more cmake options]
  local dir="build/$1"
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$2" -DMVDA_SANITIZE="$3" \
        -DMVDA_WERROR=ON -DMVDA_BUILD_BENCHMARKS="$4" "${@:5}" >/dev/null
  cmake --build "$dir" -j "$jobs"
  stage "$1 build"
  (cd "$dir" && ctest --output-on-failure -j "$jobs")
  stage "$1 tests"
}

# The Python extension is configured with the release tree from the start, so that it builds in
# the same parallel build instead of after a second configure.
run release Release OFF ON -DMVDA_BUILD_PYTHON=ON -DPYTHON_EXECUTABLE=/usr/bin/python3

# The Python package: the extension built in the release tree, installed into a venv that sees
# Debian's numpy, SciPy and scikit-learn, its tests run by Debian's interpreter against the
# release build of the tool. pytest's exit 5 (nothing collected) counts as a failure.
python_dir=build/release venv=build/python-venv
[ -x "$venv/bin/python" ] || /usr/bin/python3 -m venv --system-site-packages "$venv"
MVDA_PYTHON_BUILD_DIR="$PWD/$python_dir" "$venv/bin/pip" install --no-build-isolation -q ./python
python_rc=0
(cd build && MVDA_TOOL="$PWD/release/apps/mvda/mvda" python-venv/bin/python -m pytest -q \
  -p no:cacheprovider ../python/tests) || python_rc=$?
if [ "$python_rc" -eq 5 ]; then echo "test.sh: no Python tests were collected" >&2; fi
[ "$python_rc" -eq 0 ] || exit 1
stage "Python tests"

# The benchmarks build (with warnings as errors) in the release tree only.
run asan RelWithDebInfo ON OFF

# The suites that touch the BLAS, the threads and score estimation, repeated inside one process in
# shuffled order on the sanitizer build. A fresh process replays the same heap history, so where
# rows land would never change between ctest's own repeats; within one process it does, and an
# answer that depended on an address or on the thread count would show as a failed comparison.
# Two suites run at a time: much of each is single-threaded, and neither's answers may depend on
# what else runs (that is the point); xargs fails when one of them fails.
repeat=${MVDA_TEST_REPEAT:-5}
export MVDA_DATA_DIR="$PWD/data" MVDA_REPEAT="$repeat"
printf '%s\n' validation models containers | (cd build/asan/tests && xargs -P "$jobs" -I{} \
  sh -c './test_{} --gtest_repeat="$MVDA_REPEAT" --gtest_shuffle --gtest_brief=1 ||
         { echo "test.sh: repeated test_{} failed" >&2; exit 1; }')
stage "repeated suites"

fuzz_dir=build/fuzz
CC=clang CXX=clang++ cmake -S . -B "$fuzz_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DMVDA_SANITIZE=ON -DMVDA_WERROR=ON -DMVDA_BUILD_FUZZERS=ON -DMVDA_BUILD_TESTS=OFF \
  -DMVDA_BUILD_APPS=ON >/dev/null  # the tool's CSV and model file readers are fuzzed too
# The fuzz targets and what they need only: the tool and the tests are built and run above.
fuzz_targets=$(sed -n 's/^ *mvda_add_fuzzer(\([a-z_]*\).*/\1/p' fuzz/CMakeLists.txt)
# shellcheck disable=SC2086  # one target per word
cmake --build "$fuzz_dir" -j "$jobs" --target $fuzz_targets
stage "fuzz build"
# Each fuzzer is one single-threaded process bounded by inputs or seconds: two at a time on two
# cores run every one as long as alone, in half the wall time.
(cd "$fuzz_dir" && ctest --output-on-failure -j "$jobs")
stage "fuzzers"
