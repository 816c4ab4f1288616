#!/usr/bin/env bash
# Figures of the module under contention and faults, through velawebapi-call
# as the web server would call it, on a loopback volume with the real size
# provider:
#   - concurrent starts of one share while a calculation runs (the size
#     tool is slowed down by 3 s so that every start meets it): how many are
#     let through, and how many calculations ever run at once;
#   - request processes killed with SIGKILL at random moments: whether every
#     state file still parses and every method still answers;
#   - corrupt state files of every kind: what each method answers.
# It runs in the test sandbox (private /run, /usr/local and /volumeN), so the
# machine's own state is never touched. Needs root and a build tree.
#
#   bench/module-robustness.sh [BUILD_DIR]     (default: build)
# Environment: STARTERS (default 50), ROUNDS (5), KILLS (300).
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:-build}")
provider=$(grep -E '^VELA_BTRFS_TOOL:' "$build/CMakeCache.txt" | cut -d= -f2)
if [ -z "${VELA_SANDBOX:-}" ]; then
  exec "$build/tests/support/vela-sandbox" --bind "$build/tools/vela-btrfs/vela-btrfs:$provider" -- "$0" "$build"
fi

starters=${STARTERS:-50}
rounds=${ROUNDS:-5}
kills=${KILLS:-300}
call() { "$build/tools/velawebapi-call/velawebapi-call" VELA.Snap.Usage.Share 1 "$@"; }
share() { "$build/tools/vela-share/vela-share" "$@"; }
work=$(mktemp -d)
trap 'umount /volume1 2>/dev/null || true; rm -rf "$work"' EXIT

truncate -s 1G "$work/volume1.img"
mkfs.btrfs -q "$work/volume1.img" >/dev/null
mount -o loop "$work/volume1.img" /volume1
share create 1 demo >/dev/null
for i in 1 2 3 4 5; do
  head -c 4M /dev/urandom >"/volume1/demo/f$i"
  share snapshot demo >/dev/null
done
start='{"share_name":"demo","range":{"range_start":1,"range_end":1}}'
wait_end() {
  for _ in $(seq 1 400); do
    state=$(jq -r '.status // empty' /usr/local/velabtrfssnapusage/share_task_status/demo 2>/dev/null || true)
    case $state in ready | process | "") sleep 0.05 ;; *) echo "$state"; return ;; esac
  done
  echo "timeout"
}

echo "== $starters concurrent starts of one share, $rounds rounds"
cp "$provider" "$work/provider"
printf '#!/bin/sh\nsleep 3\nexec %s "$@"\n' "$work/provider" >"$work/slow-tool"
chmod 755 "$work/slow-tool"
mount --bind "$work/slow-tool" "$provider"
for round in $(seq 1 "$rounds"); do
  call clean '{"share_name":"demo"}' >/dev/null
  for i in $(seq 1 "$starters"); do call start "$start" >"$work/start.$i" 2>&1 & done
  # Each calculation runs one slowed-down size tool: count them while the
  # starts come in.
  most=0
  for _ in $(seq 1 20); do
    n=$({ pgrep -f 'sleep 3' || true; } | wc -l)
    [ "$n" -gt "$most" ] && most=$n
    sleep 0.1
  done
  wait
  ok=$(grep -l '"success":true' "$work"/start.* | wc -l)
  busy=$(grep -l '"code":5002' "$work"/start.* | wc -l)
  echo "round $round: $ok started, $busy answered 5002, $((starters - ok - busy)) other; at most $most size tool(s) at once; ended $(wait_end)"
done
umount "$provider"

