#!/usr/bin/env bash
# Compiles a source that must fail and prints what the compiler said, with
# the count of its errors, for the test to match.
set -uo pipefail
compiler=$1 source_dir=$2 source=$3
out=$(mktemp)
trap 'rm -f "$out"' EXIT
if "$compiler" -std=c++20 -fsyntax-only -I "$source_dir" "$source" >"$out" 2>&1; then
  echo "compiled, but must not"
  exit 1
fi
cat "$out"
echo "$(grep -c 'error:' "$out") error(s)"
