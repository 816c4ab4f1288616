#!/usr/bin/env bash
# The main job: installs what is needed, builds and installs the project,
# then shows the whole road on this machine. It makes (or reuses) a
# loopback btrfs volume at /volume1, a share "demo" with a handful of
# snapshots whose contents change between them, starts a calculation over
# their time range through the request runner, as the web server would,
# polls its status until it ends, and prints the report, then what deleting
# any of the snapshots frees (vela-share space). Last it starts
# the web API host (systemd's unit when systemd runs, else in the
# background) and prints the address of the administrator's page and how
# to log in there.
#
# With --install-only it stops once the project is installed: on a machine
# of one's own, the next steps are "vela-share volume add /" and
# "systemctl enable --now vela-volumes vela-webapid".
#
# Environment: VELA_DEMO_IMAGE (default /var/lib/velabtrfssnapusage-demo/volume1.img),
# VELA_DEMO_SHARE (default demo).
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)"
cmake --install build >/dev/null
export PATH=/usr/local/bin:/usr/local/sbin:$PATH
if [ "${1:-}" = --install-only ]; then
  [ -d /run/systemd/system ] && systemctl daemon-reload
  echo "Installed. Next: vela-share volume add / (or any path on btrfs), then"
  echo "systemctl enable --now vela-volumes vela-webapid"
  exit 0
fi

api=VELA.Snap.Usage.Share
share=${VELA_DEMO_SHARE:-demo}
image=${VELA_DEMO_IMAGE:-/var/lib/velabtrfssnapusage-demo/volume1.img}
call() { velawebapi-call "$api" 1 "$@"; }

# The volume: reused when /volume1 already holds a btrfs file system.
if [ "$(findmnt -n -o FSTYPE /volume1 2>/dev/null)" != btrfs ]; then
  if [ ! -e "$image" ]; then
    echo "== making a 2 GiB loopback btrfs volume in $image"
    mkdir -p "$(dirname "$image")"
    truncate -s 2G "$image"
    mkfs.btrfs -q "$image" >/dev/null
  fi
  mkdir -p /volume1
  mount -o loop "$image" /volume1
  echo "== mounted $image at /volume1"
fi

# The share and its snapshots: five, a second apart, with the share's
# contents changing between them.
if ! vela-share list | cut -f1 | grep -qx "$share"; then
  echo "== creating share $share with 5 snapshots"
  vela-share create 1 "$share"
  dir=/volume1/$share
  for i in 1 2 3 4 5; do
    case $i in
      1)
        head -c 64M /dev/urandom >"$dir/base.bin"
        mkdir -p "$dir/docs"
        for f in $(seq 1 32); do head -c 1M /dev/urandom >"$dir/docs/page-$f.bin"; done
        ;;
      2) head -c 16M /dev/urandom >"$dir/docs/report-$i.bin" ;;
      3)
        # Rewriting part of a large extent frees nothing: the rest of it is
        # still in use. Deleting whole files does.
        dd if=/dev/urandom of="$dir/base.bin" bs=1M count=8 seek=10 conv=notrunc status=none
        rm -f "$dir"/docs/page-[1-8].bin
        ;;
      4) rm -f "$dir/docs/report-2.bin"; head -c 24M /dev/urandom >"$dir/video.bin" ;;
      5) cp --reflink=always "$dir/video.bin" "$dir/video-copy.bin"; head -c 4M /dev/urandom >>"$dir/base.bin" ;;
    esac
    sync
    # A snapshot's time is when it was taken: a second apart, each has its own.
    [ "$i" -gt 1 ] && sleep 1
    vela-share snapshot "$share" >/dev/null
  done
fi
echo "== snapshots of $share"
vela-share snapshots "$share"

first=$(vela-share snapshots "$share" | head -1 | cut -f2)
last=$(vela-share snapshots "$share" | tail -1 | cut -f2)
range="{\"range_start\":$((first - 1)),\"range_end\":$((last + 1))}"

echo "== start"
call clean "{\"share_name\":\"$share\"}" >/dev/null
call start "{\"share_name\":\"$share\",\"range\":$range}"

echo "== status, until the calculation ends"
seen=""
for _ in $(seq 1 600); do
  answer=$(call status '{"additional":["processed_in_bytes","estimated_in_bytes"]}')
  state=$(jq -r --arg s "$share" '.data.share_list[]? | select(.share_name == $s) | .status' <<<"$answer")
  if [ "$state" != "$seen" ] || [ "$state" = process ]; then echo "$answer"; fi
  case $state in
    done) break ;;
    fail | stop)
      echo "the calculation ended as $state:" >&2
      call get_report "{\"share_name\":\"$share\"}" >&2 || true
      exit 1
      ;;
  esac
  if [ -z "$state" ] && [ -n "$seen" ]; then
    echo "the calculation ended without a result:" >&2
    call get_report "{\"share_name\":\"$share\"}" >&2 || true
    exit 1
  fi
  seen=${state:-$seen}
  sleep 0.5
