#!/usr/bin/env bash
# The module at scale: SHARES shares with SNAPSHOTS snapshots each, every
# share calculated once, then
#   - `status` with all four attributes and `get_report` of one share, timed
#     in a long-lived process (module-scale-bench, which loads the module
#     once and calls it with the web API executors' ids), p50 and p95;
#   - the same `status` while CALCULATING shares calculate (a paced size
#     tool printing progress four times a second);
#   - log lines per request, and what one `status` costs in system calls
#     (opens, stats, privilege switches, opens of /etc/group; from strace).
# Each figure is printed for the baseline build and for this one, side by
# side. The baseline is the build directory BASELINE when given, else the
# commit BASELINE_COMMIT built in a temporary worktree.
#
# It runs in the test sandbox (private /run, /usr/local, /etc/group and
# /volumeN) on a sparse loopback volume, with the module's persistent state
# in a scratch directory on the machine's disk, so the machine's own state
# is never touched. Needs root and a build tree.
#
#   bench/module-scale.sh [BUILD_DIR]        (default: build)
# Environment: SHARES (100), SNAPSHOTS (100), CALLS (200), CALCULATING (10),
#   BASELINE (a build directory), BASELINE_COMMIT (d8759fa).
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:-build}")
shares=${SHARES:-100}
snapshots=${SNAPSHOTS:-100}
calls=${CALLS:-200}
calculating=${CALCULATING:-10}
web_uid=4243
web_gid=4242

if [ -z "${VELA_SANDBOX:-}" ]; then
  if [ -z "${BASELINE:-}" ]; then
    commit=${BASELINE_COMMIT:-d8759fa}
    tree=$(mktemp -d /var/tmp/module-scale-baseline.XXXXXX)
    trap 'git worktree remove --force "$tree/src" >/dev/null 2>&1 || true; rm -rf "$tree"' EXIT
    git worktree add --detach "$tree/src" "$commit" >/dev/null 2>&1
    echo "== building the baseline ($commit) in $tree"
    cmake -S "$tree/src" -B "$tree/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELA_BUILD_TESTS=OFF >/dev/null
    cmake --build "$tree/build" -j "$(nproc)" --target velasnapusagewebapi >/dev/null
    BASELINE=$tree/build
  fi
  export BASELINE=$(realpath "$BASELINE")
  provider=$(grep -E '^VELA_BTRFS_TOOL:' "$build/CMakeCache.txt" | cut -d= -f2)
  work=$(mktemp -d /var/tmp/module-scale.XXXXXX)
  trap 'rm -rf "$work"; [ -z "${tree:-}" ] || { git worktree remove --force "$tree/src" >/dev/null 2>&1; rm -rf "$tree"; }' EXIT
  # The size tool: a script that gives every root ID a figure, paced (a
  # progress line every quarter of a second for two minutes) while the flag
  # file exists. Its environment is fixed, so the flag is a file.
  cat >"$work/tool" <<'EOF'
#!/bin/bash
if [ -e /run/module-scale-paced ]; then
  echo "exclusive 480000 bytes"
  for i in $(seq 1 480); do echo "processed $((i * 1000)) bytes"; sleep 0.25; done
fi
shift 5
for id in "$@"; do echo "subvol($id) 16384 bytes"; done
EOF
  chmod 755 "$work/tool"
  { cat /etc/group; echo "velaweb:x:$web_gid:"; } >"$work/group"
  # The persistent state on the machine's disk, as it would be, not on the
  # sandbox's memory: its writes are flushed to the disk.
  mkdir -m 755 "$work/persistent"
  "$build/tests/support/vela-sandbox" --bind "$work/tool:$provider" --bind "$work/group:/etc/group" \
    --bind "$work/persistent:/usr/local/velabtrfssnapusage" -- "$0" "$build"
  exit
fi

work=$(mktemp -d)
trap 'umount /volume1 2>/dev/null || true; rm -rf "$work"' EXIT
jsoncpp=$(pkg-config --cflags --libs jsoncpp)
# The bench program, built against each build's own platform layer.
compile() {  # BUILD OUT
  local tree
  tree=$(grep -E '^CMAKE_HOME_DIRECTORY:' "$1/CMakeCache.txt" | cut -d= -f2)
  g++ -std=c++17 -O2 -rdynamic -I"$tree/platform/include" bench/module_scale_bench.cc -o "$2" \
    -L"$1/platform" -Wl,-rpath,"$1/platform" -lvelaplatform $jsoncpp -ldl
}
compile "$BASELINE" "$work/bench-baseline"
compile "$build" "$work/bench-this"

echo "== $shares shares with $snapshots snapshots each"
truncate -s 4G "$work/volume1.img"
mkfs.btrfs -q "$work/volume1.img" >/dev/null
mount -o loop "$work/volume1.img" /volume1
mkdir -p /volume1/@snapshots
names=()
for s in $(seq -w 1 "$shares"); do
  share=share$s
  names+=("$share")
  btrfs -q subvolume create "/volume1/$share"
  mkdir -p "/volume1/@snapshots/$share"
  echo "$share" >"/volume1/$share/file"
  for i in $(seq 1 "$snapshots"); do
    TZ=UTC printf -v name 'GMT-%(%Y.%m.%d-%H.%M.%S)T' $((1700000000 + i * 3600))
    btrfs -q subvolume snapshot -r "/volume1/$share" "/volume1/@snapshots/$share/$name"
  done
