#!/usr/bin/env bash
# Load on the web API host: wrk with CONNECTIONS connections for DURATION
# against "status" and "get_report" in turn, as a logged-in administrator,
# with WORKERS workers on loopback. The share has a finished calculation
# over its snapshots (real size provider), so get_report reads a real
# report. Prints requests per second, latency (p50, p99, max) and errors
# (socket errors, HTTP statuses other than 200, answers that are not a
# success).
#
# Needs root. Runs in the test sandbox of the build tree (private /run,
# /usr/local and /volume1) with a private /etc for its throwaway accounts,
# so the machine keeps nothing of it.
#
# Environment: BUILD (build tree, default ./build), DURATION=30s,
# CONNECTIONS=64, WORKERS=4, THREADS=2, PORT=5081, HOST_FLAGS (more
# vela-webapid flags; the defaults otherwise).
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
BUILD=$(readlink -f "${BUILD:-$here/../build}")
DURATION=${DURATION:-30s}
CONNECTIONS=${CONNECTIONS:-64}
WORKERS=${WORKERS:-4}
THREADS=${THREADS:-2}
PORT=${PORT:-5081}

if [ -z "${VELA_SANDBOX:-}" ]; then
  [ "$(id -u)" -eq 0 ] || { echo "webapi-load: needs root (mounts, accounts)" >&2; exit 1; }
  for tool in wrk curl jq mkfs.btrfs; do
    command -v "$tool" >/dev/null || { echo "webapi-load: $tool is missing (scripts/setup-deps.sh)" >&2; exit 1; }
  done
  for built in tests/support/vela-sandbox tools/vela-webapid/vela-webapid tools/vela-btrfs/vela-btrfs; do
    [ -x "$BUILD/$built" ] || { echo "webapi-load: $BUILD/$built is missing: build first" >&2; exit 1; }
  done
  tool=$(sed -n 's/^VELA_BTRFS_TOOL:STRING=//p' "$BUILD/CMakeCache.txt")
  exec "$BUILD/tests/support/vela-sandbox" --bind "$BUILD/tools/vela-btrfs/vela-btrfs:$tool" -- \
    env BUILD="$BUILD" DURATION="$DURATION" CONNECTIONS="$CONNECTIONS" WORKERS="$WORKERS" THREADS="$THREADS" \
    PORT="$PORT" HOST_FLAGS="${HOST_FLAGS:-}" bash "$0"
fi

# From here on, inside the sandbox.
work=$(mktemp -d)
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
src=$here/..
user=$(sed -n 's/^VELA_WEBAPID_USER:STRING=//p' "$BUILD/CMakeCache.txt")
"$src/tools/vela-webapid/create-service-account.sh" "$user"
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

mkdir -p "$work/modules"
ln -s "$BUILD/src/libvelasnapusagewebapi.so" "$BUILD/modules/storage/libvelastoragewebapi.so" "$work/modules/"
"$BUILD/tools/vela-webapid/vela-webapid" --config /dev/null --listen "127.0.0.1:$PORT" --workers "$WORKERS" \
  --admin-group benchadmins --modules-dir "$work/modules" --web-dir "$src/web" ${HOST_FLAGS} 2>"$work/host.log" &
host=$!
for _ in $(seq 1 100); do curl -s -o /dev/null "http://127.0.0.1:$PORT/" && break; sleep 0.1; done

url=http://127.0.0.1:$PORT
login=$(curl -s -c "$work/cookies" --data "{\"user\":\"benchadmin\",\"password\":\"$password\"}" "$url/auth/login")
csrf=$(jq -r .data.csrf_token <<<"$login")
cookie="vela_session=$(awk '$6 == "vela_session" { print $7 }' "$work/cookies")"
[ "$csrf" != null ] || { echo "webapi-load: cannot log in: $login" >&2; cat "$work/host.log" >&2; exit 1; }
api() {
  curl -s -H "Cookie: $cookie" -H "X-Vela-CSRF: $csrf" --data "$2" "$url/api/VELA.Snap.Usage.Share/1/$1"
}
api start "{\"share_name\":\"$share\",\"range\":{\"range_start\":1,\"range_end\":$((now + 60))}}" >/dev/null
for _ in $(seq 1 300); do
  api status '{}' | grep -q '"status":"done"' && break
  sleep 0.2
done
rows=$(api get_report "{\"share_name\":\"$share\"}" | jq '.data.snap_list | length')
[ "$rows" = 8 ] || { echo "webapi-load: the calculation did not give a report of 8 rows" >&2; exit 1; }

echo "== wrk: $WORKERS workers, $CONNECTIONS connections, $THREADS threads, $DURATION; status and get_report (8 snapshots) in turn"
VELA_COOKIE=$cookie VELA_CSRF=$csrf VELA_SHARE=$share \
  wrk --threads "$THREADS" --connections "$CONNECTIONS" --duration "$DURATION" --timeout 5s \
  --script "$here/webapi-load.lua" "$url" | sed -n '/^requests:/,$p'
