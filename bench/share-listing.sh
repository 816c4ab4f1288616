#!/usr/bin/env bash
# Figures of the platform's listings on a machine with many snapshots: a
# loopback btrfs file system with SHARES subvolumes of SNAPSHOTS read-only
# snapshots each (laid out as btrbk lays them out), mounted through one
# subvolume alone and adopted as volume 1. Times, median of RUNS runs:
#   - vela-share list (every share, named across the volume);
#   - vela-share snapshots of one share;
#   - the storage listing module's share list (every share with its
#     snapshot count and times) and snapshot list, through velawebapi-call;
#   - a "start" of one share over all its snapshots, answered once the
#     calculation is under way (listing, the snapshot view, root IDs).
# It runs in the test sandbox (private /run, /usr/local and /volumeN), so the
# machine's own state is never touched. Needs root and a build tree.
#
#   bench/share-listing.sh [BUILD_DIR]     (default: build)
# Environment: SHARES (default 20), SNAPSHOTS (50), RUNS (5).
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:-build}")
provider=$(grep -E '^VELA_BTRFS_TOOL:' "$build/CMakeCache.txt" | cut -d= -f2)
if [ -z "${VELA_SANDBOX:-}" ]; then
  exec "$build/tests/support/vela-sandbox" --bind "$build/tools/vela-btrfs/vela-btrfs:$provider" -- "$0" "$build"
fi

shares=${SHARES:-20}
snapshots=${SNAPSHOTS:-50}
runs=${RUNS:-5}
share() { "$build/tools/vela-share/vela-share" "$@"; }
runner="$build/tools/velawebapi-call/velawebapi-call"
storage() { "$runner" --module "$build/modules/storage/libvelastoragewebapi.so" "$@"; }
usage() { "$runner" --module "$build/src/libvelasnapusagewebapi.so" VELA.Snap.Usage.Share 1 "$@"; }
work=$(mktemp -d)
top=$work/top
root=$work/root
trap 'umount /volume1 "$root" "$top" 2>/dev/null || true; rm -rf "$work"' EXIT

echo "== $shares shares of $snapshots snapshots each"
truncate -s 2G "$work/disk.img"
mkfs.btrfs -q "$work/disk.img" >/dev/null
mkdir -p "$top" "$root"
mount -o loop "$work/disk.img" "$top"
mkdir "$top/snaps"
for s in $(seq 1 "$shares"); do
  btrfs -q subvolume create "$top/@s$s"
  for n in $(seq 1 "$snapshots"); do
    head -c 4096 /dev/urandom >"$top/@s$s/f$n"
    btrfs -q subvolume snapshot -r "$top/@s$s" "$top/snaps/@s$s.$(printf '202601%02d' $((n % 28 + 1)))T$(printf '%04d' "$n")"
  done
done
umount "$top"
mount -o loop,subvol=@s1 "$work/disk.img" "$root"
share volume add "$root" >/dev/null

# median SECONDS...
median() { printf '%s\n' "$@" | sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
# measure LABEL COMMAND...: the median wall time of RUNS runs.
measure() {
  local label=$1
  shift
  local times=()
  for _ in $(seq 1 "$runs"); do
    local start end
    start=$(date +%s.%N)
    "$@" >/dev/null
    end=$(date +%s.%N)
    times+=("$(awk -v s="$start" -v e="$end" 'BEGIN { print e - s }')")
  done
  printf '%-58s %8.3f s   (runs: %s)\n' "$label" "$(median "${times[@]}")" "${times[*]}"
}

measure "vela-share list" share list
measure "vela-share snapshots @s1 ($snapshots)" share snapshots @s1
measure "storage module: share list (counts and times of all)" storage VELA.Storage.Share 1 list
measure "storage module: snapshot list of @s1" storage VELA.Storage.Share.Snapshot 1 list '{"share_name":"@s1"}'
times=()
for _ in $(seq 1 "$runs"); do
  start=$(date +%s.%N)
  usage start '{"share_name":"@s1","range":{"range_start":1,"range_end":1}}' >/dev/null
  end=$(date +%s.%N)
  times+=("$(awk -v s="$start" -v e="$end" 'BEGIN { print e - s }')")
  for _ in $(seq 1 600); do
    usage status '{}' | grep -q '"status":"done"' && break
    sleep 0.05
  done
  usage clean '{"share_name":"@s1"}' >/dev/null
done
printf '%-58s %8.3f s   (runs: %s)\n' "module: start over all $snapshots snapshots of @s1" "$(median "${times[@]}")" "${times[*]}"
