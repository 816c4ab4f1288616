#!/bin/sh
# Creates the system account the web API host's workers run as, and its
# group of the same name, unless they exist. Run by `cmake --install`.
set -eu
name=$1
if ! getent group "$name" >/dev/null; then
  groupadd --system "$name"
fi
if ! getent passwd "$name" >/dev/null; then
  useradd --system --gid "$name" --no-create-home --home-dir /nonexistent \
    --shell /usr/sbin/nologin --comment "vela-webapid workers" "$name"
fi
