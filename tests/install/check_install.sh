#!/usr/bin/env bash
# Installs the build into a scratch prefix and builds and runs a C consumer against it through
# the CMake package and through pkg-config.
set -euo pipefail
build=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig:$work/prefix/lib/x86_64-linux-gnu/pkgconfig"
cmake -S "$here/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
libdir=$(dirname "$(find "$work/prefix" -name 'libkestor.so' | head -n 1)")
LD_LIBRARY_PATH="$libdir" "$work/consumer/consumer_cmake"
LD_LIBRARY_PATH="$libdir" "$work/consumer/consumer_pkgconfig"
