#!/usr/bin/env bash
# One-way broadcasts across a real subnet: two server hosts and one client
# host, each a network namespace with a veth link into a bridge that lives in
# a fourth namespace, addresses from 192.0.2.0/24. The client broadcasts
# three one-way pings; each server must have received all three. Nothing is
# sent from, or changed in, the machine's own network namespace, and the
# namespaces go on every exit path. Exit 77 (skipped) when namespaces cannot
# be made here.
# Usage: udp_broadcast.sh <path of the tavix tool>
set -uo pipefail
tool=${1:?usage: udp_broadcast.sh <tavix tool>}
tag="tvx$$"
switch="${tag}sw"
hosts=("${tag}s1" "${tag}s2" "${tag}c")
addresses=(192.0.2.1 192.0.2.2 192.0.2.3)
work=$(mktemp -d)
pids=()

cleanup() {
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null; done
  for ns in "${hosts[@]}" "$switch"; do ip netns delete "$ns" 2>/dev/null; done
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

source "$(dirname "$0")/network.sh"
make_switch "$switch" "$work/err"
set -e
for i in "${!hosts[@]}"; do
  ns=${hosts[$i]}
  add_host "$switch" "$i" "$ns"
  ip -n "$ns" addr add "${addresses[$i]}/24" broadcast 192.0.2.255 dev eth0
  ip -n "$ns" link set eth0 up
  # The limited broadcast address leaves through the subnet's interface.
  ip -n "$ns" route add default dev eth0
done

port=7000
for i in 0 1; do
  ip netns exec "${hosts[$i]}" "$tool" serve --endpoint "udp -h #any -p $port" >"$work/server$i" 2>&1 &
  pids+=($!)
done
for i in 0 1; do
  for _ in $(seq 50); do grep -q "^Echo:udp" "$work/server$i" && break; sleep 0.1; done
  grep -q "^Echo:udp" "$work/server$i" || { echo "server $i did not start:"; cat "$work/server$i"; exit 1; }
done

ip netns exec "${hosts[2]}" "$tool" ping "Echo:udp -h #any -p $port" --oneway --count 3
# A two-way call on the broadcast proxy is refused before anything is sent.
if ip netns exec "${hosts[2]}" "$tool" ping "Echo:udp -h #any -p $port" >"$work/twoway" 2>&1; then
  echo "a two-way broadcast was not refused"; exit 1
fi
grep -q "0x20000019" "$work/twoway"
sleep 0.3

status=0
for i in 0 1; do
  kill -TERM "${pids[$i]}"
  wait "${pids[$i]}" || true
  got=$(grep '^requests:' "$work/server$i" || true)
  echo "server ${addresses[$i]}: $got"
  [ "$got" = "requests: 3" ] || status=1
done
pids=()
exit $status
