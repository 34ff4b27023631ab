#!/bin/sh
# Atomic read-modify-write instructions executed inside libtavix per
# ObjectPing round trip.
#
# objdump lists the library's `lock`-prefixed instructions and its `xchg`
# with a memory operand; callgrind (--dump-instr=yes) of the ping benchmark
# gives each instruction's execution count; the total is divided by the
# round trips, counted as the calls of send halved (one send a side).
# Prints the total and the functions that execute them.
#
# usage: scripts/atomics.sh [build-dir]   (default build/ci)
set -eu
build=${1:-build/ci}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
lib=$(readlink -f "$build/libtavix.so")
objdump -d --no-show-raw-insn "$lib" | awk '
  /^[0-9a-f]+ <.*>:$/ { fn = $2 }
  /\tlock |\txchg +%[a-z0-9]+,-?[0-9a-fx]*\(/ { sub(":", "", $1); print $1, fn }' > "$work/atomics"
valgrind --tool=callgrind --dump-instr=yes --compress-pos=no --compress-strings=no \
  --callgrind-out-file="$work/profile" "$build/bench/tavix_latency_bench" \
  --benchmark_filter='^BM_TavixPing' --benchmark_min_time=0.3 --benchmark_repetitions=1 > /dev/null 2>&1
python3 - "$work/atomics" "$work/profile" "$lib" <<'PY'
import collections, sys
atomics = dict((int(a, 16), f) for a, f in (line.split(None, 1) for line in open(sys.argv[1])))
counts, sends, obj, callee, after_call = collections.Counter(), 0, '', '', False
for line in open(sys.argv[2]):
    if line.startswith('ob='):
        obj = line[3:].strip()
    elif line.startswith('cfn='):
        callee = line[4:].strip()
    elif line.startswith('calls='):
        after_call = True  # the next cost line is the call's, not an instruction's
        if callee == 'send':
            sends += int(line[6:].split()[0])
    elif line.startswith('0x'):
        if after_call:
            after_call = False
        elif obj == sys.argv[3]:
            fields = line.split()
            address = int(fields[0], 16)
            if address in atomics:
                counts[atomics[address].strip()] += int(fields[2])
trips = sends / 2
print(f'{trips:.0f} round trips, {sum(counts.values()) / trips:.1f} atomic operations per round trip')
for function, n in counts.most_common():
    if n / trips >= 0.05:
        print(f'{n / trips:6.2f}  {function}')
PY
