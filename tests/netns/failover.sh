#!/usr/bin/env bash
# Several servers behind one host name, on a small network: four server
# hosts and one client host, each a network namespace with a veth link into
# a bridge that lives in a sixth namespace, addresses from 192.0.2.0/24 and
# 2001:db8::/64. The client host has a hosts file of its own
# (/etc/netns/<name>/hosts, which `ip netns exec` mounts over /etc/hosts)
# that maps svc.test to three IPv4 servers and svc6.test to three IPv6 ones.
#
#   1. 300 proxies of "Echo:tcp -h svc.test ..." spread: each server gets
#      20 % to 47 % of them.
#   2. One server is killed while the proxies call round and round: no proxy
#      fails more than once (only a call whose request had left may fail),
#      and every later call goes to the two others.
#   3. The name moves to a fourth server and another server is killed: its
#      proxies look the name up again and reach the new server.
#   4. The same spread over IPv6 only.
#
# Nothing is changed in the machine's own network namespace; the namespaces
# and the hosts file go on every exit path. Exit 77 (skipped) when
# namespaces cannot be made here.
# Usage: failover.sh <tavix tool> <spread client>
set -uo pipefail
tool=${1:?usage: failover.sh <tavix tool> <spread client>}
client=${2:?usage: failover.sh <tavix tool> <spread client>}
tag="tvf$$"
switch="${tag}sw"
hosts=("${tag}s1" "${tag}s2" "${tag}s3" "${tag}s4" "${tag}c")
v4=(192.0.2.1 192.0.2.2 192.0.2.3 192.0.2.4 192.0.2.10)
v6=(2001:db8::1 2001:db8::2 2001:db8::3 2001:db8::4 2001:db8::10)
client_ns=${hosts[4]}
hosts_file="/etc/netns/$client_ns/hosts"
port=7000
proxies=300
work=$(mktemp -d)
servers=()

