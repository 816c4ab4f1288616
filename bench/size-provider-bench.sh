#!/usr/bin/env bash
# Benchmark of the size provider (vela-btrfs subvolume size) against the two
# other ways of finding out what snapshots take: the kernel's quota rescan and
# `btrfs filesystem du`. Prints seconds (median of the runs), ratios and the
# provider's peak memory. Needs root (loop devices, mounts); everything it
# mounts lives in a private mount namespace and goes away at the end.
#
# Scenarios (SCENARIOS, any of them, in this order):
#   churn  a share of FILES files with SNAPSHOTS snapshots and churn between them
#   still  STILL_SNAPSHOTS snapshots of a share of STILL_FILES files that
#          barely changes: the cost with one snapshot taken and with all
#   scale  SCALE_FILES files with SCALE_SNAPSHOTS snapshots and churn between
#          them; also memory per extent. Building its image takes long, so it
#          is kept in SCALE_CACHE under a name made of its parameters and the
#          builder's version, and reused (mounted read-only) by later runs.
#
# Environment:
#   SCENARIOS="churn still scale"
#   SNAPSHOTS=30 FILES=2000
#   STILL_SNAPSHOTS=100 STILL_FILES=20000
#   SCALE_SNAPSHOTS=100 SCALE_FILES=1000000
#   SCALE_CACHE=/var/cache/vela-bench   delete its files to rebuild
#   RUNS=3             runs per figure of the provider (the median is printed)
#   SLOW_RUNS=1        runs per figure of the rescan and du in the scale scenario
#   DU_TIMEOUT=0       seconds after which du of the scale scenario is stopped
#                      (then its figure is a lower bound); 0: no limit
#   COLD=0             1: also time every command with cold caches
#                      (drops the machine's page cache before each run)
#   VELA_BTRFS=...     the provider (default: the build tree's)
#   QUERY_BENCH=...    the space map's query timer (default: the build tree's
#                      bench/space-map-query-bench)
#   QUERY_RUNS=200     questions of each kind it times
#
# The churn and scale scenarios also time the provider writing the space
# map (--space-map), alternating with runs without it so that the machine's
# other load falls on both alike, and print the map's size, the provider's
# peak memory with it, and how fast the map answers.
#   TMPDIR             where the sparse images go (default /var/tmp)
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
SCENARIOS=${SCENARIOS:-churn still scale}
SNAPSHOTS=${SNAPSHOTS:-30}
FILES=${FILES:-2000}
STILL_FILES=${STILL_FILES:-20000}
STILL_SNAPSHOTS=${STILL_SNAPSHOTS:-100}
SCALE_FILES=${SCALE_FILES:-1000000}
SCALE_SNAPSHOTS=${SCALE_SNAPSHOTS:-100}
SCALE_CACHE=${SCALE_CACHE:-/var/cache/vela-bench}
RUNS=${RUNS:-3}
SLOW_RUNS=${SLOW_RUNS:-1}
DU_TIMEOUT=${DU_TIMEOUT:-0}
COLD=${COLD:-0}
VELA_BTRFS=${VELA_BTRFS:-$here/../build/tools/vela-btrfs/vela-btrfs}
QUERY_BENCH=${QUERY_BENCH:-$here/../build/bench/space-map-query-bench}
QUERY_RUNS=${QUERY_RUNS:-200}
# Changes with every change of how the scale image is built.
SCALE_BUILDER_VERSION=1

if [ "$(id -u)" -ne 0 ]; then
  echo "size-provider-bench: needs root (loop devices and mounts)" >&2
  exit 1
fi
for tool in mkfs.btrfs btrfs losetup timeout /usr/bin/time; do
  command -v "$tool" >/dev/null || { echo "size-provider-bench: $tool is missing (scripts/setup-deps.sh)" >&2; exit 1; }
done
if [ ! -x "$VELA_BTRFS" ]; then
  echo "size-provider-bench: no provider at $VELA_BTRFS (build it, or set VELA_BTRFS)" >&2
  exit 1
fi
VELA_BTRFS=$(readlink -f "$VELA_BTRFS")
if [ ! -x "$QUERY_BENCH" ]; then
  echo "size-provider-bench: no space map query timer at $QUERY_BENCH (build it, or set QUERY_BENCH)" >&2
  exit 1
fi
QUERY_BENCH=$(readlink -f "$QUERY_BENCH")

