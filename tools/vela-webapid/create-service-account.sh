#!/bin/sh
# Creates a system account of the web API host (its executors' velaweb, its
# HTTP workers' velahttp), and its group of the same name, unless they
# exist: no login, no home, no other group. Run by `cmake --install`.
set -eu
name=$1
if ! getent group "$name" >/dev/null; then
  groupadd --system "$name"
fi
if ! getent passwd "$name" >/dev/null; then
  useradd --system --gid "$name" --no-create-home --home-dir /nonexistent \
    --shell /usr/sbin/nologin --comment "vela-webapid $name" "$name"
fi