done
[ "$state" = done ] || { echo "the calculation did not end in time" >&2; exit 1; }

echo "== report"
report=$(call get_report "{\"share_name\":\"$share\"}")
{
  printf 'SNAPSHOT\tSUBVOLUME ID\tBYTES\tACCUMULATED BYTES\tFREED BY DELETING UP TO HERE\n'
  jq -r '.data.snap_list as $l | range(0; $l | length) as $i
         | [$l[$i].time, $l[$i].subvol_id,
            ($l[$i].accum_usage - (if $i == 0 then 0 else $l[$i - 1].accum_usage end)),
            $l[$i].accum_usage] | @tsv' <<<"$report" |
    while IFS=$'\t' read -r name id bytes accum; do
      printf '%s\t%s\t%s\t%s\t%s\n' "$name" "$id" "$bytes" "$accum" "$(numfmt --to=iec-i --suffix=B "$accum")"
    done
} | column -t -s $'\t'
echo
echo "$report"

# What deleting any of the snapshots frees, from the space map the same
# calculation wrote: the table, then two snapshots that are not the oldest.
echo
echo "== space: vela-share space $share"
vela-share space "$share"
mapfile -t names < <(jq -r '.data.snap_list[].time' <<<"$report")
echo "== space: vela-share space $share --if-deleted ${names[1]} ${names[2]}"
vela-share space "$share" --if-deleted "${names[1]}" "${names[2]}"

# The web API host and the administrator's page. `cmake --install` above
# put the host, its modules, the page, the PAM service and the systemd unit
# in place and made the service account.
echo
echo "== the web API host"
pidfile=/run/vela-webapid.pid
if [ -d /run/systemd/system ]; then
  systemctl daemon-reload
  systemctl enable vela-webapid >/dev/null 2>&1
  systemctl restart vela-webapid
  how_to_stop="systemctl stop vela-webapid"
else
  # No systemd here: started in the background, replacing one started so before.
  if [ -f "$pidfile" ]; then
    old=$(cat "$pidfile")
    if [ "$(readlink "/proc/$old/exe" 2>/dev/null)" = /usr/local/sbin/vela-webapid ]; then
      kill -TERM "$old"
      for _ in $(seq 1 100); do [ -e "/proc/$old" ] || break; sleep 0.1; done
    fi
  fi
  # The log is root's and the web server's group's only, whatever the umask.
  log=/var/log/vela-webapid.log
  [ -e "$log" ] || install -m 0640 -o root -g velaweb /dev/null "$log"
  chown root:velaweb "$log"
  chmod 0640 "$log"
  setsid /usr/local/sbin/vela-webapid --pid-file "$pidfile" --log-stderr yes \
    </dev/null >>"$log" 2>&1 &
  how_to_stop="kill \$(cat $pidfile)"
fi
url=http://127.0.0.1:5080/
for _ in $(seq 1 100); do curl -fs -o /dev/null "$url" && break; sleep 0.1; done
curl -fs -o /dev/null "$url" || { echo "the host did not start; see /var/log/vela-webapid.log" >&2; exit 1; }

# Members of the administrators' group (sudo) log in with their password.
# A fresh machine often has none: then an account velaadmin is made, with a
# random password kept in a file only root can read.
admin_group=sudo
admins=()
for member in $(getent group "$admin_group" | cut -d: -f4 | tr , ' '); do
  hash=$(getent shadow "$member" | cut -d: -f2)
  case $hash in '' | '!'* | '*'*) ;; *) admins+=("$member") ;; esac
done
password_file=/root/vela-webapid-admin-password
if getent passwd velaadmin >/dev/null && [ -s "$password_file" ]; then
  # Made by an earlier run; its password may have been changed since.
  login_hint="user velaadmin, password $(cat "$password_file") (kept in $password_file, unless changed since with passwd velaadmin)"
elif [ "${#admins[@]}" -eq 0 ]; then
  if ! getent passwd velaadmin >/dev/null; then
    useradd --create-home --shell /bin/bash --groups "$admin_group" --comment "administrator of the snapshot usage page" velaadmin
  fi
  usermod -aG "$admin_group" velaadmin
  install -m 600 /dev/null "$password_file"
  head -c 15 /dev/urandom | base64 | tr -d '/+=' >"$password_file"
  echo "velaadmin:$(cat "$password_file")" | chpasswd
  login_hint="user velaadmin, password $(cat "$password_file") (kept in $password_file; change it with: passwd velaadmin)"
else
  login_hint="any member of group $admin_group with a password (${admins[*]}), with that password"
fi
echo "The administrator's page: $url (the demo share: ${url}?share=$share)"
echo "Log in as $login_hint."
echo "From another machine: ssh -L 5080:127.0.0.1:5080 root@THIS-MACHINE, then open $url there."
echo "Stop the host with: $how_to_stop"
