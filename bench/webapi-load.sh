#!/usr/bin/env bash
# Load on the web API host, before and after, side by side in one run: wrk
# with CONNECTIONS connections for DURATION against "status" and
# "get_report" in turn, as a logged-in administrator, with WORKERS workers
# on loopback, first on the host of a baseline build, then on this build's,
# ROUNDS times in turn. Each host runs with its own build's modules and
# makes its own finished calculation over the share's 8 snapshots (real
# size provider) first, so get_report reads a real report. Prints, per
# run and as medians, requests per second, latency (p50, p99, max) and
# errors (socket errors, HTTP statuses other than 200, answers that are not
# a success), and the change in requests per second.
#
# The baseline: BASELINE_BUILD, a build tree of an older version; or else
# the commit BASELINE_REV (default d8759fa, the host before its split into
# HTTP workers and executors), checked out with `git worktree` and built
# (host and modules only) into BASELINE_CACHE/baseline-REV, kept for later
# runs.
#
# Needs root. Runs in the test sandbox of the build tree (private /run,
# /usr/local and /volume1) with a private /etc for its throwaway accounts,
# so the machine keeps nothing of it.
#
# Environment: BUILD (build tree, default ./build), DURATION=30s,
# CONNECTIONS=64, WORKERS=4, THREADS=2, ROUNDS=1, PORT=5081, HOST_FLAGS
# (more vela-webapid flags for this build's host; the defaults otherwise).
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
src=$(cd "$here/.." && pwd)
BUILD=$(readlink -f "${BUILD:-$src/build}")
DURATION=${DURATION:-30s}
CONNECTIONS=${CONNECTIONS:-64}
WORKERS=${WORKERS:-4}
THREADS=${THREADS:-2}
ROUNDS=${ROUNDS:-1}
PORT=${PORT:-5081}
BASELINE_REV=${BASELINE_REV:-d8759fa}
BASELINE_CACHE=${BASELINE_CACHE:-/var/cache/vela-bench}

if [ -z "${VELA_SANDBOX:-}" ]; then
  [ "$(id -u)" -eq 0 ] || { echo "webapi-load: needs root (mounts, accounts)" >&2; exit 1; }
  for tool in wrk curl jq mkfs.btrfs git; do
    command -v "$tool" >/dev/null || { echo "webapi-load: $tool is missing (scripts/setup-deps.sh)" >&2; exit 1; }
  done
  for built in tests/support/vela-sandbox tools/vela-webapid/vela-webapid tools/vela-btrfs/vela-btrfs; do
    [ -x "$BUILD/$built" ] || { echo "webapi-load: $BUILD/$built is missing: build first" >&2; exit 1; }
  done
  if [ -z "${BASELINE_BUILD:-}" ]; then
    BASELINE_BUILD=$BASELINE_CACHE/baseline-$BASELINE_REV
    if [ ! -x "$BASELINE_BUILD/tools/vela-webapid/vela-webapid" ]; then
      echo "== building the baseline host of $BASELINE_REV in $BASELINE_BUILD"
      mkdir -p "$BASELINE_CACHE"
      tree=$(mktemp -d)
      git -C "$src" worktree add --detach "$tree/src" "$BASELINE_REV" >/dev/null
      # Same settings as this build, so both hosts differ only in their code.
      cmake -S "$tree/src" -B "$BASELINE_BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELA_BUILD_TESTS=OFF \
        -DVELA_BTRFS_TOOL="$(sed -n 's/^VELA_BTRFS_TOOL:STRING=//p' "$BUILD/CMakeCache.txt")" >/dev/null
      cmake --build "$BASELINE_BUILD" -j "$(nproc)" --target vela-webapid velasnapusagewebapi velastoragewebapi >/dev/null
      git -C "$src" worktree remove --force "$tree/src"
      rm -rf "$tree"
    fi
  fi
  BASELINE_BUILD=$(readlink -f "$BASELINE_BUILD")
  tool=$(sed -n 's/^VELA_BTRFS_TOOL:STRING=//p' "$BUILD/CMakeCache.txt")
  exec "$BUILD/tests/support/vela-sandbox" --bind "$BUILD/tools/vela-btrfs/vela-btrfs:$tool" -- \
    env BUILD="$BUILD" BASELINE_BUILD="$BASELINE_BUILD" DURATION="$DURATION" CONNECTIONS="$CONNECTIONS" \
    WORKERS="$WORKERS" THREADS="$THREADS" ROUNDS="$ROUNDS" PORT="$PORT" HOST_FLAGS="${HOST_FLAGS:-}" bash "$0"
