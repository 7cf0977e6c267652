#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds, and reconstructs the bundled sample (24 frames of TUM
# RGB-D freiburg1_xyz) with the `kestor` program: prints progress, the ATE against the ground
# truth, and writes trajectories, the fused map (map.ply), report.txt and trajectory.svg to
# kestor_demo_output/. Other arguments go to the program, e.g. another folder:
#   scripts/run-demo.sh path/to/rgbd_dataset_freiburg1_desk
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" "$root/build" -DKESTOR_BUILD_TESTS=OFF -DKESTOR_BUILD_BENCH=OFF
sequence=${1:-$root/data/tum_fr1_xyz_sample}
[[ $# -gt 0 ]] && shift
"$root/build/tools/kestor" reconstruct "$sequence" -o kestor_demo_output "$@"
