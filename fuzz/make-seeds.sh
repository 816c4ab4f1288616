#!/usr/bin/env bash
# Remakes the seed inputs in fuzz/corpus/ from small real file systems with
# 4 KiB nodes: files of every extent kind with snapshots between changes,
# their space maps, and chunk trees of striped and mirrored layouts. Needs
# root (loop mounts, in a private mount namespace), the fuzz build
# (scripts/fuzz.sh makes it) and the size provider of the normal build. Run
# it when the input layout of a fuzz target changes.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
maker=${MAKER:-$here/../build-fuzz/fuzz/fuzz_seed_maker}
provider=${PROVIDER:-$here/../build/tools/vela-btrfs/vela-btrfs}
if [ -z "${VELA_SEEDS_PRIVATE:-}" ]; then
  exec env VELA_SEEDS_PRIVATE=1 unshare --mount --propagation private bash "$0" "$@"
fi
work=$(mktemp -d /var/tmp/vela-seeds.XXXXXX)
trap 'umount "$work/m" 2>/dev/null || true; rm -rf "$work"' EXIT
whole=$here/corpus/usage_walker_fuzzer
blocks=$here/corpus/tree_block_fuzzer
maps=$here/corpus/space_map_fuzzer
mkdir -p "$whole" "$blocks" "$maps" "$work/m"

# new_fs NAME FILES CHANGES: a share of FILES files, snapshots between
# CHANGES rounds of changes, a writable snapshot of the first, and data
# extents of every kind.
new_fs() {
  local name=$1 files=$2 rounds=$3 M=$work/m i r
  truncate -s 256M "$work/$name.img"
  mkfs.btrfs -q -f -n 4096 -s 4096 "$work/$name.img"
  mount -o loop "$work/$name.img" "$M"
  btrfs -q subvolume create "$M/share"
  mkdir "$M/share/zip"
  btrfs property set "$M/share/zip" compression zstd
  for ((i = 0; i < files; i++)); do echo "file $i" > "$M/share/f$i"; done
  head -c 20000 /dev/urandom > "$M/share/data"
  seq 1 20000 > "$M/share/zip/text"
  fallocate -l 64K "$M/share/prealloc"
  for ((r = 1; r <= rounds; r++)); do
    btrfs -q subvolume snapshot -r "$M/share" "$M/s$r"
    echo "round $r" >> "$M/share/f$((r * 7 % files))"
    dd if=/dev/urandom of="$M/share/data" bs=4096 seek=1 count=1 conv=notrunc status=none
    cp --reflink=always "$M/share/data" "$M/share/copy$r"
  done
  btrfs -q subvolume snapshot "$M/s1" "$M/restored"
  # The space map of the snapshots, with the copy of the first among them.
  "$provider" subvolume size -m --space-map "$maps/$name" "$M"/s* "$M/restored" >/dev/null
  umount "$M"
  "$maker" "$whole/$name" "$blocks" "$work/$name.img"
}

new_fs tiny 4 2
new_fs files 40 1

# Chunk items of striped, mirrored and parity layouts over four devices.
for d in 1 2 3 4; do truncate -s 300M "$work/raid$d.img"; done
mkfs.btrfs -q -f -n 4096 -s 4096 -m raid10 -d raid6 "$work"/raid{1,2,3,4}.img
"$maker" "$whole/raid" "$blocks" "$work"/raid{1,2,3,4}.img

# Single blocks: those of the small file systems, and the first of the
# larger one (chunk tree, root tree, a node and leaves) are variety enough.
find "$blocks" -name 'files-*' | awk -F- '$NF >= 8' | xargs -r rm -f
