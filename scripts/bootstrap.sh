#!/usr/bin/env bash
# Installs, only when missing, every Debian package that the library, its tests, its benchmarks
# and the command-line tool need (chromium: the test that opens the HTML report headless; doxygen
# and help2man: the reference and the manual page, built on request; the python3 packages and
# pybind11: the Python package, built with `pip install --no-build-isolation ./python` by
# /usr/bin/python3; fastcluster: the clustering comparison benchmark). Safe to run again: a
# machine that has everything is left alone.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config
  libgtest-dev libgmock-dev libbenchmark-dev
  libboost-thread-dev libboost-math-dev
  libgomp1
  libopenblas-dev liblapack-dev
  libmd-dev
  libcli11-dev libcsv-dev nlohmann-json3-dev
  clang libclang-rt-14-dev
  chromium
  doxygen help2man
  python3-dev python3-venv python3-pip python3-setuptools python3-wheel pybind11-dev
  python3-numpy python3-pandas python3-pytest python3-sklearn python3-scipy python3-fastcluster
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "bootstrap: installing ${missing[*]}" >&2
sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
