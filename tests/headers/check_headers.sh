#!/usr/bin/env bash
# Every public header compiles on its own, first in its translation unit, as every C and
# C++ standard we support, warning-free under -pedantic, with both compilers.
#   check_headers.sh "INCLUDE_DIRS" C_HEADER... -- CXX_ONLY_HEADER...
set -uo pipefail
includes=()
for d in $1; do includes+=("-I$d"); done
shift
c_headers=() cxx_headers=()
while [ $# -gt 0 ]; do
  [ "$1" = "--" ] && { shift; cxx_headers=("$@"); break; }
  c_headers+=("$1"); shift
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0 checked=0
compile() {  # compiler std lang header
  local src="$work/t.$3"
  printf '#include "%s"\n' "$4" > "$src"
  if ! "$1" "${includes[@]}" -std="$2" -Wall -Wextra -pedantic -Werror -fsyntax-only "$src" > "$work/log" 2>&1; then
    echo "FAIL: $4 with $1 -std=$2"; head -5 "$work/log"; failed=$((failed + 1))
  fi
  checked=$((checked + 1))
}
for cc in gcc clang; do
  command -v "$cc" > /dev/null || { echo "FAIL: $cc not installed"; failed=$((failed + 1)); continue; }
  for h in "${c_headers[@]}"; do
    for std in c99 c11 c17; do compile "$cc" "$std" c "$h"; done
  done
done
for cxx in g++ clang++; do
  command -v "$cxx" > /dev/null || { echo "FAIL: $cxx not installed"; failed=$((failed + 1)); continue; }
  for h in "${c_headers[@]}" "${cxx_headers[@]}"; do
    for std in c++17 c++20; do compile "$cxx" "$std" cc "$h"; done
  done
done
echo "$checked header compilations, $failed failed"
[ "$failed" -eq 0 ]
