#!/usr/bin/env bash
# Checks that the layers point one way: base/ uses nothing of the project;
# platform/ uses base/; the module's library (src/) uses platform/ and
# base/; the space module (modules/space) uses the calculation library's
# public headers and library besides; the tools, the host and the other
# modules use platform/ and base/ but not the calculation library; and only
# velawebapi-call and the host load modules. Reads every #include "..." of the sources, the shared
# libraries each built program and library needs (readelf), and who calls
# dlopen(). Prints each wrong way and exits 1 when there is one.
#
#   scripts/check-layers.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
top=$(cd "$1" && pwd)
build=$2
status=0

wrong() {
  echo "layers: $*" >&2
  status=1
}

# check_includes PART ROOT...: every quoted include of PART's sources must
# be a file under one of the roots, "base/..." under the top included; "."
# is the including file's folder, "own" the top folder of its program or
# module (tools/NAME, modules/NAME), where a program may lay out its parts.
check_includes() {
  local part=$1
  shift
  local file header root found
  while IFS= read -r file; do
    while IFS= read -r header; do
      found=no
      for root in "$@"; do
        if [ "$root" = base ]; then
          [[ $header == base/* ]] && [ -f "$top/$header" ] && found=yes
        elif [ "$root" = . ]; then
          [ -f "$(dirname "$file")/$header" ] && found=yes
        elif [ "$root" = own ]; then
          local rel=${file#"$top"/}
          [ -f "$top/$(cut -d/ -f1-2 <<<"$rel")/$header" ] && found=yes
        else
          [ -f "$top/$root/$header" ] && found=yes
        fi
      done
      [ $found = yes ] || wrong "${file#"$top"/} includes \"$header\", which $part may not use"
    done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
  done < <(find "$top/$part" -name '*.h' -o -name '*.cc' -o -name '*.c')
}

check_includes base base
check_includes platform base platform/include .
check_includes src base platform/include src/include src .
check_includes tools base platform/include . own
for module in "$top"/modules/*/; do
  module=modules/$(basename "$module")
  if [ "$module" = modules/space ]; then
    check_includes "$module" base platform/include src/include . own
  else
    check_includes "$module" base platform/include . own
  fi
done

# needs FILE LIBRARY...: FILE must need none of the libraries.
needs_none() {
  local file=$1
  shift
  [ -f "$file" ] || { wrong "${file#"$build"/} is not built"; return; }
  local needed
  needed=$(readelf -d "$file" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
  for lib in "$@"; do
    if grep -qx "$lib" <<<"$needed"; then wrong "${file#"$build"/} links $lib"; fi
  done
}

calc=libvelabtrfssnapusage.so
module=libvelasnapusagewebapi.so
needs_none "$build/platform/libvelaplatform.so" "$calc" "$module"
needs_none "$build/src/$calc" "$module"
for program in velawebapi-call vela-share vela-btrfs vela-webapid; do
  needs_none "$build/tools/$program/$program" "$calc" "$module"
done
while IFS= read -r library; do
  if [[ $library == "$build/modules/space/"* ]]; then
    needs_none "$library" "$module"
  else
    needs_none "$library" "$calc" "$module"
  fi
done < <(find "$build/modules" -name '*.so')

# Only the request runner and the host load modules: dlopen() is the
# platform's module loader's alone, and only they use that loader.
while IFS= read -r file; do
  case ${file#"$top"/} in
    platform/webapi_modules.cc) ;;
    *) wrong "${file#"$top"/} loads a module (dlopen); only the platform's module loader may" ;;
  esac
done < <(grep -rlE '\bdlopen[[:space:]]*\(' "$top/base" "$top/platform" "$top/src" "$top/tools" "$top/modules" || true)
while IFS= read -r file; do
  case ${file#"$top"/} in
    platform/webapi_modules.cc | tools/velawebapi-call/* | tools/vela-webapid/*) ;;
    *) wrong "${file#"$top"/} uses the module loader; only velawebapi-call and the host may" ;;
  esac
done < <(grep -rl '"vela/webapi_modules.h"' "$top/base" "$top/platform" "$top/src" "$top/tools" "$top/modules" || true)

[ $status -eq 0 ] && echo "layers: every include, link and module load points the right way"
exit $status
