#!/usr/bin/env bash
# TAVIX beside plain sockets, Apache Thrift and gRPC: installs the two
# peers when missing, builds the release and prints one table of medians
# from two runs of tavix_peer_bench, first the pings with the whole process
# on one core (taskset -c 0), then every measure with the cores free.
# Arguments go to both runs (default: 5 repetitions of at least 0.3 s).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
packages=(libgrpc++-dev libprotobuf-dev protobuf-compiler-grpc libthrift-dev thrift-compiler libboost-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update -qq
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

cmake --preset ci
cmake --build --preset ci -j"$(nproc)" --target tavix_peer_bench

options=("$@")
[ ${#options[@]} -eq 0 ] && options=(--benchmark_repetitions=5 --benchmark_min_time=0.3)
rows=$(mktemp)
trap 'rm -f "$rows"' EXIT
bench=build/ci/bench/tavix_peer_bench
taskset -c 0 "$bench" --benchmark_filter=Ping "${options[@]}" --rows="$rows"
"$bench" "${options[@]}" --rows="$rows"
