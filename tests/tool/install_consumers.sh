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
# The examples a new user starts from, built against the installed package.
run_example() {  # name expected-output
  local compile=(cc -Wall -Werror "$src/examples/consumer/$1.c")
  [[ $1 == *_cpp ]] && compile=(c++ -std=c++17 -Wall -Wextra -pedantic -Werror "$src/examples/consumer/$1.cpp")
  "${compile[@]}" $(pkg-config --cflags --libs bix_ipc_shim) -Wl,-rpath,"$work/prefix/lib" -o "$work/$1"
  local got
  got=$("$work/$1") && [ "$got" = "$2" ] && [ "$("$work/cmake/$1")" = "$2" ] ||
    { printf '%s got:\n%s\n' "$1" "$got"; exit 1; }
}
run_example status_qsfp '499 bytes; selector WEX_XCVR_TYPE_QSFP; temp 38 C; rx lane 2 12150; equal 1'
run_example error_reply $'error reply: 467 bytes, rc WEX_XCVR_RPC_NO_XCVR_RC, selector WEX_XCVR_TYPE_NOSFP, error 0 (no error)\nwithout an alternative: decode error 12 (out of memory, or a length below 1 given to an encoder or decoder)'
run_example tracking $'35 bytes with state bytes; changed: src_addr 2, transaction_id 2, version 0\nafter clearing: transaction_id 0; error 0 (no error)'
run_example status_qsfp_cpp $'selector WEX_XCVR_TYPE_QSFP; temp 38 C; rx lane 2 12150; transaction 7\n586 of 586 bytes received'
test -f "$work/prefix/share/doc/bix_ipc_shim/reference.md"
test -f "$work/prefix/share/doc/bix_ipc_shim/guide.md"
echo "install consumers: 5 passed, 0 failed"
