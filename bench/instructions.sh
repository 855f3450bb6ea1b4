#!/usr/bin/env bash
# Instructions per operation, counted by callgrind. bench_ops repeats one operation N and
# 2N times; (I(2N) - I(N)) / N leaves exactly N operations, start-up, set-up and first use
# cancelled out.
#
#   bench/instructions.sh [-n N] [--tracking] [--per-element]
#       the table: memcpy of the encoded bytes, then len, marshal, unmarshal and cud (create,
#       unmarshal, destroy) of each record through the record codec's fast path and through
#       the walker (its before; with --per-element, the walker with the per-element
#       primitive codecs as well), state tracking off (with --tracking, on as well)
#   bench/instructions.sh whole [-n N] [--tracking]
#       the whole-object operations beside their baselines, for status_info and
#       envm_sensor_data: clone (clone_cr + destroy) and copy (copy_cr) beside marshal +
#       unmarshal, compare beside memcmp, hash beside SuperFastHash of the walked bytes
#   bench/instructions.sh text [-n N] [--tracking]
#       the text and XML forms of each record: to_xml, print, the runtime's document parse
#       (xml_parse) and from_xml (its own count: parse and from_xml less the parse alone),
#       over to_xml
#   bench/instructions.sh messages [-n N] [--tracking]
#       message framing (bench_messages): marshal, unmarshal and receive of whole messages
#       beside marshal and create + unmarshal + destroy of their body records, and create +
#       destroy of a message beside that of its body
#   bench/instructions.sh cpp [-n N] [--tracking]
#       the C++ layer (bench_cpp): field set/get, encode and decode of status_info through
#       the C++ API beside the same C calls
#   bench/instructions.sh profile <op> <record> [-n N] [--walker] [--per-element] [--tracking]
#                                 [--lines FILE]...
#       where one operation's instructions go: per function, instructions and calls per
#       operation, from the same difference of two runs; --lines src/codec/wire.cc adds
#       them per source line of that file (inlined code included)
#
# BENCH_OPS names the driver (default: ${BUILD_DIR:-build}/bench/bench_ops).
set -euo pipefail
cd "$(dirname "$0")/.."
BENCH_OPS=${BENCH_OPS:-${BUILD_DIR:-build}/bench/bench_ops}
RECORDS=(status_info envm_sensor_data shim_data_1k)
N=2000

command -v valgrind >/dev/null || { echo "instructions.sh: valgrind is not installed" >&2; exit 1; }
[ -x "$BENCH_OPS" ] || { echo "instructions.sh: no driver at $BENCH_OPS (./run build)" >&2; exit 1; }
TMP=$(mktemp -d)
trap 'rm -rf "$TMP"' EXIT

# run_callgrind <out file> <bench_ops arguments...>: one run, its output file kept.
run_callgrind() {
  local out=$1
  shift
  # shellcheck disable=SC2086  # CALLGRIND_OPTS: extra options, split on blanks
  valgrind --tool=callgrind --callgrind-out-file="$out" ${CALLGRIND_OPTS:-} "$BENCH_OPS" "$@" \
    >"$out.stdout" 2>"$out.stderr" || { cat "$out.stderr" >&2; return 1; }
}

# total_ir <callgrind output file>: the run's total instruction count.
total_ir() { awk '/^(summary|totals):/ { print $2; exit }' "$1"; }

# per_op <op> <record> <flags...>: instructions per operation, and the encoded bytes.
per_op() {
  local key
  key=$(echo "$*" | tr ' ' '_')
  run_callgrind "$TMP/$key.1" "$1" "$2" "$N" "${@:3}"
  run_callgrind "$TMP/$key.2" "$1" "$2" $((2 * N)) "${@:3}"
  local i1 i2 bytes
  i1=$(total_ir "$TMP/$key.1")
  i2=$(total_ir "$TMP/$key.2")
  bytes=$(awk '{ for (i = 1; i < NF; ++i) if ($i == "bytes") print $(i + 1) }' "$TMP/$key.1.stdout")
  awk -v a="$i1" -v b="$i2" -v n="$N" -v bytes="$bytes" 'BEGIN { printf "%.1f %s\n", (b - a) / n, bytes }'
}

