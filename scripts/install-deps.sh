#!/usr/bin/env bash
# Installs the Debian packages the build needs, only those that are missing.
# Usage: scripts/install-deps.sh [--windows]   (--windows adds the MinGW-w64 cross toolchain and Wine)
set -euo pipefail

packages=(cmake ninja-build g++ clang libclang-rt-14-dev make pkg-config
          libspdlog-dev libfmt-dev libmeshoptimizer-dev zlib1g-dev
          libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev gltfpack)
if [[ "${1:-}" == "--windows" ]]; then
  packages+=(g++-mingw-w64-x86-64 libz-mingw-w64-dev wine64)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
if [[ $(id -u) -ne 0 ]]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
