#!/usr/bin/env bash
# Installs the build into a scratch prefix and builds the consumer against it.
set -euo pipefail
build_dir=$1
source_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null

cmake -S "$source_dir" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib" "$work/cmake-build/consumer" | tee "$work/out-cmake"

export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
g++ -o "$work/consumer-pc" "$source_dir/consumer.cc" $(pkg-config --define-variable=prefix="$work/prefix" --cflags --libs tavix)
LD_LIBRARY_PATH="$work/prefix/lib" "$work/consumer-pc" > "$work/out-pc"
cmp "$work/out-cmake" "$work/out-pc"
grep -q "^58 47 52 51 01 02 01 01 02 00 14 00 00 00 00 00 00 00 12 9a$" "$work/out-pc"
grep -q "^Object Adapter Name already exist$" "$work/out-pc"
