#!/usr/bin/env bash
# Refuses an include that runs upward: every `#include "tavix/<layer>/..."`
# in a file under tavix/ must name its own layer or one listed before it in
# layers.txt. The test helpers (tavix/testing/, the top layer) are held to
# the order like every library file. A test beside its code (*_test.cc) may
# drive that code through higher layers; no other file may include one, and
# no library file may include a helper of the tests.
# Usage: check.sh <tavix source folder> [layers file]
set -euo pipefail
root=${1:?usage: check.sh <tavix folder> [layers file]}
layers_file=${2:-$(dirname "$0")/layers.txt}

find "$root" -name '*.h' -o -name '*.cc' | sort | awk -v layers="$layers_file" '
  BEGIN {
    n = 0
    while ((getline line < layers) > 0) {
      sub(/#.*/, "", line); gsub(/[ \t]/, "", line)
      if (line != "") rank[line] = n++
    }
    if (n == 0) { print "no layers in " layers; exit 2 }
  }
  {
    file = $0
    if (file ~ /_test\.cc$/) next
    count = split(file, parts, "/")
    own = (count >= 2) ? parts[count - 1] : ""
    lineno = 0
    while ((getline text < file) > 0) {
      lineno++
      if (text !~ /^[ \t]*#[ \t]*include[ \t]*"tavix\//) continue
      path = text
      sub(/^[^"]*"tavix\//, "", path); sub(/".*/, "", path)
      if (path ~ /_test\.cc$/) {
        printf "%s:%d: includes the test file tavix/%s\n", file, lineno, path
        bad++
        continue
      }
      split(path, target, "/")
      used = (path ~ /\//) ? target[1] : ""
      if (!(own in rank)) {
        if (own != "tavix") { printf "%s: folder %s is not a layer\n", file, own; bad++ }
        break
      }
      if (!(used in rank)) { printf "%s:%d: tavix/%s is in no layer\n", file, lineno, path; bad++; continue }
      if (rank[used] > rank[own]) {
        printf "%s:%d: layer %s includes tavix/%s of the higher layer %s\n", file, lineno, own, path, used
        bad++
      }
    }
    close(file)
  }
  END { if (bad) { printf "%d include(s) against the layer order\n", bad; exit 1 } }
'
