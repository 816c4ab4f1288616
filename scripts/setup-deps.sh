#!/usr/bin/env bash
# Installs every Debian package the project needs to build, test and run.
# Idempotent: asks apt only when a package is missing. Needs root.
set -euo pipefail

packages=(
  build-essential      # g++ and make
  cmake                # build system
  pkg-config
  libjsoncpp-dev       # JSON documents: every state file, request and answer
  googletest libgtest-dev libgmock-dev   # unit and integration tests
  uuid-runtime         # /usr/bin/uuidgen, source of task IDs
  btrfs-progs          # mkfs.btrfs and btrfs for test volumes and cross-checks
  libbtrfsutil-dev     # subvolume and snapshot work of the platform layer
  tzdata               # zone files for local-time snapshot names
  util-linux           # mount, losetup, unshare
  jq                   # the main job reads the module's JSON answers
  libxxhash-dev        # xxhash64 tree block checksums in the size provider
  libgcrypt20-dev      # sha256 and blake2b tree block checksums in the size provider
  libsqlite3-dev       # the space map's file (platform layer); the tests craft damaged maps with it
  nettle-dev           # SHA-256 in the names of files named after names too long to be file names
  time                 # /usr/bin/time -v: the size provider's peak memory in bench/size-provider-bench.sh
  libmicrohttpd-dev    # HTTP server of vela-webapid (Debian builds it with GnuTLS: HTTPS)
  libgnutls28-dev      # vela-webapid: TLS through libmicrohttpd, SHA-256 of session IDs
  libpam0g-dev         # vela-webapid: logins through PAM
  libseccomp-dev       # vela-webapid: the system call filter of its HTTP workers
  passwd               # useradd, groupadd, chpasswd: the service account, throwaway test accounts
  curl                 # the host tests' HTTPS requests; the load benchmark's login
  openssl              # the host tests' throwaway TLS certificate
  wrk                  # bench/webapi-load.sh: load on the web API host
  strace               # bench/module-scale.sh: what one request costs in system calls
  chromium             # the page test: headless Debian Chromium driven by playwright-core
  clang libclang-rt-dev  # fuzz targets: clang with libFuzzer and the sanitizer runtimes (scripts/fuzz.sh)
)
# Node.js and npm for the page test (playwright-core from its lock file):
# Debian's, unless the machine has its own already.
command -v npm >/dev/null 2>&1 || packages+=(nodejs npm)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ "${#missing[@]}" -eq 0 ]; then
  exit 0
fi
if [ "$(id -u)" -ne 0 ]; then
  echo "setup-deps: packages missing (${missing[*]}); run as root to install them" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq </dev/null
apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