# Mounts made from here on stay in a namespace of this run.
if [ -z "${VELA_BENCH_PRIVATE:-}" ]; then
  exec env VELA_BENCH_PRIVATE=1 VELA_BTRFS="$VELA_BTRFS" QUERY_BENCH="$QUERY_BENCH" unshare --mount --propagation private bash "$0" "$@"
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
  for image in "$work"/*.img "$SCALE_CACHE"/*.partial; do
    [ -e "$image" ] || continue
    for dev in $(losetup -n -O NAME -j "$image" 2>/dev/null); do losetup -d "$dev" 2>/dev/null || true; done
  done
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

new_volume() {  # IMAGE MOUNTPOINT [SIZE]
  truncate -s "${3:-8G}" "$1"
  mkfs.btrfs -q -f "$1" >"$work/mkfs.txt" 2>&1 || { cat "$work/mkfs.txt" >&2; return 1; }
  mkdir -p "$2"
  mount -o loop "$1" "$2"
  mounts+=("$2")
}

drop_caches() {
  sync
  echo 3 > /proc/sys/vm/drop_caches
}

# time_runs COLD COUNT PREPARE COMMAND...: runs PREPARE (a function name or
# "true") then times COMMAND, COUNT times; prints the seconds of each run.
time_runs() {
  local cold=$1 count=$2 prepare=$3
  shift 3
  local i t0 t1
  for ((i = 0; i < count; i++)); do
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

peak_rss_kib() {  # [--space-map FILE] SUBVOLUME...: the provider's "Maximum resident set size"
  /usr/bin/time -v -o "$work/time.txt" "$VELA_BTRFS" subvolume size -vpm "$@" >/dev/null
  awk -F': ' '/Maximum resident set size/ { print $2 }' "$work/time.txt"
}

mib() { awk -v k="$1" 'BEGIN { printf "%.1f", k / 1024 }'; }

provider() { "$VELA_BTRFS" subvolume size -vpm "$@"; }
provider_map() { "$VELA_BTRFS" subvolume size -vpm --space-map "$work/map.db" "$@"; }
du_snapshots() { btrfs filesystem du -s "$@"; }

report() {  # LABEL SECONDS...
  local label=$1
  shift
  printf '  %-50s median %8.3f s   runs: %s\n' "$label" "$(median "$@")" "$*"
}

modes=("warm 0")
[ "$COLD" = 1 ] && modes+=("cold 1")

# time_provider COLD COUNT LABEL SUBVOLUME...: times the provider without
# and with the space map, in turn; sets provider_s[mode] and map_s[mode]
# (medians) for the mode named by LABEL, prints both and their ratio.
time_provider() {
  local cold=$1 count=$2 label=$3 i plain=() mapped=()
  shift 3
  for ((i = 0; i < count; i++)); do
    # shellcheck disable=SC2207
    plain+=($(time_runs "$cold" 1 true provider "$@"))
    # shellcheck disable=SC2207
    mapped+=($(time_runs "$cold" 1 true provider_map "$@"))
  done
  report "provider -vpm ($label)" "${plain[@]}"
  report "provider -vpm --space-map ($label)" "${mapped[@]}"
  provider_s[$label]=$(median "${plain[@]}")
  map_s[$label]=$(median "${mapped[@]}")
  echo "  with the space map / without ($label): $(ratio "${map_s[$label]}" "${provider_s[$label]}")"
}

# space_map_figures SUBVOLUME...: the map's size, the provider's peak memory
# writing it, and the query timer on it.
space_map_figures() {
  local kib
  kib=$(peak_rss_kib --space-map "$work/map.db" "$@")
  echo "  space map: $(stat -c %s "$work/map.db") bytes, $(mib "$kib") MiB peak memory writing it;" \
       "its answers, each on a freshly opened map:"
  "$QUERY_BENCH" "$work/map.db" "$QUERY_RUNS"
}

# rescan_on_copy IMAGE COUNT LABEL: times the kernel's rescan on a byte copy,
# so that the original stays without quotas; sets rescan_s[warm|cold]. Each
# run starts from quotas off: enabling starts the rescan.
declare -A provider_s map_s du_s rescan_s
rescan_on_copy() {
  local image=$1 count=$2 label=$3 name cold t
  cp --sparse=always "$image" "$work/copy.img"
  C=$work/copy
  mkdir -p "$C"
  mount -o loop "$work/copy.img" "$C"
  mounts+=("$C")
  for mode in "${modes[@]}"; do
    read -r name cold <<<"$mode"
    # shellcheck disable=SC2207
    t=($(time_runs "$cold" "$count" quota_off rescan))
    report "quota enable + rescan, on a copy ($name)" "${t[@]}"
    rescan_s[$name]=$(median "${t[@]}")
  done
  umount "$C"
  rm -f "$work/copy.img"
  for mode in "${modes[@]}"; do
    read -r name cold <<<"$mode"
    echo "  ratios $label ($name): rescan/provider $(ratio "${rescan_s[$name]}" "${provider_s[$name]}")" \
         "  rescan/provider with the space map $(ratio "${rescan_s[$name]}" "${map_s[$name]}")" \
         "  du/provider $(ratio "${du_s[$name]}" "${provider_s[$name]}")"
  done
}
quota_off() { btrfs quota disable "$C" 2>/dev/null || true; }
rescan() { btrfs quota enable "$C" && btrfs quota rescan -W "$C"; }

# --- A share that churns between snapshots ----------------------------------
scenario_churn() {
  echo "== churn: $SNAPSHOTS snapshots of a share of $FILES files that churns between them"
  local A=$work/a S i s k f next name cold t
  new_volume "$work/a.img" "$A"
  S=$A/share
  btrfs -q subvolume create "$S"
  btrfs -q subvolume create "$A/other"
  mkdir -p "$A/@snapshots/share"
  RANDOM=42
  local build_start
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
  local snaps=()
  for ((s = 1; s <= SNAPSHOTS; s++)); do snaps+=("$A/@snapshots/share/s$s"); done
  echo "  built in $(($(date +%s) - build_start)) s; $(btrfs filesystem df "$A" | tr '\n' ';' | sed 's/;$//')"

  for mode in "${modes[@]}"; do
    read -r name cold <<<"$mode"
    time_provider "$cold" "$RUNS" "$name" "${snaps[@]}"
    # shellcheck disable=SC2207
    t=($(time_runs "$cold" "$RUNS" true du_snapshots "${snaps[@]}"))
    report "btrfs filesystem du -s ($name)" "${t[@]}"
    du_s[$name]=$(median "${t[@]}")
  done
  echo "  provider peak memory: $(mib "$(peak_rss_kib "${snaps[@]}")") MiB (maximum resident set size)"
  space_map_figures "${snaps[@]}"
  "$VELA_BTRFS" subvolume size -vpm "${snaps[@]}" >"$work/figures.txt"
  echo "  tree blocks walked: $(grep '^processed' "$work/figures.txt" | tail -1 | cut -d' ' -f2) bytes;" \
       "deleting all snapshots frees: $(tail -1 "$work/figures.txt" | cut -d' ' -f2) bytes"
  umount "$A"
  rescan_on_copy "$work/a.img" "$RUNS" churn
  rm -f "$work/a.img"
}

# --- Many snapshots of a share that barely changes ----------------------------
scenario_still() {
  echo "== still: a share of $STILL_FILES files that barely changes, with 1 snapshot, then $STILL_SNAPSHOTS"
  local B=$work/b i s name cold one all mem_one
  new_volume "$work/b.img" "$B"
  btrfs -q subvolume create "$B/share"
  mkdir -p "$B/@snapshots/share"
  for ((i = 0; i < STILL_FILES; i++)); do
    if ((i % 10)); then echo "file $i" > "$B/share/f$i"; else head -c 8192 /dev/urandom > "$B/share/f$i"; fi
  done
  local still=("$B/@snapshots/share/s1")
  btrfs -q subvolume snapshot -r "$B/share" "${still[0]}"
  btrfs filesystem sync "$B"
  declare -A one_s du_one_s
  for mode in "${modes[@]}"; do
    read -r name cold <<<"$mode"
    # shellcheck disable=SC2207
    one=($(time_runs "$cold" "$RUNS" true provider "${still[0]}"))
    report "provider, 1 snapshot taken ($name)" "${one[@]}"
    one_s[$name]=$(median "${one[@]}")
    # du walks every snapshot's files: once is enough to see it.
    # shellcheck disable=SC2207
    one=($(time_runs "$cold" 1 true du_snapshots "${still[0]}"))
    report "btrfs filesystem du -s, 1 snapshot taken ($name)" "${one[@]}"
    du_one_s[$name]=$(median "${one[@]}")
  done
  mem_one=$(peak_rss_kib "${still[0]}")
  for ((s = 2; s <= STILL_SNAPSHOTS; s++)); do
    echo "touch $s" >> "$B/share/f$((s % STILL_FILES))"
    btrfs -q subvolume snapshot -r "$B/share" "$B/@snapshots/share/s$s"
    still+=("$B/@snapshots/share/s$s")
  done
  btrfs filesystem sync "$B"
  for mode in "${modes[@]}"; do
    read -r name cold <<<"$mode"
    # shellcheck disable=SC2207
    all=($(time_runs "$cold" "$RUNS" true provider "${still[@]}"))
    report "provider, $STILL_SNAPSHOTS snapshots taken ($name)" "${all[@]}"
    echo "  cost ratio $STILL_SNAPSHOTS/1 ($name): $(ratio "$(median "${all[@]}")" "${one_s[$name]}")"
    # shellcheck disable=SC2207
    all=($(time_runs "$cold" 1 true du_snapshots "${still[@]}"))
    report "btrfs filesystem du -s, $STILL_SNAPSHOTS snapshots taken ($name)" "${all[@]}"
    echo "  du cost ratio $STILL_SNAPSHOTS/1 ($name): $(ratio "$(median "${all[@]}")" "${du_one_s[$name]}")"
  done
  echo "  provider peak memory: $(mib "$mem_one") MiB with 1 snapshot taken," \
       "$(mib "$(peak_rss_kib "${still[@]}")") MiB with $STILL_SNAPSHOTS"
  umount "$B"
  rm -f "$work/b.img"
}

# --- A million files -----------------------------------------------------------
# Fills the btrfs at $1: SCALE_FILES files in directories of a thousand (a
# quarter with a data extent of their own, the rest small enough to live in
# the tree), eight large files, then SCALE_SNAPSHOTS snapshots with churn
# spread over the whole share between them.
populate_scale() {
  local M=$1 S=$1/share d f k n=0 s
  local dirs=$(((SCALE_FILES + 999) / 1000))
  btrfs -q subvolume create "$S"
  btrfs -q subvolume create "$M/other"
  mkdir -p "$M/@snapshots/share"
  local blob
  blob=$(head -c 3000 /dev/urandom | base64 -w 0)  # too large to be inline
  for ((d = 0; d < dirs; d++)); do
    mkdir "$S/d$d"
    for ((f = 0; f < 1000 && n < SCALE_FILES; f++, n++)); do
      if ((f % 4)); then echo "file $d/$f" > "$S/d$d/f$f"; else echo "$blob $d/$f" > "$S/d$d/f$f"; fi
    done
    ((d % 100)) || echo "  scale image: $n files" >&2
  done
  for ((k = 0; k < 8; k++)); do head -c $((32 << 20)) /dev/urandom > "$S/large$k"; done
  RANDOM=42
  local gone
  for ((s = 1; s <= SCALE_SNAPSHOTS; s++)); do
    btrfs -q subvolume snapshot -r "$S" "$M/@snapshots/share/s$s"
    # 300 files changed and 100 deleted anywhere in the share; 100 new ones
    # together in a directory.
    for ((k = 0; k < 300; k++)); do
      f=$S/d$((RANDOM % dirs))/f$((RANDOM % 1000))
      [ -e "$f" ] && echo "changed in $s" >> "$f"
    done
    gone=()
    for ((k = 0; k < 100; k++)); do gone+=("$S/d$((RANDOM % dirs))/f$((RANDOM % 1000))"); done
    rm -f "${gone[@]}"
    mkdir "$S/new$s"
    for ((k = 0; k < 100; k++)); do
      if ((k % 4)); then echo "new $s/$k" > "$S/new$s/f$k"; else echo "$blob $s/$k" > "$S/new$s/f$k"; fi
    done
    # Rewritten and appended blocks of large files, a new file of its own
    # and reflink copies inside the share and across.
    dd if=/dev/urandom of="$S/large$((RANDOM % 8))" bs=4096 seek=$((RANDOM % 8000 + 50)) count=16 \
       conv=notrunc status=none
    head -c 16384 /dev/urandom >> "$S/large$((RANDOM % 8))"
    head -c 262144 /dev/urandom > "$S/new$s/blob"
    cp --reflink=always "$S/new$s/blob" "$S/new$s/copy"
    ((s % 5)) || cp --reflink=always "$S/large$((RANDOM % 8))" "$M/other/large-from-$s"
    ((s % 4)) || rm -rf "$S/new$((s - 3))"
  done
  btrfs filesystem sync "$M"
}

# Extents as the file system counts them: the data extent and tree block
# items in the leaves of its extent tree. The key pointers of its nodes print
# the same keys and are no extents.
count_extents() {  # IMAGE: prints "DATA_EXTENTS TREE_BLOCKS"
  btrfs inspect-internal dump-tree -t extent "$1" |
    awk '/^\titem [0-9]+ key \([0-9]+ EXTENT_ITEM / { d++ }
         /^\titem [0-9]+ key \([0-9]+ METADATA_ITEM / { m++ }
         END { print d + 0, m + 0 }'
}

# Builds the scale image at $1 unless it is there, with its extent counts in
# $1.extent-items (an older ".extents" file beside it counted node keys too,
# and is replaced).
ensure_scale_image() {
  local image=$1
  if [ ! -f "$image" ]; then
    echo "  building $image (once; later runs reuse it)"
    mkdir -p "$SCALE_CACHE"
    local partial=$image.partial build_start
    build_start=$(date +%s)
    rm -f "$partial"
    new_volume "$partial" "$work/build" 64G
    populate_scale "$work/build"
    umount "$work/build"
    mv "$partial" "$image"
    echo "  built in $(($(date +%s) - build_start)) s"
  fi
  if [ ! -f "$image.extent-items" ]; then
    count_extents "$image" >"$image.extent-items.partial"
    mv "$image.extent-items.partial" "$image.extent-items"
    rm -f "$image.extents"
  fi
}

# du over every snapshot of a million files, stopped after DU_TIMEOUT.
du_limited() {
  if [ "$DU_TIMEOUT" -gt 0 ]; then
    timeout "$DU_TIMEOUT" btrfs filesystem du -s "$@" || { [ $? -eq 124 ] && touch "$work/du-stopped"; }
  else
    btrfs filesystem du -s "$@"
  fi
}

scenario_scale() {
  echo "== scale: $SCALE_SNAPSHOTS snapshots of a share of $SCALE_FILES files that churns between them"
  local image=$SCALE_CACHE/scale-v$SCALE_BUILDER_VERSION-f$SCALE_FILES-s$SCALE_SNAPSHOTS.img
  ensure_scale_image "$image"
  local X=$work/scale s name cold t data_extents tree_blocks
  read -r data_extents tree_blocks <"$image.extent-items"
  mkdir -p "$X"
  mount -o ro,loop "$image" "$X"
  mounts+=("$X")
  local snaps=()
  for ((s = 1; s <= SCALE_SNAPSHOTS; s++)); do snaps+=("$X/@snapshots/share/s$s"); done
  echo "  $image: $data_extents data extents, $tree_blocks tree blocks;" \
       "$(btrfs filesystem df "$X" | grep -i metadata | tr '\n' ' ')"
  for mode in "${modes[@]}"; do
    read -r name cold <<<"$mode"
    time_provider "$cold" "$RUNS" "$name" "${snaps[@]}"
    rm -f "$work/du-stopped"
    # shellcheck disable=SC2207
    t=($(time_runs "$cold" "$SLOW_RUNS" true du_limited "${snaps[@]}"))
    report "btrfs filesystem du -s ($name)$([ -e "$work/du-stopped" ] && echo ", stopped: at least")" "${t[@]}"
    du_s[$name]=$(median "${t[@]}")
  done
  local peak_all peak_one extents=$((data_extents + tree_blocks))
  peak_all=$(peak_rss_kib "${snaps[@]}")
  peak_one=$(peak_rss_kib "${snaps[0]}")
  echo "  provider peak memory: $(mib "$peak_all") MiB for $SCALE_SNAPSHOTS snapshots, $(mib "$peak_one") MiB for 1;" \
       "$(awk -v k="$peak_all" -v e="$extents" 'BEGIN { printf "%.1f", k * 1024 / e }') bytes per extent"
  space_map_figures "${snaps[@]}"
  "$VELA_BTRFS" subvolume size -vpm "${snaps[@]}" >"$work/figures.txt"
  echo "  tree blocks walked: $(grep '^processed' "$work/figures.txt" | tail -1 | cut -d' ' -f2) bytes;" \
       "deleting all snapshots frees: $(tail -1 "$work/figures.txt" | cut -d' ' -f2) bytes"
  umount "$X"
  rescan_on_copy "$image" "$SLOW_RUNS" scale
}

for scenario in $SCENARIOS; do
  case $scenario in
    churn | still | scale) "scenario_$scenario" ;;
    *) echo "size-provider-bench: unknown scenario '$scenario' (churn, still, scale)" >&2; exit 2 ;;
  esac
done
