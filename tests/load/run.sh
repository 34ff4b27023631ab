#!/usr/bin/env bash
# The load-and-fault suite alone, on a build made by a preset (default: ci),
# with each case's figure printed.
set -euo pipefail
cd "$(dirname "$0")/../.."
preset=${1:-ci}
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j"$(nproc)" --target tavix_load_test >/dev/null
ctest --preset "$preset" -L load --verbose | grep -E '^[0-9]+: (fd|stalled|sleeping|1000|connection|churn|\[ *(OK|FAILED|RUN) *\])|tests passed|FAILED'