done
start_params() { echo "{\"share_name\":\"$1\",\"range\":{\"range_start\":1,\"range_end\":1}}"; }
status_params='{"additional":["processed_in_bytes","estimated_in_bytes","range_start","range_end"]}'
report_params="{\"share_name\":\"${names[0]}\"}"
state_of() { jq -r '.status // empty' "/usr/local/velabtrfssnapusage/share_task_status/$1" 2>/dev/null || true; }
wait_ended() {  # SHARE...
  for share in "$@"; do
    for _ in $(seq 1 600); do
      case $(state_of "$share") in ready | process | "") sleep 0.1 ;; *) break ;; esac
    done
  done
}

declare -A figure
measure() {  # LABEL BUILD BENCH
  local label=$1 module=$2/src/libvelasnapusagewebapi.so bench=$3
  run() { "$bench" "$module" "$web_uid" "$web_gid" "$@"; }
  rm -rf /run/velabtrfssnapusage /run/lock/velabtrfssnapusage /run/module-scale-paced
  find /usr/local/velabtrfssnapusage -mindepth 1 -delete
  for share in "${names[@]}"; do run call start "$(start_params "$share")" >/dev/null; done
  wait_ended "${names[@]}"
  local done_count
  done_count=$(run call status '{}' | jq '[.data.share_list[] | select(.status == "done")] | length')
  read -r figure[$label,status_p50] figure[$label,status_p95] figure[$label,status_logs] _ \
    < <(run time status "$status_params" "$calls")
  read -r figure[$label,report_p50] figure[$label,report_p95] figure[$label,report_logs] figure[$label,report_bytes] \
    < <(run time get_report "$report_params" "$calls")
  # What one request costs in system calls, cut out of a trace between the
  # bench program's markers.
  trace_one() {  # METHOD PARAMS
    strace -f -qq -o "$work/trace" "$bench" "$module" "$web_uid" "$web_gid" time "$1" "$2" 1 >/dev/null
    sed -n '/module-scale-bench-begin/,/module-scale-bench-end/p' "$work/trace" >"$work/one"
  }
  count() { grep -cE "$1" "$work/one" || true; }
  trace_one status "$status_params"
  figure[$label,opens]=$(count '^[0-9]+ +(open|openat|openat2)\(')
  figure[$label,stats]=$(count '^[0-9]+ +(stat|lstat|fstat|newfstatat|statx|fstatat64)\(')
  figure[$label,switches]=$(count '^[0-9]+ +setres[ug]id\(')
  figure[$label,group]=$(count 'open(at)?\(.*"/etc/group"')
  figure[$label,map_reads]=$(count 'read\([0-9]+, "\{\\"share[0-9]+\\":')
  trace_one get_report "$report_params"
  figure[$label,report_opens]=$(count '^[0-9]+ +(open|openat|openat2)\(')
  figure[$label,report_map_reads]=$(count 'read\([0-9]+, "\{\\"share[0-9]+\\":')
  # Shares calculating: a paced tool, so that their children write progress
  # while status is asked.
  touch /run/module-scale-paced
  for share in "${names[@]:1:$calculating}"; do run call start "$(start_params "$share")" >/dev/null; done
  sleep 1
  local running
  running=$(run call status '{}' | jq '[.data.share_list[] | select(.status == "process")] | length')
  read -r figure[$label,busy_p50] figure[$label,busy_p95] figure[$label,busy_logs] _ \
    < <(run time status "$status_params" "$calls")
  running="$running, then $(run call status '{}' | jq '[.data.share_list[] | select(.status == "process")] | length')"
  for share in "${names[@]:1:$calculating}"; do run call clean "{\"share_name\":\"$share\"}" >/dev/null; done
  rm -f /run/module-scale-paced
  echo "$label: $done_count shares done; $running calculating before and after the busy runs"
}

measure baseline "$BASELINE" "$work/bench-baseline"
measure this "$build" "$work/bench-this"

echo "== $calls calls each, in one process; milliseconds"
printf '%-46s %14s %14s\n' "" baseline "this build"
row() { printf '%-46s %14s %14s\n' "$1" "${figure[baseline,$2]}" "${figure[this,$2]}"; }
row "status, 4 attributes: p50" status_p50
row "status, 4 attributes: p95" status_p95
row "status while $calculating shares calculate: p50" busy_p50
row "status while $calculating shares calculate: p95" busy_p95
row "get_report ($snapshots rows): p50" report_p50
row "get_report ($snapshots rows): p95" report_p95
row "log lines per status" status_logs
row "log lines per status while calculating" busy_logs
row "log lines per get_report" report_logs
row "one status: opens" opens
row "one status: stats" stats
row "one status: privilege switches" switches
row "one status: opens of /etc/group" group
row "one status: reads of the share-to-task map" map_reads
row "one get_report: opens" report_opens
row "one get_report: reads of the share-to-task map" report_map_reads
row "get_report answer, bytes" report_bytes
