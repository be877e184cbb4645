#!/usr/bin/env bash
# The library's main job in one command: installs what is missing (scripts/bootstrap.sh), builds
# the command-line tool in build/release and runs `mvda demo` on the embedded datasets of data/
# (PCA and clustering of the wines, PLS and prediction of the diabetes progression, control charts
# of the filling line). The last line printed is the path of the HTML report.
# MVDA_BUILD_DIR names another build folder; CMAKE_BUILD_PARALLEL_LEVEL limits the build jobs.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh
build="${MVDA_BUILD_DIR:-build/release}"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" --target mvda_cli
"$build/apps/mvda/mvda" demo --data data --report "$build/mvda-demo-report.html"
