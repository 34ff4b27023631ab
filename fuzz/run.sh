#!/usr/bin/env bash
# Builds the fuzz target (preset fuzz: clang, libFuzzer, address and
# undefined-behaviour sanitizers) and runs it from the seed corpus for a
# bounded time; new inputs go to a scratch folder, never into the repository.
#   fuzz/run.sh [seconds]      (default 10; hours: fuzz/run.sh 14400)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-10}
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j"$(nproc)" >/dev/null
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
findings=build/fuzz/findings
mkdir -p "$findings"
# A finding fails the run and stays in build/fuzz/findings/ to be replayed:
#   build/fuzz/fuzz/tavix_fuzz build/fuzz/findings/<file>
build/fuzz/fuzz/tavix_fuzz -max_total_time="$seconds" -print_final_stats=1 -artifact_prefix="$findings/" \
  "$scratch" fuzz/corpus 2>&1 | grep -E '^(Done|stat::number_of_executed_units)|ERROR|SUMMARY|Test unit written'
exit "${PIPESTATUS[0]}"