fi

# From here on, inside the sandbox. The work directory is under /run (the
# sandbox's own, root's alone): the host loads modules only from
# directories nobody else may write to.
work=$(mktemp -d /run/webapi-load.XXXXXX)
chmod 755 "$work"
host=""
cleanup() {
  if [ -n "$host" ]; then kill -TERM "$host" 2>/dev/null && wait "$host" 2>/dev/null || true; fi
  mountpoint -q /volume1 && umount /volume1
  rm -rf "$work"
}
trap cleanup EXIT

mkdir -p "$work/etc-upper" "$work/etc-work"
mount -t overlay overlay -o "lowerdir=/etc,upperdir=$work/etc-upper,workdir=$work/etc-work" /etc
for user in "$(sed -n 's/^VELA_WEBAPID_USER:STRING=//p' "$BUILD/CMakeCache.txt")" \
            "$(sed -n 's/^VELA_WEBAPID_HTTP_USER:STRING=//p' "$BUILD/CMakeCache.txt")"; do
  "$src/tools/vela-webapid/create-service-account.sh" "$user"
done
groupadd benchadmins
useradd --no-create-home --shell /usr/sbin/nologin --groups benchadmins benchadmin
password=$(head -c 12 /dev/urandom | base64)
echo "benchadmin:$password" | chpasswd
cp "$src/tools/vela-webapid/vela-webapid.pam" /etc/pam.d/vela-webapid

truncate -s 1G "$work/volume1.img"
mkfs.btrfs -q "$work/volume1.img"
mount -o loop "$work/volume1.img" /volume1
share=bench
"$BUILD/tools/vela-share/vela-share" create 1 "$share" >/dev/null
now=$(date +%s)
for i in $(seq 1 8); do
  head -c $((i * 1024 * 1024)) /dev/urandom >"/volume1/$share/file-$i.bin"
  [ "$i" -gt 2 ] && rm -f "/volume1/$share/file-$((i - 2)).bin"
  sync
  "$BUILD/tools/vela-share/vela-share" snapshot "$share" >/dev/null
done