cleanup() {
  for pid in "${servers[@]}"; do [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null; done
  [ -n "${CLIENT_PID:-}" ] && kill -KILL "$CLIENT_PID" 2>/dev/null
  wait 2>/dev/null
  for ns in "${hosts[@]}" "$switch"; do ip netns delete "$ns" 2>/dev/null; done
  rm -rf "/etc/netns/$client_ns" "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

fail() {
  echo "FAILED: $*"
  exit 1
}

source "$(dirname "$0")/network.sh"
make_switch "$switch" "$work/err"
set -e
for i in "${!hosts[@]}"; do
  ns=${hosts[$i]}
  add_host "$switch" "$i" "$ns"
  ip -n "$ns" addr add "${v4[$i]}/24" dev eth0
  ip -n "$ns" addr add "${v6[$i]}/64" dev eth0 nodad
  ip -n "$ns" link set eth0 up
done
mkdir -p "/etc/netns/$client_ns"

# Server i (0-3) as a new process; its pid in servers[i].
start_server() {
  local i=$1
  ip netns exec "${hosts[$i]}" "$tool" serve --endpoint "tcp -h #any -p $port" >"$work/server$i" 2>&1 &
  servers[$i]=$!
  for _ in $(seq 50); do grep -q "^Echo:tcp" "$work/server$i" && return 0; sleep 0.1; done
  cat "$work/server$i"
  fail "server $i did not start"
}

kill_server() {
  local i=$1
  kill -KILL "${servers[$i]}"
  wait "${servers[$i]}" 2>/dev/null || true
  servers[$i]=""
}

# The name svc.test for the IPv4 servers given, svc6.test for the first three
# servers' IPv6 addresses. Written in place: the mount shows the same file.
write_hosts() {
  {
    echo "127.0.0.1 localhost"
    for i in "$@"; do echo "${v4[$i]} svc.test"; done
    for i in 0 1 2; do echo "${v6[$i]} svc6.test"; done
  } >"$hosts_file"
}

start_client() {
  coproc CLIENT { ip netns exec "$client_ns" "$client" "Echo:tcp -h $1 -p $port -t 3000" "$proxies"; }
}

# Sends a command to the client; its reply lines land in the file named.
ask() {
  local command=$1 out=$2 line
  echo "$command" >&"${CLIENT[1]}"
  : >"$out"
  while IFS= read -r -t 60 line <&"${CLIENT[0]}"; do
    [ "$line" = done ] && return 0
    echo "$line" >>"$out"
  done
  fail "no answer to '$command'"
}

value() { awk -v key="$1" '$1 == key { print $2 }' "$2"; }
count() { local n; n=$(value "$1" "$2"); echo "${n:-0}"; }

# Each address given must have between 20 % and 47 % of the proxies.
expect_spread() {
  local out=$1 address n
  shift
  for address in "$@"; do
    n=$(count "$address" "$out")
    echo "  $address: $n of $proxies"
    [ "$n" -ge $((proxies * 20 / 100)) ] && [ "$n" -le $((proxies * 47 / 100)) ] ||
      fail "$address has $n of $proxies proxies"
  done
}

for i in 0 1 2 3; do start_server "$i"; done
write_hosts 0 1 2
start_client svc.test

echo "1. $proxies proxies of svc.test spread over three servers"
ask call "$work/spread"
[ "$(count failed "$work/spread")" = 0 ] || fail "calls failed: $(cat "$work/spread")"
expect_spread "$work/spread" "${v4[0]}" "${v4[1]}" "${v4[2]}"

echo "2. ${v4[0]} killed while every proxy calls round and round"
echo "run 1500" >&"${CLIENT[1]}"
sleep 0.5
killed_ns=$(date +%s%N)
kill_server 0
: >"$work/run"
while IFS= read -r -t 60 line <&"${CLIENT[0]}"; do
  [ "$line" = done ] && break
  echo "$line" >>"$work/run"
done
cat "$work/run" | sed 's/^/  /'
[ "$(count failed-twice "$work/run")" = 0 ] || fail "a proxy failed more than once"
[ "$(count failed-total "$work/run")" -le "$(count "${v4[0]}" "$work/spread")" ] ||
  fail "more failures than proxies on the killed server"
first_moved=$(value first-moved-ns "$work/run")
[ "${first_moved:-0}" -gt 0 ] || fail "no proxy moved"
echo "  reconnect: first call elsewhere $(((first_moved - killed_ns) / 1000)) us after the kill"
ask call "$work/after"
[ "$(count failed "$work/after")" = 0 ] || fail "calls failed after the kill: $(cat "$work/after")"
[ "$(count "${v4[0]}" "$work/after")" = 0 ] || fail "calls reached the killed server"
[ $(($(count "${v4[1]}" "$work/after") + $(count "${v4[2]}" "$work/after"))) = "$proxies" ] ||
  fail "not every call went to the two others: $(cat "$work/after")"

echo "3. svc.test moves to ${v4[3]}; ${v4[1]} is killed: its proxies look the name up again"
on_second=$(count "${v4[1]}" "$work/after")
write_hosts 1 2 3
kill_server 1
sleep 0.3
ask call "$work/moved"
sed 's/^/  /' "$work/moved"
[ "$(count failed "$work/moved")" = 0 ] || fail "calls failed after the name moved"
[ "$(count "${v4[1]}" "$work/moved")" = 0 ] || fail "calls reached the killed server"
[ "$(count "${v4[3]}" "$work/moved")" -ge $((on_second / 4)) ] ||
  fail "the new server took too few of the $on_second proxies that lost theirs"

echo quit >&"${CLIENT[1]}"
wait "$CLIENT_PID" 2>/dev/null || true
unset CLIENT_PID

echo "4. $proxies proxies of svc6.test spread over three IPv6 servers"
start_server 0
start_server 1
start_client svc6.test
ask call "$work/spread6"
[ "$(count failed "$work/spread6")" = 0 ] || fail "calls failed: $(cat "$work/spread6")"
expect_spread "$work/spread6" "${v6[0]}" "${v6[1]}" "${v6[2]}"
echo quit >&"${CLIENT[1]}"
wait "$CLIENT_PID" 2>/dev/null || true
unset CLIENT_PID
echo "passed"
