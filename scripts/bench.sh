#!/usr/bin/env bash
# TAVIX beside plain sockets, Apache Thrift and gRPC: installs the two
# peers when missing, builds the release and prints one table of medians
# from two runs of tavix_peer_bench, first the pings with the whole process
# on one core (taskset -c 0), then every measure with the cores free.
# Arguments go to both runs (default: 5 repetitions of at least 0.3 s).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh libgrpc++-dev libprotobuf-dev protobuf-compiler-grpc libthrift-dev thrift-compiler libboost-dev

cmake --preset ci
cmake --build --preset ci -j"$(nproc)" --target tavix_peer_bench

options=("$@")
[ ${#options[@]} -eq 0 ] && options=(--benchmark_repetitions=5 --benchmark_min_time=0.3)
rows=$(mktemp)
trap 'rm -f "$rows"' EXIT
bench=build/ci/bench/tavix_peer_bench
taskset -c 0 "$bench" --benchmark_filter=Ping "${options[@]}" --rows="$rows"
"$bench" "${options[@]}" --rows="$rows"
