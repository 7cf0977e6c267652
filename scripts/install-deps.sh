#!/usr/bin/env bash
# Installs the Debian packages the build needs. With --bench also the peer libraries that the
# comparison benchmarks measure against (Open3D, nanoflann); with --fuzz clang and its runtime
# (libFuzzer, the sanitizers, FuzzedDataProvider.h) and LLVM's OpenMP for the fuzz harnesses.
set -euo pipefail
packages=(cmake g++ make libeigen3-dev libomp-dev libgtest-dev libgmock-dev libbenchmark-dev
          libpng-dev pkg-config binutils valgrind libopencv-dev libcli11-dev
          python3-open3d)
if [[ "${1:-}" == "--bench" ]]; then
  packages+=(libopen3d-dev libnanoflann-dev)
fi
if [[ "${1:-}" == "--fuzz" ]]; then
  packages+=(clang-14 libclang-rt-14-dev libomp-14-dev)
fi
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if (( ${#missing[@]} )); then
  sudo_cmd=""
  [[ $(id -u) -ne 0 ]] && sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends \
    "${missing[@]}"
fi
