#!/usr/bin/env bash
# The main job: installs what is needed, builds and installs the project,
# then asks the installed module for the reminder setting through the
# request runner, as the web server would.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)"
cmake --install build >/dev/null

set -x
velawebapi-call VELA.Snap.Usage.Share 1 get_conf '{"additional":["reminder"]}'
