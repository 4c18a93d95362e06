#!/usr/bin/env bash
# cmake --install puts the library, libfrio, the launcher, the header and
# the pkg-config file where users look, and the installed launcher runs a
# program under the installed library.
set -euo pipefail
build=${OSTREL_BUILD:-build}
prefix=$(mktemp -d /tmp/ostrel-install.XXXXXX)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
fail() { echo "FAIL: $*" >&2; exit 1; }

lib=$(find "$prefix" -name ostrel.so.1)
[ -n "$lib" ] || fail "no ostrel.so.1 installed"
[ -n "$(find "$prefix" -name 'libfrio.so.1*')" ] || fail "no libfrio.so.1"
[ -f "$prefix/include/ostrel.h" ] || fail "no ostrel.h"
[ -x "$prefix/bin/ostrel" ] || fail "no launcher"
pc=$(find "$prefix" -name ostrel.pc)
[ -n "$pc" ] || fail "no ostrel.pc"
preload=$(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --define-prefix \
  --variable=preload ostrel 2>/dev/null ||
  PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --variable=preload ostrel)
[ "$(readlink -f "$preload")" = "$(readlink -f "$lib")" ] ||
  fail "pkg-config says $preload, installed $lib"

# The launcher preloads the installed library into the program.
maps=$("$prefix/bin/ostrel" -- sh -c 'cat /proc/$$/maps')
grep -q "$(readlink -f "$lib")" <<<"$maps" || fail "launcher did not preload $lib"
# And says why when it cannot.
mv "$lib" "$lib.gone"
if out=$("$prefix/bin/ostrel" -- /bin/true 2>&1); then fail "ran without the library"; fi
grep -q "cannot read" <<<"$out" || fail "launcher said '$out'"
echo "install: passed"
