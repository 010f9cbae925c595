#!/usr/bin/env bash
# The Windows build, tested on Linux: cross-compiles everything with MinGW-w64 into build-mingw/,
# runs the whole test suite under Wine through CTest, then converts the examples/ tree with
# vertexmill.exe under Wine and with the Linux build's vertexmill, and checks that every .geometry
# file is byte-identical.
# Usage: scripts/test-windows.sh        (JOBS=n for parallel jobs, default 2;
#                                        LINUX_BUILD=dir for the Linux build to compare with, default build)
set -euo pipefail
cd "$(dirname "$0")/.."
jobs="${JOBS:-2}"
build=build-mingw
linux_build="${LINUX_BUILD:-build}"

scripts/install-deps.sh --windows

seconds() { date +%s; }

echo "== Windows cross build (MinGW-w64, $build)"
start=$(seconds)
cmake -S . -B "$build" -G Ninja --no-warn-unused-cli -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64.cmake -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_C_FLAGS_RELEASE="-O2 -DNDEBUG" -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" >/dev/null
cmake --build "$build" -j"$jobs"
echo "   cross build: $(($(seconds) - start)) s"

# A Wine prefix of our own inside the build folder: nothing of the user's is touched, and its
# temporary folder (where the tests make their trees) starts empty every time.
export WINEPREFIX="$PWD/$build/wineprefix"
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml=" # no Mono or Gecko installer prompts
if [[ ! -f "$WINEPREFIX/system.reg" ]]; then
  echo "== creating the Wine prefix"
  wineboot --init >/dev/null 2>&1 || true
  wineserver --wait