# table_options [-n N] [--tracking] [--per-element]: sets N, TRACKING_MODES (off, or off
# and on) and PATHS (the codec paths of the first table).
TRACKING_MODES=(off)
PATHS=(fast walker)
table_options() {
  while [ $# -gt 0 ]; do
    case "$1" in
      -n) N=$2; shift 2 ;;
      --tracking) TRACKING_MODES=(off on); shift ;;
      --per-element) PATHS=(fast walker per-element); shift ;;
      *) echo "instructions.sh: unknown argument $1" >&2; exit 2 ;;
    esac
  done
}

table() {
  table_options "$@"
  local jobs=()
  for t in "${TRACKING_MODES[@]}"; do
    local tflag=()
    [ "$t" = on ] && tflag=(--tracking)
    for r in "${RECORDS[@]}"; do
      jobs+=("memcpy $r - $t ${tflag[*]}")
      for path in "${PATHS[@]}"; do
        local pflag=()
        [ "$path" = walker ] && pflag=(--walker)
        [ "$path" = per-element ] && pflag=(--walker --per-element)
        for op in len marshal unmarshal cud; do
          jobs+=("$op $r $path $t ${pflag[*]} ${tflag[*]}")
        done
      done
    done
  done
  run_jobs "${jobs[@]}"
  print_rows "Instructions per operation (callgrind, (I(2N) - I(N)) / N, N = $N)" x_memcpy \
    "memcpy" "${jobs[@]}"
}

# run_jobs <job>...: each job "op record path tracking flags..." is an independent pair of
# runs; they run side by side, job k's "instructions bytes" (or "failed") in $TMP/job.k.
run_jobs() {
  local k=0 max
  max=$(nproc)
  for j in "$@"; do
    read -r op r path t flags <<<"$j"
    # shellcheck disable=SC2086
    (per_op "$op" "$r" $flags >"$TMP/job.$k" || echo "failed" >"$TMP/job.$k") &
    k=$((k + 1))
    while [ "$(jobs -rp | wc -l)" -ge "$max" ]; do wait -n || true; done
  done
  wait
}

# print_rows <title> <ratio heading> "<baseline ops>" <job>...: a row per job (its result
# from run_jobs), with its instructions over those of the latest baseline row before it.
print_rows() {
  local title=$1 heading=$2 baselines=" $3 " k=0 base=0 status=0
  shift 3
  echo "$title"
  printf '%-17s %-8s %5s  %-11s %-17s %10s %10s\n' record tracking bytes codecs op instr/op "$heading"
  for j in "$@"; do
    read -r op r path t flags <<<"$j"
    local res ir bytes
    res=$(cat "$TMP/job.$k")
    k=$((k + 1))
    if [ "$res" = failed ]; then
      printf '%-17s %-8s %5s  %-11s %-17s %10s\n' "$r" "$t" "?" "$path" "$op" FAILED
      status=1
      continue
    fi
    read -r ir bytes <<<"$res"
    [[ "$baselines" == *" $op "* ]] && base=$ir
    awk -v r="$r" -v t="$t" -v bytes="$bytes" -v path="$path" -v op="$op" -v ir="$ir" -v base="$base" \
      'BEGIN { printf "%-17s %-8s %5s  %-11s %-17s %10.1f %10.2f\n", r, t, bytes, path, op, ir, (base > 0 ? ir / base : 0) }'
  done
  return $status
}

whole_table() {
  table_options "$@"
  local jobs=()
  for t in "${TRACKING_MODES[@]}"; do
    local tflag=""
    [ "$t" = on ] && tflag=--tracking
    for r in status_info envm_sensor_data; do
      for op in marshal_unmarshal clone copy memcmp compare superfasthash hash; do
        jobs+=("$op $r bulk $t $tflag")
      done
    done
  done
  run_jobs "${jobs[@]}"
  print_rows "Whole-object operations: instructions per operation (callgrind, (I(2N) - I(N)) / N, N = $N)" \
    x_baseline "marshal_unmarshal memcmp superfasthash" "${jobs[@]}"
}

