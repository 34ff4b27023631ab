# Shared by the network tests: a bridge in a namespace of its own, and hosts
# (namespaces) with one veth link into it. Source it; the caller removes
# the namespaces it made.

# make_switch <name> <file for the error>: the switch namespace with its
# bridge; exits 77 (skipped) when namespaces cannot be made here.
make_switch() {
  if ! ip netns add "$1" 2>"$2"; then
    echo "SKIPPED: cannot make network namespaces here: $(cat "$2")"
    exit 77
  fi
  ip -n "$1" link add br0 type bridge
  ip -n "$1" link set br0 up
}

# add_host <switch> <port number> <name>: a host namespace whose eth0 is
# linked to the switch's bridge; lo is up, eth0 is left down for the
# caller to address and raise.
add_host() {
  local switch=$1 port=$2 ns=$3
  ip netns add "$ns"
  ip -n "$ns" link set lo up
  ip -n "$switch" link add "port$port" type veth peer name eth0 netns "$ns"
  ip -n "$switch" link set "port$port" master br0 up
}
