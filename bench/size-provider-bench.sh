#!/usr/bin/env bash
# Benchmark of the size provider (vela-btrfs subvolume size) against the two
# other ways of finding out what snapshots take: the kernel's quota rescan and
# `btrfs filesystem du`. Prints seconds (median of RUNS runs), ratios and the
# provider's peak memory. Needs root (loop devices, mounts); everything it
# mounts lives in a private mount namespace and goes away at the end.
#
# Environment:
#   SNAPSHOTS=30       read-only snapshots of the churning share
#   FILES=2000         files in that share
#   STILL_FILES=20000  files in the share of the second scenario
#   STILL_SNAPSHOTS=100  snapshots of that barely changing share
#   RUNS=3             runs per figure (the median is printed)
#   COLD=0             1: also time every command with cold caches
#                      (drops the machine's page cache before each run)
#   VELA_BTRFS=...     the provider (default: the build tree's)
#   TMPDIR             where the sparse images go (default /var/tmp)
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
SNAPSHOTS=${SNAPSHOTS:-30}
FILES=${FILES:-2000}
STILL_FILES=${STILL_FILES:-20000}
STILL_SNAPSHOTS=${STILL_SNAPSHOTS:-100}
RUNS=${RUNS:-3}
COLD=${COLD:-0}
VELA_BTRFS=${VELA_BTRFS:-$here/../build/tools/vela-btrfs/vela-btrfs}

if [ "$(id -u)" -ne 0 ]; then
  echo "size-provider-bench: needs root (loop devices and mounts)" >&2
  exit 1
fi
for tool in mkfs.btrfs btrfs losetup /usr/bin/time; do
  command -v "$tool" >/dev/null || { echo "size-provider-bench: $tool is missing (scripts/setup-deps.sh)" >&2; exit 1; }
done
if [ ! -x "$VELA_BTRFS" ]; then
  echo "size-provider-bench: no provider at $VELA_BTRFS (build it, or set VELA_BTRFS)" >&2
  exit 1
fi
VELA_BTRFS=$(readlink -f "$VELA_BTRFS")

# Mounts made from here on stay in a namespace of this run.
if [ -z "${VELA_BENCH_PRIVATE:-}" ]; then
  exec env VELA_BENCH_PRIVATE=1 VELA_BTRFS="$VELA_BTRFS" unshare --mount --propagation private bash "$0" "$@"
fi

