#!/bin/bash
# The real size provider, its output handed on as the page test wants: at
# once; line by line a little apart, so that a person (or a browser test)
# can watch a calculation of a tiny test volume go on and cancel it; or cut
# short after two lines, as a provider that fails half way. The size tool
# runs with an environment of its own, so the test puts what it says at
# fixed places of its sandbox: the provider, and a file holding the seconds
# between lines, or "fail".
set -o pipefail
provider=/run/vela-test/size-provider
pace=$(cat /run/vela-test/pace 2>/dev/null)
case "$pace" in
  '' | 0) exec "$provider" "$@" ;;
  fail) "$provider" "$@" | head -n 2; exit ;;
esac
"$provider" "$@" | while IFS= read -r line; do
  printf '%s\n' "$line"
  sleep "$pace"
done
