#!/usr/bin/env bash
# Installs the build into a scratch prefix and builds the example consumer both ways a
# user would: pkg-config and find_package. Both must build, run and print the same line.
set -euo pipefail
build=$1 src=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
cc -Wall -Werror "$src/examples/consumer/presence.c" $(pkg-config --cflags --libs bix_ipc_shim) \
  -o "$work/by_pkgconfig"
cmake -S "$src/examples/consumer" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
a=$(LD_LIBRARY_PATH="$work/prefix/lib" "$work/by_pkgconfig")
b=$(LD_LIBRARY_PATH="$work/prefix/lib" "$work/cmake/presence")
want=$'12 bytes, error 0, is_present 1\nwex_xcvr_rc@wex_xcvr_rc:WEX_XCVR_SUCCESS_RC'
[ "$a" = "$want" ] && [ "$b" = "$want" ] || { printf 'got:\n%s\n%s\n' "$a" "$b"; exit 1; }
"$work/prefix/bin/bix-ipc" types | grep -qx '53 types'
echo "install consumers: 1 passed, 0 failed"