work=$(mktemp -d "${TMPDIR:-/var/tmp}/vela-bench.XXXXXX")
mounts=()
cleanup() {
  local m
  for m in "${mounts[@]}"; do
    mountpoint -q "$m" && { umount "$m" 2>/dev/null || umount -l "$m"; }
  done
  # Loop devices of mount -o loop go with their mount; any left is ours.
  local image dev
  for image in "$work"/*.img; do
    for dev in $(losetup -n -O NAME -j "$image" 2>/dev/null); do losetup -d "$dev" 2>/dev/null || true; done
  done
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

new_volume() {  # IMAGE MOUNTPOINT
  truncate -s 8G "$1"
  mkfs.btrfs -q -f "$1" >"$work/mkfs.txt" 2>&1 || { cat "$work/mkfs.txt" >&2; return 1; }
  mkdir -p "$2"
  mount -o loop "$1" "$2"
  mounts+=("$2")
}

drop_caches() {
  sync
  echo 3 > /proc/sys/vm/drop_caches
}

# time_runs COLD PREPARE COMMAND...: runs PREPARE (a function name or
# "true") then times COMMAND, RUNS times; prints the seconds of each run.
time_runs() {
  local cold=$1 prepare=$2
  shift 2
  local i t0 t1
  for ((i = 0; i < RUNS; i++)); do
    "$prepare"
    [ "$cold" = 1 ] && drop_caches
    t0=$(date +%s%N)
    "$@" >/dev/null
    t1=$(date +%s%N)
    echo $(((t1 - t0) / 1000))
  done | awk '{ printf "%.3f ", $1 / 1e6 }'
}

median() {  # seconds...
  printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { printf "%.3f", v[int((NR + 1) / 2)] }'
}

ratio() {
  awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.1f", a / b; else print "inf" }'
}

peak_rss_mib() {  # SUBVOLUME...: the provider's "Maximum resident set size"
  /usr/bin/time -v -o "$work/time.txt" "$VELA_BTRFS" subvolume size -vpm "$@" >/dev/null
  awk -F': ' '/Maximum resident set size/ { printf "%.1f", $2 / 1024 }' "$work/time.txt"
}

provider() { "$VELA_BTRFS" subvolume size -vpm "$@"; }
du_snapshots() { btrfs filesystem du -s "$@"; }

report() {  # LABEL SECONDS...
  local label=$1
  shift
  printf '  %-46s median %8.3f s   runs: %s\n' "$label" "$(median "$@")" "$*"
}

# --- Scenario 1: a share that churns between snapshots ----------------------
echo "== scenario 1: $SNAPSHOTS snapshots of a share of $FILES files that churns between them"
A=$work/a
new_volume "$work/a.img" "$A"
btrfs -q subvolume create "$A/share"
btrfs -q subvolume create "$A/other"
mkdir -p "$A/@snapshots/share"
S=$A/share
RANDOM=42
build_start=$(date +%s)
# Two thirds of the files are small enough to live in the tree, a third have
# data extents of their own; a few large files take the partial rewrites.
for ((i = 0; i < FILES; i++)); do
  if ((i % 3)); then echo "file $i" > "$S/f$i"; else head -c 8192 /dev/urandom > "$S/f$i"; fi
done
for ((i = 0; i < 8; i++)); do head -c $((4 << 20)) /dev/urandom > "$S/large$i"; done
next=$FILES
for ((s = 1; s <= SNAPSHOTS; s++)); do
  btrfs -q subvolume snapshot -r "$S" "$A/@snapshots/share/s$s"
  # Overwrite 64 KiB in the middle of a large file, append to another.
  dd if=/dev/urandom of="$S/large$((RANDOM % 8))" bs=4096 seek=$((RANDOM % 900 + 50)) count=16 \
     conv=notrunc status=none
  head -c 16384 /dev/urandom >> "$S/large$((RANDOM % 8))"
  # Delete 1% of the files, add as many, change 5%.
  for ((k = 0; k < FILES / 100; k++)); do rm -f "$S/f$((RANDOM % next))"; done
  for ((k = 0; k < FILES / 100; k++)); do echo "new $next" > "$S/f$next"; next=$((next + 1)); done
  for ((k = 0; k < FILES / 20; k++)); do
    f=$S/f$((RANDOM % next))
    [ -e "$f" ] && echo "changed in $s" >> "$f"
  done
  # A new file of its own, and reflink copies inside the share and across.
  head -c 262144 /dev/urandom > "$S/new$s"
  cp --reflink=always "$S/new$s" "$S/copy$s"
  ((s % 5)) || cp --reflink=always "$S/large$((RANDOM % 8))" "$A/other/large-from-$s"
  ((s % 4)) || rm -f "$S/new$((s - 3))"
done
btrfs filesystem sync "$A"
snaps=()
for ((s = 1; s <= SNAPSHOTS; s++)); do snaps+=("$A/@snapshots/share/s$s"); done
echo "  built in $(($(date +%s) - build_start)) s; $(btrfs filesystem df "$A" | tr '\n' ';' | sed 's/;$//')"

modes=("warm 0")
[ "$COLD" = 1 ] && modes+=("cold 1")
declare -A provider_s du_s rescan_s
for mode in "${modes[@]}"; do
  read -r name cold <<<"$mode"
  # shellcheck disable=SC2207
  t=($(time_runs "$cold" true provider "${snaps[@]}"))
  report "provider -vpm ($name)" "${t[@]}"
  provider_s[$name]=$(median "${t[@]}")
  # shellcheck disable=SC2207
  t=($(time_runs "$cold" true du_snapshots "${snaps[@]}"))
  report "btrfs filesystem du -s ($name)" "${t[@]}"
  du_s[$name]=$(median "${t[@]}")
done
echo "  provider peak memory: $(peak_rss_mib "${snaps[@]}") MiB (maximum resident set size)"
"$VELA_BTRFS" subvolume size -vpm "${snaps[@]}" >"$work/figures.txt"
echo "  tree blocks walked: $(grep '^processed' "$work/figures.txt" | tail -1 | cut -d' ' -f2) bytes;" \
     "deleting all snapshots frees: $(tail -1 "$work/figures.txt" | cut -d' ' -f2) bytes"

# The kernel's rescan on a byte copy, so that the original stays without
# quotas. Each run starts from quotas off: enabling starts the rescan.
umount "$A"
cp --sparse=always "$work/a.img" "$work/copy.img"
C=$work/copy
mkdir -p "$C"
mount -o loop "$work/copy.img" "$C"
mounts+=("$C")
quota_off() { btrfs quota disable "$C" 2>/dev/null || true; }
rescan() { btrfs quota enable "$C" && btrfs quota rescan -W "$C"; }
for mode in "${modes[@]}"; do
  read -r name cold <<<"$mode"
  # shellcheck disable=SC2207
  t=($(time_runs "$cold" quota_off rescan))
  report "quota enable + rescan, on a copy ($name)" "${t[@]}"
  rescan_s[$name]=$(median "${t[@]}")
done
umount "$C"
rm -f "$work/copy.img" "$work/a.img"
for mode in "${modes[@]}"; do
  read -r name cold <<<"$mode"
  echo "  ratios ($name): rescan/provider $(ratio "${rescan_s[$name]}" "${provider_s[$name]}")" \
       "  du/provider $(ratio "${du_s[$name]}" "${provider_s[$name]}")"
done

# --- Scenario 2: many snapshots of a share that barely changes --------------
echo "== scenario 2: $STILL_SNAPSHOTS snapshots of a share of $STILL_FILES files that barely changes, vs 1"
B=$work/b
new_volume "$work/b.img" "$B"
btrfs -q subvolume create "$B/share"
mkdir -p "$B/@snapshots/share"
for ((i = 0; i < STILL_FILES; i++)); do
  if ((i % 10)); then echo "file $i" > "$B/share/f$i"; else head -c 8192 /dev/urandom > "$B/share/f$i"; fi
done
still=()
for ((s = 1; s <= STILL_SNAPSHOTS; s++)); do
  btrfs -q subvolume snapshot -r "$B/share" "$B/@snapshots/share/s$s"
  still+=("$B/@snapshots/share/s$s")
  echo "touch $s" >> "$B/share/f$((s % STILL_FILES))"
done
btrfs filesystem sync "$B"
for mode in "${modes[@]}"; do
  read -r name cold <<<"$mode"
  # shellcheck disable=SC2207
  one=($(time_runs "$cold" true provider "${still[0]}"))
  # shellcheck disable=SC2207
  all=($(time_runs "$cold" true provider "${still[@]}"))
  report "provider, 1 snapshot ($name)" "${one[@]}"
  report "provider, $STILL_SNAPSHOTS snapshots ($name)" "${all[@]}"
  echo "  cost ratio $STILL_SNAPSHOTS/1 ($name): $(ratio "$(median "${all[@]}")" "$(median "${one[@]}")")"
  # du walks every snapshot's files: once is enough to see it.
  # shellcheck disable=SC2207
  one=($(RUNS=1 time_runs "$cold" true du_snapshots "${still[0]}"))
  # shellcheck disable=SC2207
  all=($(RUNS=1 time_runs "$cold" true du_snapshots "${still[@]}"))
  report "btrfs filesystem du -s, 1 snapshot ($name)" "${one[@]}"
  report "btrfs filesystem du -s, $STILL_SNAPSHOTS snapshots ($name)" "${all[@]}"
  echo "  du cost ratio $STILL_SNAPSHOTS/1 ($name): $(ratio "$(median "${all[@]}")" "$(median "${one[@]}")")"
done
echo "  provider peak memory, $STILL_SNAPSHOTS snapshots: $(peak_rss_mib "${still[@]}") MiB"
