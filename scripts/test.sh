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

run() {  # run NAME BUILD_TYPE SANITIZE BENCHMARKS
  local dir="build/$1"
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$2" -DMVDA_SANITIZE="$3" \
        -DMVDA_WERROR=ON -DMVDA_BUILD_BENCHMARKS="$4" >/dev/null
  cmake --build "$dir" -j "$jobs"
  (cd "$dir" && ctest --output-on-failure -j "$jobs")
}

run release Release OFF ON

# The Python package: the extension built in the release tree, installed into a venv that sees
# Debian's numpy, SciPy and scikit-learn, its tests run by Debian's interpreter against the
# release build of the tool. pytest's exit 5 (nothing collected) counts as a failure.
python_dir=build/release venv=build/python-venv
cmake -S . -B "$python_dir" -DMVDA_BUILD_PYTHON=ON -DPYTHON_EXECUTABLE=/usr/bin/python3 >/dev/null
cmake --build "$python_dir" -j "$jobs" --target mvda_python
[ -x "$venv/bin/python" ] || /usr/bin/python3 -m venv --system-site-packages "$venv"
MVDA_PYTHON_BUILD_DIR="$PWD/$python_dir" "$venv/bin/pip" install --no-build-isolation -q ./python
python_rc=0
(cd build && MVDA_TOOL="$PWD/release/apps/mvda/mvda" python-venv/bin/python -m pytest -q \
  -p no:cacheprovider ../python/tests) || python_rc=$?
if [ "$python_rc" -eq 5 ]; then echo "test.sh: no Python tests were collected" >&2; fi
[ "$python_rc" -eq 0 ] || exit 1

# The benchmarks build (with warnings as errors) in the release tree only.
run asan RelWithDebInfo ON OFF

# The suites that touch the BLAS, the threads and score estimation, repeated inside one process in
# shuffled order on the sanitizer build. A fresh process replays the same heap history, so where
# rows land would never change between ctest's own repeats; within one process it does, and an
# answer that depended on an address or on the thread count would show as a failed comparison.
repeat=${MVDA_TEST_REPEAT:-5}
data="$PWD/data"
for suite in containers models validation; do
  (cd build/asan/tests && MVDA_DATA_DIR="$data" \
     "./test_$suite" --gtest_repeat="$repeat" --gtest_shuffle --gtest_brief=1)
done

fuzz_dir=build/fuzz
CC=clang CXX=clang++ cmake -S . -B "$fuzz_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DMVDA_SANITIZE=ON -DMVDA_WERROR=ON -DMVDA_BUILD_FUZZERS=ON -DMVDA_BUILD_TESTS=OFF \
  -DMVDA_BUILD_APPS=ON >/dev/null  # the tool's CSV and model file readers are fuzzed too
cmake --build "$fuzz_dir" -j "$jobs"
(cd "$fuzz_dir" && ctest --output-on-failure)