fi
rm -rf "$WINEPREFIX"/drive_c/users/*/Temp/*
# One wine server for the whole run, with Wine's background services started here: started by the
# first test instead, they would keep that test's output pipe open and CTest waiting for them.
# Stopped again at the end.
wineserver --persistent=60 >/dev/null 2>&1 || true
trap 'wineserver --kill >/dev/null 2>&1 || true' EXIT
wine cmd.exe /c exit >/dev/null 2>&1 || true

echo "== tests under Wine"
start=$(seconds)
ctest --test-dir "$build" --output-on-failure -j"$jobs"
echo "   tests under Wine: $(($(seconds) - start)) s"

echo "== examples: vertexmill.exe under Wine against the Linux build"
linux_tool="$linux_build/tools/vertexmill/vertexmill"
linux_import="$linux_build/tools/primitives_from_obj/primitives_import"
if [[ ! -x "$linux_tool" || ! -x "$linux_import" ]]; then
  cmake -S . -B "$linux_build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$linux_build" -j"$jobs" --target vertexmill primitives_import
fi
compare="$build/examples-compare"
rm -rf "$compare"
mkdir -p "$compare/linux" "$compare/windows"
"$linux_tool" --tree --src-path examples --dst-path "$compare/linux"
wine "$build/bin/vertexmill.exe" --tree --src-path examples --dst-path "$compare/windows"
count=$(find "$compare/linux" -name '*.geometry' | wc -l)
if [[ $count -eq 0 ]]; then
  echo "no .geometry files were written"; exit 1
fi
if ! diff -r "$compare/linux" "$compare/windows"; then
  echo "the Windows build writes different .geometry files"; exit 1
fi
echo "   $count .geometry files, byte-identical"

echo "== the zip: vertexmill.exe unpacked and run under Wine"
rm -rf "$build/packages"
(cd "$build" && cpack -G ZIP >/dev/null)
zip=$(ls "$PWD/$build"/packages/vertexmill-*-win64.zip)
unpacked="$build/zip-test"
rm -rf "$unpacked"
mkdir -p "$unpacked"
(cd "$unpacked" && cmake -E tar xf "$zip")
folder=$(ls -d "$unpacked"/vertexmill-*-win64)
for tool in vertexmill geometry_inspect primitives_from_obj; do
  [[ -f "$folder/bin/$tool.exe" ]] || { echo "$tool.exe is not in the zip"; exit 1; }
done
for doc in README.md docs/usage.md docs/licences.md licences/meshoptimizer.txt licences/mingw-w64.txt; do
  [[ -s "$folder/share/doc/vertexmill/$doc" ]] || { echo "share/doc/vertexmill/$doc is not in the zip"; exit 1; }
done
version=$(wine "$folder/bin/vertexmill.exe" --version | tr -d '\r')
expected="vertexmill $(sed -n 's/^CMAKE_PROJECT_VERSION:[A-Z]*=//p' "$build/CMakeCache.txt")"
[[ "$version" == "$expected" ]] || { echo "the zip's vertexmill.exe --version says '$version', not '$expected'"; exit 1; }
# Run from inside the unpacked folder, as a user who unzipped it would.
repo=$PWD
mkdir -p "$compare/zip"
(cd "$folder" && wine bin/vertexmill.exe --tree --src-path "$repo/examples" --dst-path "$repo/$compare/zip")
if ! diff -r "$compare/linux" "$compare/zip"; then
  echo "the zip's vertexmill.exe writes different .geometry files"; exit 1
fi
echo "   $(basename "$zip"): $version, the examples converted byte-identical"

echo "== the importer: the zip's primitives_import.exe under Wine against the Linux build"
# Scenes of each kind an artist brings (skinned glTF, FBX and X, Collada, PLY, STL, 3DS): the same
# .primitives bytes, and their conversions the same .geometry bytes. Files the library refuses are
# refused by both, with the same status and nothing written.
models="${ASSIMP_MODELS:-/usr/share/assimp/models}"
imports="$compare/imports"
mkdir -p "$imports/linux/scenes" "$imports/windows/scenes" "$imports/linux-out" "$imports/windows-out"
imported=0
for model in glTF2/simple_skin/simple_skin.gltf FBX/huesitos.fbx FBX/spider.fbx Collada/duck.dae PLY/cube.ply \
             STL/Spider_binary.stl 3DS/fels.3ds X/BCN_Epileptic.X; do
  name=$(basename "${model%.*}")
  "$linux_import" "$models/$model" "$imports/linux/scenes/$name.primitives" >/dev/null
  (cd "$folder" && wine bin/primitives_import.exe "$models/$model" "$repo/$imports/windows/scenes/$name.primitives") >/dev/null ||
    { echo "the zip's primitives_import.exe cannot import $model"; exit 1; }
  cmp "$imports/linux/scenes/$name.primitives" "$imports/windows/scenes/$name.primitives" ||
    { echo "the zip's primitives_import.exe writes a different $name.primitives"; exit 1; }
  imported=$((imported + 1))
done
"$linux_tool" -q --tree --src-path "$imports/linux/scenes" --dst-path "$imports/linux-out"
(cd "$folder" && wine bin/vertexmill.exe -q --tree --src-path "$repo/$imports/windows/scenes" --dst-path "$repo/$imports/windows-out")
diff -r "$imports/linux-out" "$imports/windows-out" || { echo "the imports convert to different .geometry files"; exit 1; }
refused=0
for model in glTF2/BoxWithInfinites-glTF-Binary/BoxWithInfinites.glb \
             invalid/empty.3ds invalid/empty.ply invalid/empty.x invalid/empty.obj invalid/malformed.obj; do
  [[ -f "$models/$model" ]] || continue
  set +e
  "$linux_import" "$models/$model" "$imports/refused.primitives" >/dev/null 2>&1
  linux_status=$?
  (cd "$folder" && wine bin/primitives_import.exe "$models/$model" "$repo/$imports/refused.primitives") >/dev/null 2>&1
  windows_status=$?
  set -e
  if [[ $linux_status -eq 0 || $windows_status -ne $linux_status || -e "$imports/refused.primitives" ]]; then
    echo "$model: Linux status $linux_status, Windows status $windows_status (both must refuse it alike, writing nothing)"
    exit 1
  fi
  refused=$((refused + 1))
done
echo "   $imported scenes imported byte-identical and converted byte-identical; $refused bad files refused alike"

echo "== the remote cache: the zip's vertexmill.exe under Wine against nginx (WinHTTP)"
bash tests/tools/vertexmill/remote_cache_test.sh "$folder/bin/vertexmill.exe" examples wine | grep -v '^ok:'
