#!/usr/bin/env bash
# Configures and builds into the given folder: build.sh DIR [CMake arguments] [-- targets]
set -euo pipefail
dir=$1
shift
configure=()
while (( $# )) && [[ "$1" != "--" ]]; do configure+=("$1"); shift; done
targets=()
if (( $# )); then shift; for t in "$@"; do targets+=(--target "$t"); done; fi
cmake -S "$(dirname "$0")/.." -B "$dir" -DCMAKE_BUILD_TYPE=Release "${configure[@]}" >/dev/null
cmake --build "$dir" -j "$(nproc)" "${targets[@]}"
