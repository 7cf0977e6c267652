#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds, and runs the demo on the bundled sample.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" "$root/build" -DKESTOR_BUILD_TESTS=OFF -DKESTOR_BUILD_BENCH=OFF
"$root/build/tools/kestor-demo" "$@"