echo "== $kills request processes killed at random moments"
methods=(start clean cancel set_conf status get_report)
params=("$start" '{"share_name":"demo"}' '{"share_name":"demo"}' '{"reminder":false}' '{"additional":["processed_in_bytes"]}' '{"share_name":"demo"}')
for k in $(seq 1 "$kills"); do
  m=$((RANDOM % ${#methods[@]}))
  call "${methods[$m]}" "${params[$m]}" >/dev/null 2>&1 &
  victim=$!
  sleep "0.00$((RANDOM % 10))$((RANDOM % 10))"
  kill -9 "$victim" 2>/dev/null || true
  wait "$victim" 2>/dev/null || true
done
sleep 1
bad=0
while IFS= read -r -d '' f; do
  jq -e . "$f" >/dev/null 2>&1 || { echo "unparsable: $f"; bad=$((bad + 1)); }
done < <(find /usr/local/velabtrfssnapusage /run/velabtrfssnapusage -type f ! -name '*.result' ! -name '*.subvol_id' -print0)
leftover=$(find /usr/local/velabtrfssnapusage /run/velabtrfssnapusage -name '.*.tmp' | wc -l)
echo "unparsable state files: $bad; temporary files left: $leftover"
for m in status get_conf; do echo "$m: $(call $m '{"additional":["reminder"]}' || true)"; done
call cancel '{"share_name":"demo"}' >/dev/null || true
wait_end >/dev/null
echo "start after the kills: $(call start "$start" || true), ended $(wait_end)"

echo "== corrupt state files"
map=/usr/local/velabtrfssnapusage/share_snap_cal_map
status=/usr/local/velabtrfssnapusage/share_task_status/demo
reminder=/usr/local/velabtrfssnapusage/reminder_record
deep=$(printf '[%.0s' $(seq 1 100))1$(printf ']%.0s' $(seq 1 100))
corrupt() {  # FILE KIND
  rm -f "$1"
  case $2 in
    empty) : >"$1" ;;
    truncated) printf '{"demo":{"task_id":"' >"$1" ;;
    binary) head -c 512 /dev/urandom >"$1" ;;
    deep) printf '{"demo":%s}' "$deep" >"$1" ;;
    fifo) mkfifo "$1" ;;
    symlink) ln -s /etc/passwd "$1" ;;
    numbers) printf '{"status":"done","processed_in_bytes":"12abc","estimated_in_bytes":"-1","pid":"x"}' >"$1" ;;
    badid) printf '{"demo":{"task_id":"../../../etc/passwd","time":0,"snap_list":null}}' >"$1" ;;
  esac
}
call start "$start" >/dev/null; wait_end >/dev/null
cp -a $map "$work/map.good"; cp -a $status "$work/status.good"; call set_conf '{"reminder":true}' >/dev/null
printf '%-10s %-10s %-28s %-28s %-28s\n' FILE KIND status get_report get_conf
for target in map status reminder; do
  file=${!target}
  for kind in empty truncated binary deep fifo symlink numbers badid; do
    corrupt "$file" "$kind"
    s=$(timeout 10 "$build/tools/velawebapi-call/velawebapi-call" VELA.Snap.Usage.Share 1 status '{"additional":["processed_in_bytes","estimated_in_bytes"]}'; echo " exit=$?")
    r=$(timeout 10 "$build/tools/velawebapi-call/velawebapi-call" VELA.Snap.Usage.Share 1 get_report '{"share_name":"demo"}' | cut -c1-40; echo " exit=${PIPESTATUS[0]}")
    g=$(timeout 10 "$build/tools/velawebapi-call/velawebapi-call" VELA.Snap.Usage.Share 1 get_conf '{"additional":["reminder"]}'; echo " exit=$?")
    printf '%-10s %-10s %-28s %-28s %-28s\n' "$target" "$kind" "$(tr -d '\n' <<<"$s" | cut -c1-60)" "$(tr -d '\n' <<<"$r")" "$(tr -d '\n' <<<"$g")"
    rm -f "$file"
  done
  cp -a "$work/map.good" $map; cp -a "$work/status.good" $status; call set_conf '{"reminder":true}' >/dev/null
done
echo "start after the corruptions: $(call start "$start" || true), ended $(wait_end)"
