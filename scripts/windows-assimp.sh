#!/usr/bin/env bash
# assimp for the Windows cross build: compiled from Debian's source package of the version the Linux
# build links (libassimp-dev), with Debian's patches, by the project's MinGW-w64 toolchain, as a
# static library with the importers the tools read on Windows. Debian's source leaves out the zip
# reader assimp bundles; it is taken from Debian's zlib source (minizip) of the version the host has.
# The utf8cpp and stb headers are the host's (header-only, no C library headers in them).
#
# The result is kept outside the clone, in one folder per assimp version, zlib version, toolchain and
# recipe, so that test runs on one machine build it once (about 2.5 minutes on 2 cores):
#   ${VERTEXMILL_DEPS_CACHE:-${XDG_CACHE_HOME:-~/.cache}/vertexmill}/mingw-assimp/<key>/
#
# Usage: scripts/windows-assimp.sh TOOLCHAIN_FILE [FALLBACK_DIR]
#        builds if needed and prints the install prefix; FALLBACK_DIR holds the result where the
#        cache folder cannot be written (JOBS=n for parallel jobs, default 2; progress and errors
#        go to stderr)
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
toolchain="${1:?usage: $0 TOOLCHAIN_FILE}"
toolchain="$(cd "$(dirname "$toolchain")" && pwd)/$(basename "$toolchain")"
jobs="${JOBS:-2}"

# The importers of the Windows build: what artists bring (glTF 2, FBX, Collada) and the common
# exchange formats. Each one more costs build time on every fresh machine.
importers=(GLTF FBX COLLADA OBJ PLY STL 3DS X)

assimp_version=$("$here/scripts/windows-sources.sh" version assimp)
zlib_version=$("$here/scripts/windows-sources.sh" version zlib)
compiler=x86_64-w64-mingw32-g++-posix
compiler_version=$("$compiler" --version | head -n1)
recipe=$(cat "$0" "$toolchain" | sha256sum | cut -c1-16)
key=$(printf '%s\n' "$assimp_version" "$zlib_version" "$compiler_version" "$recipe" | sha256sum | cut -c1-16)
safe_version=$(printf '%s' "$assimp_version" | tr -c 'A-Za-z0-9.+~-' '_')
cache="${VERTEXMILL_DEPS_CACHE:-${XDG_CACHE_HOME:-${HOME:-/nonexistent}/.cache}/vertexmill}/mingw-assimp"
if ! mkdir -p "$cache" 2>/dev/null || [[ ! -w $cache ]]; then
  [[ -n ${2:-} ]] || { echo "windows-assimp.sh: cannot write $cache" >&2; exit 1; }
  echo "   $cache cannot be written: assimp for Windows is kept in $2" >&2
  cache="$2"
  mkdir -p "$cache"
fi
prefix="$cache/${safe_version}-$key"

if [[ -f "$prefix/done" ]]; then
  echo "$prefix"
  exit 0
fi

# One build at a time per machine: a second run waits for the first and then takes its result.
exec 9>"$cache/lock"
flock 9
if [[ -f "$prefix/done" ]]; then
  echo "$prefix"
  exit 0
fi

work=$(mktemp -d "$cache/build.XXXXXX")
trap 'rm -rf "$work"' EXIT
log="$work/log.txt"
fail() {
  echo "windows-assimp.sh: $1 (the last lines of $log follow)" >&2
  tail -n 30 "$log" >&2 || true
  exit 1
}

echo "   assimp $assimp_version for Windows: building it once into $prefix" >&2
start=$(date +%s)
(cd "$work" && apt-get source -qq "assimp=$assimp_version" && apt-get source -qq "zlib=$zlib_version") >"$log" 2>&1 ||
  fail "cannot fetch the source packages assimp=$assimp_version and zlib=$zlib_version"
source_dir=$(ls -d "$work"/assimp-*/ | head -n1)
zlib_dir=$(ls -d "$work"/zlib-*/ | head -n1)
minizip="$zlib_dir/contrib/minizip"
[[ -d $source_dir && -d $minizip ]] || fail "the source packages did not unpack"

# The zip reader, under the names assimp's build looks for (its decryption is all in crypt.h).
mkdir -p "$source_dir/contrib/unzip"
cp "$minizip"/{ioapi.c,ioapi.h,unzip.c,unzip.h,crypt.h} "$source_dir/contrib/unzip/"
echo "/* the decryption is in crypt.h */" >"$source_dir/contrib/unzip/crypt.c"
# Debian links its Draco package, which has no Windows build: this build reads glTF without the
# Draco mesh compression.
sed -i -e 's/^find_package(draco CONFIG REQUIRED)$//' -e 's/^target_link_libraries(assimp \${DRACO_LIBRARIES})$//' \
  "$source_dir/code/CMakeLists.txt"
# Header-only libraries of the host, each through a link of its own: the host's /usr/include must
# not be on the cross compiler's path.
headers="$work/headers"
mkdir -p "$headers"
for link in utf8cpp/utf8.h utf8cpp/utf8 stb; do
  [[ -e /usr/include/$link ]] || fail "/usr/include/$link not found: install libutfcpp-dev and libstb-dev"
  ln -s "/usr/include/$link" "$headers/$(basename "$link")"
done

options=(-DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=OFF
         -DCMAKE_C_FLAGS="-isystem $headers" -DCMAKE_CXX_FLAGS="-isystem $headers"
         -DCMAKE_INSTALL_PREFIX="$work/install" -DCMAKE_DISABLE_FIND_PACKAGE_PkgConfig=ON
         -DASSIMP_BUILD_ALL_IMPORTERS_BY_DEFAULT=OFF -DASSIMP_NO_EXPORT=ON -DASSIMP_BUILD_TESTS=OFF
         -DASSIMP_BUILD_ASSIMP_TOOLS=OFF -DASSIMP_BUILD_SAMPLES=OFF -DASSIMP_BUILD_ZLIB=OFF
         -DASSIMP_BUILD_DRACO=OFF -DASSIMP_WARNINGS_AS_ERRORS=OFF -DASSIMP_INSTALL_PDB=OFF)
for importer in "${importers[@]}"; do options+=(-DASSIMP_BUILD_${importer}_IMPORTER=ON); done
cmake -S "$source_dir" -B "$work/build" -G Ninja "${options[@]}" >>"$log" 2>&1 || fail "assimp's configuration failed"
cmake --build "$work/build" -j"$jobs" >>"$log" 2>&1 || fail "assimp's build failed"
cmake --install "$work/build" >>"$log" 2>&1 || fail "assimp's installation failed"
[[ -f "$work/install/lib/libassimp.a" ]] || fail "no libassimp.a was built"

# The licence texts travel with the Windows zip.
mkdir -p "$work/install/share/licences"
cp "$source_dir/debian/copyright" "$work/install/share/licences/assimp.txt"
cp "$zlib_dir/debian/copyright" "$work/install/share/licences/minizip.txt"
printf '%s\n' "assimp $assimp_version" "zlib (minizip) $zlib_version" "$compiler_version" \
  "importers: ${importers[*]}" >"$work/install/share/built-from.txt"

rm -rf "$prefix"
mv "$work/install" "$prefix"
touch "$prefix/done"
echo "   assimp for Windows built in $(($(date +%s) - start)) s" >&2
echo "$prefix"
