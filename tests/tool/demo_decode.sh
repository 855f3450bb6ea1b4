#!/bin/sh
# The channel demo end to end: the host exits 0 after 14 answers, the text it printed for
# them is what `bix-ipc decode` makes of the bytes it received, and the recorder holds
# one record per answer small enough for it.
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
# Records are at most 4096 bytes: the answers whose XML fits are recorded, the host counts
# the others.
recorded=$(grep -c '^<bix_ipc_shim timestamp="' "$dir/recording.xml")
test "$(grep -c '^</bix_ipc_shim>$' "$dir/recording.xml")" -eq "$recorded"
grep -q "^host: recording: .* ($recorded answers; $((14 - recorded)) larger than the recorder's 4096-byte records)$" "$dir/stdout"
test "$recorded" -gt 0
"$tool" annotate "$dir/received.bin" >/dev/null
echo "demo decoded by the tool: 14 answers, identical text"