# run NAME BUILD_TREE FLAGS...: one host, its calculation, one wrk run;
# appends "NAME figures..." to $work/results.
run() {
  local name=$1 tree=$2
  shift 2
  local modules=$work/modules-$name
  rm -rf "$modules" /run/velabtrfssnapusage /run/lock/velabtrfssnapusage /usr/local/velabtrfssnapusage
  mkdir -m 755 "$modules"
  install -m 644 "$tree/src/libvelasnapusagewebapi.so" "$tree/modules/storage/libvelastoragewebapi.so" "$modules/"
  mkdir -p -m 700 "$work/state-$name"
  "$tree/tools/vela-webapid/vela-webapid" --config /dev/null --listen "127.0.0.1:$PORT" --workers "$WORKERS" \
    --admin-group benchadmins --modules-dir "$modules" --web-dir "$src/web" "$@" 2>"$work/host-$name.log" &
  host=$!
  local url=http://127.0.0.1:$PORT
  for _ in $(seq 1 100); do curl -s -o /dev/null "$url/" && break; sleep 0.1; done
  local login csrf cookie
  login=$(curl -s -c "$work/cookies" --data "{\"user\":\"benchadmin\",\"password\":\"$password\"}" "$url/auth/login")
  csrf=$(jq -r .data.csrf_token <<<"$login")
  cookie="vela_session=$(awk '$6 == "vela_session" { print $7 }' "$work/cookies")"
  [ "$csrf" != null ] || { echo "webapi-load: cannot log in to $name: $login" >&2; cat "$work/host-$name.log" >&2; exit 1; }
  api() {
    curl -s -H "Cookie: $cookie" -H "X-Vela-CSRF: $csrf" --data "$2" "$url/api/VELA.Snap.Usage.Share/1/$1"
  }
  api start "{\"share_name\":\"$share\",\"range\":{\"range_start\":1,\"range_end\":$((now + 60))}}" >/dev/null
  for _ in $(seq 1 300); do
    api status '{}' | grep -q '"status":"done"' && break
    sleep 0.2
  done
  local rows
  rows=$(api get_report "{\"share_name\":\"$share\"}" | jq '.data.snap_list | length')
  [ "$rows" = 8 ] || { echo "webapi-load: $name: the calculation did not give a report of 8 rows" >&2; exit 1; }
  echo "== $name: wrk, $WORKERS workers, $CONNECTIONS connections, $THREADS threads, $DURATION; status and get_report (8 snapshots) in turn"
  VELA_COOKIE=$cookie VELA_CSRF=$csrf VELA_SHARE=$share \
    wrk --threads "$THREADS" --connections "$CONNECTIONS" --duration "$DURATION" --timeout 5s \
    --script "$here/webapi-load.lua" "$url" | sed -n '/^requests:/,$p' | tee "$work/wrk.out" | grep -v '^figures:'
  echo "$name $(sed -n 's/^figures: //p' "$work/wrk.out")" >>"$work/results"
  kill -TERM "$host"
  wait "$host" || true
  host=""
  # What the host says about connections it refused or cut, and processes
  # that ended otherwise than planned, explains errors.
  grep -E "refused a connection|closed a connection|killed by|exited with status|forbids" "$work/host-$name.log" |
    sed 's/^[^:]*: //; s/[0-9][0-9.]*/N/g' | sort | uniq -c | sed 's/^/  host log: /' || true
}

for round in $(seq 1 "$ROUNDS"); do
  run before "$BASELINE_BUILD"
  # wrk is one client with CONNECTIONS connections from one address; the
  # host allows fewer from one address by default.
  run after "$BUILD" --state-dir "$work/state-after" --max-connections-per-address $((2 * CONNECTIONS)) ${HOST_FLAGS}
done

echo
echo "== side by side (medians of $ROUNDS rounds)"
awk '
  { rps[$1] = rps[$1] " " $2; p50[$1] = p50[$1] " " $3; p99[$1] = p99[$1] " " $4; mx[$1] = mx[$1] " " $5
    err[$1] += $6; req[$1] += $7 }
  function median(list,   n, v, i, j, t) {
    n = split(list, v, " ")
    for (i = 1; i <= n; i++) for (j = i + 1; j <= n; j++) if (v[j] + 0 < v[i] + 0) { t = v[i]; v[i] = v[j]; v[j] = t }
    return n % 2 ? v[(n + 1) / 2] : (v[n / 2] + v[n / 2 + 1]) / 2
  }
  END {
    printf "%-8s %14s %10s %10s %10s %16s\n", "host", "requests/s", "p50 ms", "p99 ms", "max ms", "errors"
    for (k = 0; k < 2; k++) {
      h = k == 0 ? "before" : "after"
      printf "%-8s %14.0f %10.2f %10.2f %10.2f %16s\n", h, median(rps[h]), median(p50[h]), median(p99[h]),
             median(mx[h]), err[h] " of " req[h]
    }
    printf "change in requests per second: %+.1f%%\n", 100 * (median(rps["after"]) / median(rps["before"]) - 1)
  }' "$work/results"