text_table() {
  table_options "$@"
  local jobs=() k=0 parse=0
  for t in "${TRACKING_MODES[@]}"; do
    local tflag=""
    [ "$t" = on ] && tflag=--tracking
    for r in "${RECORDS[@]}"; do
      for op in to_xml print xml_parse from_xml; do jobs+=("$op $r - $t $tflag"); done
    done
  done
  run_jobs "${jobs[@]}"
  # from_xml parses its document each time: its own count leaves the parse out.
  for j in "${jobs[@]}"; do
    read -r op _ <<<"$j"
    local res ir bytes
    res=$(cat "$TMP/job.$k")
    if [ "$res" != failed ]; then
      read -r ir bytes <<<"$res"
      [ "$op" = xml_parse ] && parse=$ir
      [ "$op" = from_xml ] && awk -v a="$ir" -v b="$parse" -v n="$bytes" \
        'BEGIN { printf "%.1f %s\n", a - b, n }' >"$TMP/job.$k"
    fi
    k=$((k + 1))
  done
  print_rows "Text and XML forms: instructions per operation (callgrind, (I(2N) - I(N)) / N, N = $N); bytes: the text form for print, the XML for the others" \
    x_to_xml "to_xml" "${jobs[@]}"
}

# driver_table <driver> <title> <ratio heading> "<baseline ops>" "<records>" "<ops>" [options]:
# every op on every record with another driver than bench_ops, in each tracking mode.
driver_table() {
  local driver=$1 title=$2 heading=$3 baselines=$4 records=$5 ops=$6
  shift 6
  table_options "$@"
  BENCH_OPS=$driver
  local jobs=()
  for t in "${TRACKING_MODES[@]}"; do
    local tflag=""
    [ "$t" = on ] && tflag=--tracking
    for r in $records; do
      for op in $ops; do
        jobs+=("$op $r - $t $tflag")
      done
    done
  done
  run_jobs "${jobs[@]}"
  print_rows "$title: instructions per operation (callgrind, (I(2N) - I(N)) / N, N = $N)" \
    "$heading" "$baselines" "${jobs[@]}"
}

messages_table() {
  driver_table "${BENCH_MESSAGES:-$(dirname "$BENCH_OPS")/bench_messages}" "Message framing" x_body \
    "body_marshal body_unmarshal body_create" "status_info envm_sensor_data" \
    "body_marshal msg_marshal body_unmarshal msg_unmarshal msg_receive body_create msg_create" "$@"
}

cpp_table() {
  driver_table "${BENCH_CPP:-$(dirname "$BENCH_OPS")/bench_cpp}" "The C++ layer" x_c \
    "c_set_get c_encode c_decode" status_info \
    "c_set_get cpp_set_get c_encode cpp_encode c_decode cpp_decode" "$@"
}

profile() {
  [ $# -ge 2 ] || { echo "usage: instructions.sh profile <op> <record> [-n N] [--walker] [--per-element] [--tracking] [--lines FILE]" >&2; exit 2; }
  local op=$1 rec=$2
  shift 2
  local flags=() lines=()
  while [ $# -gt 0 ]; do
    case "$1" in
      -n) N=$2; shift 2 ;;
      --lines) lines+=(--lines "$2"); shift 2 ;;
      --walker | --per-element | --tracking) flags+=("$1"); shift ;;
      *) echo "instructions.sh: unknown argument $1" >&2; exit 2 ;;
    esac
  done
  CALLGRIND_OPTS="--dump-instr=yes" run_callgrind "$TMP/p.1" "$op" "$rec" "$N" "${flags[@]}"
  CALLGRIND_OPTS="--dump-instr=yes" run_callgrind "$TMP/p.2" "$op" "$rec" $((2 * N)) "${flags[@]}"
  echo "$op $rec ${flags[*]}: $(cat "$TMP/p.1.stdout")"
  python3 bench/callgrind_diff.py "$TMP/p.1" "$TMP/p.2" "$N" "${lines[@]}"
  # The 2N run stays available for callgrind_annotate --auto=yes / --inclusive=yes.
  if [ -n "${KEEP_PROFILE:-}" ]; then
    cp "$TMP/p.2" "$KEEP_PROFILE"
    echo "2N profile kept at $KEEP_PROFILE (callgrind_annotate $KEEP_PROFILE)"
  fi
}

case "${1:-}" in
  profile) shift; profile "$@" ;;
  whole) shift; whole_table "$@" ;;
  text) shift; text_table "$@" ;;
  messages) shift; messages_table "$@" ;;
  cpp) shift; cpp_table "$@" ;;
  *) table "$@" ;;
esac
