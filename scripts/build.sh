#!/usr/bin/env bash
# Configures and builds into the given folder with any extra CMake arguments.
set -euo pipefail
dir=$1
shift
cmake -S "$(dirname "$0")/.." -B "$dir" -DCMAKE_BUILD_TYPE=Release "$@" >/dev/null
cmake --build "$dir" -j "$(nproc)"
