#!/usr/bin/env bash
# Installs what is missing, builds with warnings as errors, runs every test
# (the load-and-fault suite and the namespace broadcast test included), then
# fuzzes the message readers for a few seconds.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset ci
cmake --build --preset ci -j"$(nproc)"
ctest --preset ci
bash fuzz/run.sh 10
