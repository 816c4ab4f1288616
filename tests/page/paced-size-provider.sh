#!/bin/bash
# The real size provider with its output lines handed on one by one, a
# little apart, so that a person (or a browser test) can watch a
# calculation of a tiny test volume go on and cancel it before it ends.
# The test puts the provider at a fixed place of its sandbox: the size tool
# runs with an environment of its own, so nothing can be passed that way.
set -o pipefail
/run/vela-test/size-provider "$@" | while IFS= read -r line; do
  printf '%s\n' "$line"
  sleep 0.5
done
