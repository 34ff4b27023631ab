#!/usr/bin/env bash
# Installs the build into a scratch prefix and checks the package from
# outside: the layout of the public and internal headers, pkg-config's
# paths without help, a consumer built with find_package and with
# pkg-config, and the examples built and run against the installed package.
set -euo pipefail
build_dir=$1
source_dir=$2      # the library's source tree
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$work"' EXIT
prefix="$work/prefix"

cmake --install "$build_dir" --prefix "$prefix" >/dev/null

# Public headers: tavix.h and exactly those it includes; the guide lists
# each of them. Every other header is internal.
public=$(grep -o '^#include "tavix/[^"]*"' "$source_dir/tavix/tavix.h" | cut -d'"' -f2 | sort)
installed=$(cd "$prefix/include" && find tavix -path tavix/internal -prune -o -name '*.h' -print | grep -v '^tavix/tavix.h$' | sort)
[ "$public" = "$installed" ] || { echo "public headers differ:"; diff <(echo "$public") <(echo "$installed"); exit 1; }
for header in $public; do
  grep -q "\`$header\`" "$source_dir/docs/GUIDE.md" || { echo "docs/GUIDE.md does not list $header"; exit 1; }
done
[ -f "$prefix/include/tavix/internal/tavix/invoke/connection.h" ] || { echo "internal headers missing"; exit 1; }
[ ! -e "$prefix/include/tavix/internal/tavix/testing" ] || { echo "test helpers installed"; exit 1; }

# pkg-config finds the prefix from the file's own place: every path it
# gives resolves inside this prefix.
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
resolved=""
for flag in $(pkg-config --cflags --libs tavix); do
  case "$flag" in -I*|-L*) resolved="$resolved ${flag:0:2}$(realpath -m "${flag:2}")" ;; esac
done
echo "pkg-config paths:$resolved"
[ "$resolved" = " -I$prefix/include -I$prefix/include/tavix/internal -L$prefix/lib" ] \
  || { echo "pkg-config gives other paths than the prefix's"; exit 1; }

consumer="$source_dir/tests/install"
cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$prefix/lib" "$work/cmake-build/consumer" | tee "$work/out-cmake"
eval "g++ -o \"$work/consumer-pc\" \"$consumer/consumer.cc\" $(pkg-config --cflags --libs tavix)"
LD_LIBRARY_PATH="$prefix/lib" "$work/consumer-pc" > "$work/out-pc"
cmp "$work/out-cmake" "$work/out-pc"
grep -qx "status 0 width 4294967290" "$work/out-pc"
grep -qx "0x40000003 Range is reversed" "$work/out-pc"
grep -qx "Object Adapter Name already exist" "$work/out-pc"

# The examples, as a project of their own against the installed package.
cmake -S "$source_dir/examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/examples" >/dev/null
export LD_LIBRARY_PATH="$prefix/lib"
"$work/examples/kv_server" > "$work/server.out" &
for _ in $(seq 100); do [ -s "$work/server.out" ] && break; sleep 0.1; done
proxy=$(head -n1 "$work/server.out")
echo "kv_server: $proxy"
"$work/examples/kv_client" "$proxy -t 5000" | tee "$work/client.out"
grep -qx "big: 5242880 bytes, version 1, intact" "$work/client.out"
grep -qx "  empty: 0 bytes" "$work/client.out"
grep -qx "Get after Delete: 0x40000001 No such key" "$work/client.out"
kill -TERM %1
wait %1
grep -qx "kv_server: stopped" "$work/server.out"
