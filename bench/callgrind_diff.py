#!/usr/bin/env python3
"""Per-function instructions and calls per operation, from two callgrind outputs of the
same driver run for N and for 2N iterations: (cost(2N) - cost(N)) / N.

    callgrind_diff.py <out for N> <out for 2N> <N> [--top K] [--lines FILE]

Self instructions are those executed in the function's own code; calls are how often it
was called, per operation. Functions whose share rounds to zero are left out. With
--lines, the instructions per operation of each source line of the files whose path
ends with FILE (inlined code included; needs the default --dump-line=yes).
"""
import re
import sys
from collections import defaultdict

NAME = re.compile(r"^\((\d+)\)(?: (.*))?$")


def parse(path):
    """Self instructions and incoming calls per function name, self instructions per
    (file, line)."""
    fn_names, file_names = {}, {}
    self_ir = defaultdict(int)
    calls = defaultdict(int)
    line_ir = defaultdict(int)
    positions = ["line"]
    last = [0]
    fn = None
    fn_file = cur_file = "?"
    callee = "?"
    pending_call = False  # the next cost line is a call's inclusive cost, not self cost

    def name_of(table, text):
        m = NAME.match(text.strip())
        if not m:
            return text.strip()
        if m.group(2) is not None:
            table[m.group(1)] = m.group(2)
        return table.get(m.group(1), "?")

    def position(i, field):
        if field == "*":
            return last[i]
        if field[0] in "+-":
            return last[i] + int(field, 0)
        return int(field, 0)

    with open(path) as f:
        for line in f:
            line = line.rstrip("\n")
            if line.startswith("positions:"):
                positions = line.split()[1:]
                last = [0] * len(positions)
            elif line.startswith("fl="):
                fn_file = cur_file = name_of(file_names, line[3:])
            elif line.startswith(("fi=", "fe=")):
                cur_file = name_of(file_names, line[3:])
            elif line.startswith(("cfi=", "cfl=")):
                name_of(file_names, line[4:])
            elif line.startswith("fn="):
                fn = name_of(fn_names, line[3:])
                cur_file = fn_file
            elif line.startswith("cfn="):
                callee = name_of(fn_names, line[4:])
            elif line.startswith("calls="):
                calls[callee] += int(line[6:].split()[0])
                pending_call = True
            elif line and (line[0].isdigit() or line[0] in "+-*"):
                fields = line.split()
                npos = len(positions)
                last = [position(i, fields[i]) for i in range(npos)]
                cost = int(fields[npos]) if len(fields) > npos else 0
                if pending_call:
                    pending_call = False
                elif fn is not None:
                    self_ir[fn] += cost
                    if "line" in positions:
                        line_ir[(cur_file, last[positions.index("line")])] += cost
    return self_ir, calls, line_ir


def print_lines(l1, l2, n, suffix):
    per_file = defaultdict(list)
    for key in set(l1) | set(l2):
        if not key[0].endswith(suffix):
            continue
        ir = (l2.get(key, 0) - l1.get(key, 0)) / n
        if abs(ir) >= 0.05:
            per_file[key[0]].append((key[1], ir))
    for path, rows in sorted(per_file.items()):
        try:
            with open(path) as f:
                text = f.read().split("\n")
        except OSError:
            text = []
        print(f"\n{path}: instructions per operation by line")
        for lineno, ir in sorted(rows):
            src = text[lineno - 1].strip() if 0 < lineno <= len(text) else ""
            print(f"{ir:10.1f}  {lineno:5d}  {src[:100]}")
        print(f"{sum(r[1] for r in rows):10.1f}  total")


def main():
    args = sys.argv[1:]
    top, lines = 40, []
    while "--top" in args or "--lines" in args:
        flag = "--top" if "--top" in args else "--lines"
        i = args.index(flag)
        if flag == "--top":
            top = int(args[i + 1])
        else:
            lines.append(args[i + 1])
        del args[i:i + 2]
    if len(args) != 3:
        sys.exit(__doc__)
    s1, c1, l1 = parse(args[0])
    s2, c2, l2 = parse(args[1])
    n = int(args[2])
    rows = []
    for name in set(s1) | set(s2) | set(c1) | set(c2):
        ir = (s2.get(name, 0) - s1.get(name, 0)) / n
        calls = (c2.get(name, 0) - c1.get(name, 0)) / n
        if abs(ir) >= 0.05 or abs(calls) >= 0.05:
            rows.append((ir, calls, name))
    rows.sort(key=lambda r: -r[0])
    total = sum(r[0] for r in rows)
    print(f"{'instr/op':>10} {'share':>6} {'calls/op':>9} {'instr/call':>10}  function")
    for ir, calls, name in rows[:top]:
        per_call = f"{ir / calls:10.1f}" if calls >= 0.05 else f"{'':10}"
        print(f"{ir:10.1f} {100 * ir / total if total else 0:5.1f}% {calls:9.2f} {per_call}  {name}")
    print(f"{total:10.1f} total instructions per operation")
    for suffix in lines:
        print_lines(l1, l2, n, suffix)


if __name__ == "__main__":
    main()
