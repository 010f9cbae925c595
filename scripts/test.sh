#!/usr/bin/env bash
# Builds and runs every test: the normal build, the sanitizer build (AddressSanitizer +
# UndefinedBehaviorSanitizer) and the fuzz targets (clang, libFuzzer), each through CTest.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs="${JOBS:-2}"

# The Windows cross toolchain and Wine are part of the test set-up, so that every run also checks
# the users' platform; VERTEXMILL_SKIP_WINDOWS=1 leaves them out.
if [[ "${VERTEXMILL_SKIP_WINDOWS:-0}" == "1" ]]; then
  scripts/install-deps.sh
else
  scripts/install-deps.sh --windows
  # Early, before half an hour of building: every source package the Windows build compiles can
  # be fetched in the version it needs.
  echo "== the Windows build's source packages"
  scripts/windows-sources.sh check
fi

echo "== build (RelWithDebInfo)"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVERTEXMILL_WERROR=ON >/dev/null
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"
# The Debian package, made once and installed into an empty root (a few seconds).
scripts/test-package.sh build

echo "== sanitizer build (address, undefined)"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVERTEXMILL_SANITIZE=ON -DVERTEXMILL_BUILD_BENCH=OFF -DVERTEXMILL_WERROR=ON >/dev/null
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --test-dir build-asan --output-on-failure -j"$jobs"

echo "== fuzz targets (clang, libFuzzer)"
cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DVERTEXMILL_FUZZ=ON -DVERTEXMILL_BUILD_TESTS=OFF -DVERTEXMILL_BUILD_BENCH=OFF -DVERTEXMILL_WERROR=ON >/dev/null
cmake --build build-fuzz -j"$jobs"
ctest --test-dir build-fuzz --output-on-failure -j"$jobs"

# The Windows build (MinGW-w64 cross build, tests and the examples under Wine), when its packages
# are installed: scripts/install-deps.sh --windows.
if [[ "${VERTEXMILL_SKIP_WINDOWS:-0}" != "1" ]] && command -v x86_64-w64-mingw32-g++-posix >/dev/null &&
  command -v wine >/dev/null; then
  echo "== Windows cross build (MinGW-w64), tests under Wine"
  JOBS="$jobs" LINUX_BUILD=build scripts/test-windows.sh
fi
