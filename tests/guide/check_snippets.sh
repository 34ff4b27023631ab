#!/usr/bin/env bash
# Every C++ and CMake block of the user guide must appear, exactly as
# written, in one of the example files, which the build compiles (in the
# tree and against the installed package): so every snippet compiles.
set -euo pipefail
guide=$1
examples=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

awk -v dir="$work" '
  /^```(cpp|cmake)$/ { n++; file = sprintf("%s/%03d", dir, n); inside = 1; next }
  /^```$/ && inside  { inside = 0; close(file); next }
  inside             { print > file }
' "$guide"

blocks=0
for block in "$work"/*; do
  [ -e "$block" ] || break
  blocks=$((blocks + 1))
  snippet=$(cat "$block")
  found=""
  for source in "$examples"/*; do
    content=$(cat "$source")
    if [[ "$content" == *"$snippet"* ]]; then found=$source; break; fi
  done
  if [ -z "$found" ]; then
    echo "guide block $blocks is in no example file:"
    head -n 5 "$block"
    exit 1
  fi
done
[ "$blocks" -gt 0 ] || { echo "no code blocks found"; exit 1; }
echo "$blocks code blocks, each found in an example file"
