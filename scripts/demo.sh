#!/usr/bin/env bash
# Builds everything and shows real remote calls between two processes over
# TCP and UDP: `tavix serve` answered by `tavix ping` and `tavix call`, a
# servant fault that the server survives (with the start of its exception
# report), then the examples' server answered by the examples' client.
# Everything started here is stopped on the way out.
set -euo pipefail
cd "$(dirname "$0")/.."

step() { printf '\n== %s\n' "$*"; }

step "installing what is missing and building (preset default)"
scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j"$(nproc)" >/dev/null
build=build/default

started=()
# No dot in the path: the tool writes its log and report beside itself,
# named from the text before the last dot of its whole path.
workdir=$(mktemp -d /tmp/tavix-demo-XXXXXX)
stop_servers() {
  for pid in "${started[@]}"; do
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  started=()
}
cleanup() {
  stop_servers
  rm -rf "$workdir"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# A port nobody listens on right now, chosen by the system.
free_port() {
  if command -v python3 >/dev/null; then
    python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
    return
  fi
  local port
  for _ in $(seq 50); do
    port=$((20000 + RANDOM % 40000))
    if ! (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
      echo "$port"
      return
    fi
  done
  echo "no free port found" >&2
  return 1
}

# Starts a server in the background and waits for its first line of output
# (the proxy string it serves).
start_server() {
  local log=$1
  shift
  "$@" >"$log" 2>&1 &
  started+=($!)
  for _ in $(seq 100); do
    if [ -s "$log" ]; then
      echo "server (pid ${started[-1]}) serves: $(head -n 1 "$log")"
      return
    fi
    if ! kill -0 "${started[-1]}" 2>/dev/null; then
      echo "the server did not start:" >&2
      cat "$log" >&2
      return 1
    fi
    sleep 0.05
  done
  echo "the server printed nothing in 5 s" >&2
  return 1
}

show() {
  printf '$ %s\n' "$*"
  "$@"
}

port=$(free_port)
proxy="Echo:tcp -h 127.0.0.1 -p $port -t 3000"
udp="Echo:udp -h 127.0.0.1 -p $port -t 3000"

step "tavix serve on TCP and UDP port $port"
start_server "$workdir/serve.log" "$build/tools/tavix" serve --endpoint "tcp -h #any -p $port" \
  --endpoint "udp -h #any -p $port"

step "pinging it from another process"
show "$build/tools/tavix" ping "$proxy" --count 3
show "$build/tools/tavix" ping "$proxy" --count 2 --oneway

step "calling its operations"
show "$build/tools/tavix" call "$proxy" echo "hello from the demo"
show "$build/tools/tavix" call "$proxy" isa ::TAVIX::Echo
show "$build/tools/tavix" call "$proxy" isa ::Some::Other
echo "a call to an object the server does not have fails with its code:"
show "$build/tools/tavix" call "Nobody:tcp -h 127.0.0.1 -p $port -t 3000" echo x || true

step "the same object over UDP: each request and reply is one datagram"
show "$build/tools/tavix" call "$udp" echo "hello over UDP"
show "$build/tools/tavix" ping "$udp" --count 2
echo "a broadcast proxy carries one-way calls only:"
show "$build/tools/tavix" ping "Echo:udp -h #any -p $port -t 3000" --oneway --count 1
show "$build/tools/tavix" ping "Echo:udp -h #any -p $port -t 3000" || true
step "several endpoints in one proxy string: a refused one is passed over within each call"
dead="tcp -h 127.0.0.1 -p $(free_port) -t 3000"
show "$build/tools/tavix" call "Echo:ordered:$dead:${proxy#Echo:}" echo "failover" --repeat 3
echo "the same server over IPv6 (a server on #any takes both families), the address in brackets:"
show "$build/tools/tavix" ping "Echo:tcp -h [::1] -p $port -t 3000" --count 1 || true

echo "a servant's own status prints the text the client registered for it:"
show "$build/tools/tavix" call "$proxy" fail 0x40000001 --status-text "0x40000001=No such key" || true
echo "an unknown host is named as such:"
show "$build/tools/tavix" call "Echo:tcp -h no-such-host.invalid -p 5678 -t 3000" echo x || true

# A copy of the tool of its own, so that its report and log start empty.
cp "$build/tools/tavix" "$workdir/tavix"
step "a servant fault: tavix serve --allow-faults on a port the system picks (-p 0)"
start_server "$workdir/faults.log" "$workdir/tavix" serve --allow-faults --endpoint "tcp -h 127.0.0.1 -p 0"
port=$(head -n 1 "$workdir/faults.log" | sed 's/.* -p \([0-9]*\) .*/\1/')
echo "kind 1 writes through a null pointer in the servant; only that client's connection ends:"
show "$workdir/tavix" call "Echo:tcp -h 127.0.0.1 -p $port -t 30000" fault 1 || true
echo "the server goes on answering other clients:"
show "$workdir/tavix" call "Echo:tcp -h 127.0.0.1 -p $port -t 3000" echo "still here"
echo "its log (UTF-16) says:"
iconv -f UTF-16 -t UTF-8 "$workdir/tavix_tavix.log" | grep -a "Win32 SE" | sed 's/^/  /'
echo "the first 40 lines of its exception report ($workdir/tavix.RPT):"
iconv -f UTF-16 -t UTF-8 "$workdir/tavix.RPT" | tr -d '\r' | sed -n '1,40p' | sed 's/^/  /'
stop_servers

step "TLS: an ssl endpoint that requires client certificates (made now with openssl)"
certs="$workdir/certs"
bash "$(dirname "$0")/../tests/tls/make_certs.sh" "$certs"
start_server "$workdir/tls.log" "$build/tools/tavix" serve --endpoint "ssl -h 127.0.0.1 -p 0" \
  --tls-cert "$certs/server.pem" --tls-key "$certs/server.key" --tls-ca "$certs/ca.pem" --tls-client-certs require
secure="$(head -n 1 "$workdir/tls.log" | sed 's/-t 0$/-t 3000/')"
echo "a client with a certificate from the trusted CA; the servant sees its subject:"
show "$build/tools/tavix" call "$secure" peer-identity --tls-ca "$certs/ca.pem" \
  --tls-cert "$certs/client.pem" --tls-key "$certs/client.key"
echo "a client without a certificate is refused:"
show "$build/tools/tavix" call "$secure" peer-identity --tls-ca "$certs/ca.pem" || true
echo "the server's log names the refused client and why:"
iconv -f UTF-16 -t UTF-8 "$build/tools/tavix_tavix.log" | grep -a "TLS handshake with client" | tail -n 1 | sed 's/^/  /'
stop_servers

step "the examples: kv_server on a port the system picks, kv_client against it"
start_server "$workdir/example.log" "$build/examples/kv_server"
show "$build/examples/kv_client" "$(head -n 1 "$workdir/example.log") -t 5000"

step "stopping the servers (SIGTERM)"
stop_servers
echo "what tavix serve printed:"
sed 's/^/  /' "$workdir/serve.log"
echo "what the example server printed:"
sed 's/^/  /' "$workdir/example.log"
echo "done"
