#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/) with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer in build-fuzz/, and runs each for SECONDS
# (default 60). Each starts from its committed seed inputs
# (fuzz/corpus/NAME/) and what earlier runs found (build-fuzz/fuzz/corpus/NAME/).
# Exits non-zero on the first crash, sanitizer report, time-out (10 s for one
# input) or leak; the input that did it is kept in build-fuzz/fuzz/artifacts/.
#   scripts/fuzz.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
case $seconds in '' | *[!0-9]*) echo "fuzz.sh: SECONDS must be a whole number, not '$seconds'" >&2; exit 2 ;; esac

build=build-fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELA_FUZZ=ON -DVELA_BUILD_TESTS=OFF \
  >/dev/null
cmake --build "$build" -j "$(nproc)" --target fuzz_targets

mkdir -p "$build/fuzz/artifacts"
while read -r name binary; do
  [ -n "$name" ] || continue
  echo "== $name: $seconds s"
  mkdir -p "$build/fuzz/corpus/$name"
  # New inputs go to the first directory; the committed seeds stay as they are.
  "$binary" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$build/fuzz/artifacts/$name-" "$build/fuzz/corpus/$name" "fuzz/corpus/$name" 2>"$build/fuzz/$name.log" ||
    { tail -50 "$build/fuzz/$name.log" >&2; echo "fuzz.sh: $name failed; the input is in $build/fuzz/artifacts/" >&2; exit 1; }
  grep -E '^stat::number_of_executed_units|^stat::peak_rss_mb' "$build/fuzz/$name.log" | tr '\n' ' '
  echo
done <"$build/fuzz/targets.txt"
