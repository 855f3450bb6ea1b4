#!/bin/sh
# The channel demo end to end: the host exits 0 after 14 answers, the text it printed for
# them is what `bix-ipc decode` makes of the bytes it received, and the recorder holds
# one record per answer.
#   demo_decode.sh HOST_MANAGER BIX_IPC
set -eu
host=$1
tool=$2
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
"$host" --out "$dir" >"$dir/stdout"
grep -q '^host: 14 answers decoded; card simulator exited cleanly$' "$dir/stdout"
# The host's output without its own lines is the message texts alone.
grep -v -e '^host: ' -e '^== answer ' -e '^$' "$dir/stdout" | cmp - "$dir/received.txt"
"$tool" decode "$dir/received.bin" | cmp - "$dir/received.txt"
test "$(grep -c '^<bix_ipc_shim timestamp="' "$dir/recording.xml")" -eq 14
test "$(grep -c '^</bix_ipc_shim>$' "$dir/recording.xml")" -eq 14
"$tool" annotate "$dir/received.bin" >/dev/null
echo "demo decoded by the tool: 14 answers, identical text"
