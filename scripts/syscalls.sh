#!/bin/sh
# System calls per two-way call on each side of a connection.
#
# Runs `tavix serve` and `tavix ping --count N` under `strace -f -c` twice,
# with a small and a large N, and divides the difference of the counts by
# the difference of the calls: what start-up, connecting and shutting down
# cost is the same in both runs and drops out. Prints the per-call figure
# of every system call that occurs at least 0.01 times per call, and the
# total of each side. The client's `write` is the ping tool printing (and
# flushing) its line per call, not the library, and is left out of the
# client's total.
#
# usage: scripts/syscalls.sh [build-dir]   (default build/ci)
set -eu
build=${1:-build/ci}
tool=$build/tools/tavix
small=200
large=2200
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# One run of N pings: leaves $work/server.N and $work/client.N.
run() {
  n=$1
  port=$(( 20000 + ($$ + n) % 20000 ))
  strace -f -c -o "$work/server.$n" "$tool" serve --endpoint "tcp -h 127.0.0.1 -p $port" --name A \
    >"$work/serve.out" 2>&1 &
  server=$!
  for _ in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20; do
    grep -q "A:tcp" "$work/serve.out" 2>/dev/null && break
    sleep 0.2
  done
  strace -f -c -o "$work/client.$n" "$tool" ping "A:tcp -h 127.0.0.1 -p $port -t 30000" --count "$n" \
    >/dev/null
  # The tracee, not strace, takes the signal: it shuts down in order and
  # strace then writes its summary.
  kill -TERM "$(pgrep -P "$server")"
  wait "$server" || true
}

# "name calls" lines of one strace -c summary.
calls() {
  awk '/^-+/ {next} $NF == "total" {next} NF >= 5 && $1 ~ /^[0-9.]+$/ { print $NF, $4 }' "$1"
}

report() {
  side=$1
  calls "$work/$side.$small" >"$work/a"
  calls "$work/$side.$large" >"$work/b"
  echo "$side: system calls per ObjectPing ($large - $small calls)"
  awk -v d=$((large - small)) -v side="$side" '
    FNR == NR { a[$1] = $2; next }
    { b[$1] = $2 }
    END {
      for (k in b) {
        per = (b[k] - a[k]) / d
        if (per < 0.01) continue
        if (side == "client" && k == "write") { printf "  %-16s %6.2f  (tool output, not counted)\n", k, per; continue }
        printf "  %-16s %6.2f\n", k, per
        total += per
      }
      printf "  %-16s %6.2f\n", "total", total
    }' "$work/a" "$work/b"
}

run $small
run $large
report server
report client
