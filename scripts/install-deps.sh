#!/usr/bin/env bash
# Installs the Debian packages the build needs, only those that are missing.
# Usage: scripts/install-deps.sh [--windows]   (--windows adds the MinGW-w64 cross toolchain and Wine)
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(cmake ninja-build g++ clang libclang-rt-14-dev make pkg-config
          libspdlog-dev libfmt-dev libmeshoptimizer-dev zlib1g-dev
          libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev gltfpack
          dpkg-dev libssl-dev libcurl4-openssl-dev libxxhash-dev librust-blake3-dev nginx-core libtinyxml2-dev
          libassimp-dev assimp-testmodels libpng-dev chromium
          slurmd slurmctld slurm-client munge) # dpkg-dev: dpkg-shlibdeps for the package; Slurm: the cluster test;
          # librust-blake3-dev: BLAKE3's reference C sources (cmake/Blake3.cmake)
windows=0
if [[ "${1:-}" == "--windows" ]]; then
  windows=1
  # The posix-threads compiler variants only (std::thread, std::mutex); wine for the wrapper
  # script, wine64 for the 64-bit loader; dpkg-dev unpacks the source packages the Windows build
  # compiles.
  # libutfcpp-dev and libstb-dev: header-only libraries assimp's Windows build takes from the host.
  packages+=(gcc-mingw-w64-x86-64-posix g++-mingw-w64-x86-64-posix libz-mingw-w64-dev wine wine64 dpkg-dev
             libutfcpp-dev libstb-dev)
fi

sudo=""
if [[ $(id -u) -ne 0 ]]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive

# The Windows build compiles meshoptimizer from Debian's source package ("apt-get source"), which
# needs deb-src entries for the suites the binary packages come from.
need_update=0
if [[ $windows -eq 1 ]] && ! grep -rqsE '^(deb-src|Types:.*deb-src)' /etc/apt/sources.list /etc/apt/sources.list.d/; then
  if [[ -f /etc/apt/sources.list.d/debian.sources ]]; then
    sed -E 's/^Types:.*$/Types: deb-src/' /etc/apt/sources.list.d/debian.sources |
      $sudo tee /etc/apt/sources.list.d/vertexmill-deb-src.sources >/dev/null
  else
    grep -hE '^deb ' /etc/apt/sources.list /etc/apt/sources.list.d/*.list 2>/dev/null | sed 's/^deb /deb-src /' |
      $sudo tee /etc/apt/sources.list.d/vertexmill-deb-src.list >/dev/null
  fi
  need_update=1
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

# Package lists older than a day may not know the archive's latest security updates, whose sources
# are the only ones it still serves.
lists_are_old() {
  [[ -z $(find /var/lib/apt/lists -maxdepth 1 -name '*_Sources' -mmin -1440 2>/dev/null | head -n1) ]]
}
updated=0
update() {
  if [[ $updated -eq 0 ]]; then $sudo apt-get update -qq; updated=1; fi
}
if [[ ${#missing[@]} -gt 0 || $need_update -eq 1 ]] || { [[ $windows -eq 1 ]] && lists_are_old; }; then
  update
fi

if [[ ${#missing[@]} -gt 0 ]]; then
  echo "Installing: ${missing[*]}"
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The Windows build compiles the libraries the Linux build links from the source of the installed
# version. Once a security update has replaced that version in the archive its source cannot be
# fetched any more: the -dev package is upgraded to the version on offer, so that both builds
# still use the same library.
if [[ $windows -eq 1 ]]; then
  mapfile -t stale < <(scripts/windows-sources.sh stale)
  if [[ ${#stale[@]} -gt 0 ]]; then
    echo "Upgrading to the version the archive serves: ${stale[*]}"
    update
    $sudo apt-get install -y -qq --no-install-recommends --only-upgrade "${stale[@]}"
  fi
fi
