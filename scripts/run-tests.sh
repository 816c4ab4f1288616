#!/usr/bin/env bash
# Installs what is needed, builds, and runs every test twice: in a normal
# build and in a build with AddressSanitizer and UndefinedBehaviorSanitizer;
# then every fuzz target for a short while.
# Needs root: tests mount file systems, each in its own private namespace.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup-deps.sh

jobs=$(nproc)
run_suite() {
  local dir=$1
  shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  # Tests mostly wait on processes and the disk; twice the cores keeps both busy.
  (cd "$dir" && ctest -j $((jobs * 2)) --output-on-failure --timeout 300)
}

echo "== normal build"
run_suite build
echo "== normal build done after ${SECONDS} s"
echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
# Lighter optimisation and line tables only: the sanitizers find the same
# faults, and the build takes far less time.
run_suite build-asan -DVELA_SANITIZE=ON -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG" \
  -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG"
echo "== sanitizer build done after ${SECONDS} s"
echo "== fuzz targets"
./scripts/fuzz.sh 25
echo "== all done after ${SECONDS} s"
