#!/usr/bin/env bash
# The space module at scale: a real calculation (the build's size provider,
# writing the space map) over the 100 snapshots of the share of a million
# files that bench/size-provider-bench.sh builds for its scale scenario, then
# "get", "freed" and "plan" of that share timed two ways:
#   - in a long-lived process (module-scale-bench, which loads the space
#     module once and calls its handlers with the web API executors' ids,
#     as the host does): CALLS calls of each question, p50 and p95;
#   - through velawebapi-call, one process per call (module loaded, map
#     read, answer printed), as `vela-share space` asks: RUNNER_CALLS calls,
#     p50 and p95.
# Every call opens the share's calculation and its map afresh, as every
# request does.
#
# It runs in the test sandbox (private /run, /usr/local, /etc/group and
# /volumeN), with the image mounted read-only at /volume1 and the module's
# persistent state in a scratch directory on the machine's disk. Needs root,
# a build tree and the scale image (SCENARIOS=scale bench/size-provider-bench.sh
# builds it once, in a few minutes).
#
#   bench/space-module-bench.sh [BUILD_DIR]        (default: build)
# Environment: SCALE_CACHE (/var/cache/vela-bench), SCALE_FILES (1000000),
#   SCALE_SNAPSHOTS (100), SCALE_BUILDER_VERSION (1): which image;
#   CALLS (200), RUNNER_CALLS (20).
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:-build}")
calls=${CALLS:-200}
runner_calls=${RUNNER_CALLS:-20}
web_uid=4243
web_gid=4242
image=${SCALE_CACHE:-/var/cache/vela-bench}/scale-v${SCALE_BUILDER_VERSION:-1}-f${SCALE_FILES:-1000000}-s${SCALE_SNAPSHOTS:-100}.img

if [ -z "${VELA_SANDBOX:-}" ]; then
  if [ ! -f "$image" ]; then
    echo "space-module-bench: no scale image $image; SCENARIOS=scale bench/size-provider-bench.sh builds it" >&2
    exit 1
  fi
  provider=$(grep -E '^VELA_BTRFS_TOOL:' "$build/CMakeCache.txt" | cut -d= -f2)
  work=$(mktemp -d /var/tmp/space-module-bench.XXXXXX)
  trap 'rm -rf "$work"' EXIT
  { cat /etc/group; echo "velaweb:x:$web_gid:"; } >"$work/group"
  mkdir -m 755 "$work/persistent"
  "$build/tests/support/vela-sandbox" --bind "$build/tools/vela-btrfs/vela-btrfs:$provider" \
    --bind "$work/group:/etc/group" --bind "$work/persistent:/usr/local/velabtrfssnapusage" \
    -- env SPACE_BENCH_IMAGE="$image" "$0" "$build"
  exit
fi

work=$(mktemp -d)
trap 'umount /volume1 2>/dev/null || true; rm -rf "$work"' EXIT
tree=$(grep -E '^CMAKE_HOME_DIRECTORY:' "$build/CMakeCache.txt" | cut -d= -f2)
g++ -std=c++17 -O2 -rdynamic -I"$tree/platform/include" bench/module_scale_bench.cc -o "$work/bench" \
  -L"$build/platform" -Wl,-rpath,"$build/platform" -lvelaplatform $(pkg-config --cflags --libs jsoncpp) -ldl
module=$build/modules/space/libvelaspacewebapi.so
runner=$build/tools/velawebapi-call/velawebapi-call
bench() { "$work/bench" "$module" "$web_uid" "$web_gid" "$@"; }
ms() { date +%s%N; }

mount -o ro,loop "$SPACE_BENCH_IMAGE" /volume1
echo "== $SPACE_BENCH_IMAGE at /volume1 (read-only)"
begin=$(ms)
"$runner" VELA.Snap.Usage.Share 1 start '{"share_name":"share","range":{"range_start":1,"range_end":1}}' >/dev/null
state=
for _ in $(seq 1 1200); do
  state=$(jq -r '.status // empty' /usr/local/velabtrfssnapusage/share_task_status/share 2>/dev/null || true)
  case $state in ready | process | "") sleep 0.1 ;; *) break ;; esac
done
[ "$state" = done ] || { echo "space-module-bench: the calculation ended \"$state\"" >&2; exit 1; }
map=$(ls /usr/local/velabtrfssnapusage/share_task_result/share/*.space_map)
echo "calculation with the space map: $(((($(ms) - begin) / 1000000))) ms; map $(($(stat -c %s "$map") / 1024)) KiB"

get=$(bench call get '{"share_name":"share"}')
ids=($(jq -r '.data.snap_list[].subvol_id' <<<"$get"))
total=$(jq -r '.data.snap_list[-1].accum_bytes' <<<"$get")
echo "${#ids[@]} snapshots; deleting all frees $total bytes"
list() { local IFS=,; echo "[$*]"; }
third=()
for ((i = 0; i < ${#ids[@]}; i += 3)); do third+=("${ids[i]}"); done
freed() { echo "{\"share_name\":\"share\",\"subvol_ids\":$1}"; }
plan() { echo "{\"share_name\":\"share\",\"bytes\":$1,\"keep_newest\":$2}"; }
questions=(
  "get (${#ids[@]} rows)|get|{\"share_name\":\"share\"}"
  "freed: one snapshot, the middle one|freed|$(freed "[${ids[${#ids[@]} / 2]}]")"
  "freed: every third snapshot (${#third[@]})|freed|$(freed "$(list "${third[@]}")")"
  "freed: all ${#ids[@]} snapshots|freed|$(freed "$(list "${ids[@]}")")"
  "plan: a tenth of all, keeping none|plan|$(plan $((total / 10)) 0)"
  "plan: half of all, keeping the newest 10|plan|$(plan $((total / 2)) 10)"
)

percentiles() {  # VALUES...: p50 and p95 of the numbers
  printf '%s\n' "$@" | sort -n | awk '{ v[NR] = $1 } END { printf "%.1f %.1f", v[int((NR - 1) * 0.5) + 1], v[int((NR - 1) * 0.95) + 1] }'
}

echo "== milliseconds per answer: in one process ($calls calls), through velawebapi-call ($runner_calls calls)"
printf '%-44s %12s %12s %12s %12s\n' "" "process p50" "process p95" "runner p50" "runner p95"
for question in "${questions[@]}"; do
  IFS='|' read -r label method params <<<"$question"
  bench call "$method" "$params" >/dev/null || { echo "space-module-bench: $method $params failed" >&2; exit 1; }
  read -r p50 p95 _ <<<"$(bench time "$method" "$params" "$calls")"
  times=()
  for _ in $(seq 1 "$runner_calls"); do
    begin=$(ms)
    "$runner" VELA.Snap.Usage.Space 1 "$method" "$params" >/dev/null
    times+=("$(awk -v n=$(($(ms) - begin)) 'BEGIN { printf "%.2f", n / 1e6 }')")
  done
  read -r r50 r95 <<<"$(percentiles "${times[@]}")"
  printf '%-44s %12s %12s %12s %12s\n' "$label" "$p50" "$p95" "$r50" "$r95"
done
