#!/bin/bash
# The real size provider with its output lines handed on one by one, a
# little apart, so that a person (or a browser test) can watch a
# calculation of a tiny test volume go on and cancel it before it ends.
# VELA_TEST_SIZE_PROVIDER names the provider.
set -o pipefail
"$VELA_TEST_SIZE_PROVIDER" "$@" | while IFS= read -r line; do
  printf '%s\n' "$line"
  sleep 0.5
done
