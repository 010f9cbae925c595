#!/usr/bin/env bash
# The Debian package, as a user gets it: made from BUILD_DIR with CPack, installed with dpkg into
# an empty root of its own (its own dpkg database, nothing of the machine's touched), and its
# tools run from there.
# What it shows: the package installs with dpkg (control data, file list), puts the tools in
# /usr/bin and the documents in /usr/share/doc/vertexmill, every library its Depends names is a
# package this machine has in a version that satisfies it, and the installed tools run without
# the build tree (no search path into it, nothing missing) and convert a model exactly as the
# build does.
# Usage: scripts/test-package.sh [BUILD_DIR]    (default build; configured and built already)
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(cd "${1:-build}" && pwd)
version=$(sed -n 's/^CPACK_PACKAGE_VERSION:[A-Z]*=//p' "$build/CMakeCache.txt")
if [[ -z "$version" ]]; then
  version=$(grep -m1 -o 'set(CPACK_PACKAGE_VERSION "[^"]*"' "$build/CPackConfig.cmake" | cut -d'"' -f2)
fi

fail() { echo "package test: $*" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

echo "== Debian package"
rm -rf "$build/packages"
(cd "$build" && cpack -G DEB >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log"; fail "cpack failed"; }
deb=$(ls "$build"/packages/vertexmill_*.deb)
echo "   $(basename "$deb"), $(stat -c %s "$deb") bytes"

# Depends: each package named must be installed here, in a version that satisfies it.
depends=$(dpkg-deb -f "$deb" Depends)
[[ -n "$depends" ]] || fail "the package has no Depends"
# libcurl4 and libssl3 hold libraries that vertexmill loads while it runs, which shlibdeps cannot see.
for library in libmeshoptimizer libspdlog libfmt zlib1g libstdc++ libcurl4 libssl3; do
  [[ "$depends" == *"$library"* ]] || fail "Depends does not name $library: $depends"
done
IFS=',' read -ra clauses <<<"$depends"
for clause in "${clauses[@]}"; do
  read -r name relation wanted <<<"$(sed -E 's/^ *([^ (]+) *(\(([<>=]+) *([^)]*)\))?.*$/\1 \3 \4/' <<<"$clause")"
  installed=$(dpkg-query -W -f='${Version}' "$name" 2>/dev/null) || fail "$name (from Depends) is not installed"
  if [[ -n "$relation" ]]; then
    case "$relation" in ">=") op=ge ;; "<=") op=le ;; ">>") op=gt ;; "<<") op=lt ;; "=") op=eq ;; *) fail "relation $relation" ;; esac
    dpkg --compare-versions "$installed" "$op" "$wanted" || fail "$name $installed does not satisfy $relation $wanted"
  fi
done

# An empty root with a dpkg database of its own. Its database knows no other package, so the
# Depends (checked against this machine above) are forced.
root="$work/root"
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
touch "$root/var/lib/dpkg/status" "$root/var/lib/dpkg/available"
dpkg --root="$root" --log=/dev/null --force-not-root --force-depends --force-script-chrootless -i "$deb" \
  >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; fail "dpkg -i failed"; }
dpkg --root="$root" -s vertexmill | grep -q '^Status: install ok installed' || fail "dpkg does not list vertexmill as installed"

bin="$root/usr/bin"
for tool in vertexmill geometry_inspect primitives_from_obj; do
  [[ -x "$bin/$tool" ]] || fail "$tool is not in /usr/bin"
  if readelf -d "$bin/$tool" | grep -qE 'RPATH|RUNPATH'; then fail "$tool keeps a library search path"; fi
  if ldd "$bin/$tool" | grep -q 'not found'; then fail "$tool misses a library: $(ldd "$bin/$tool")"; fi
done
for doc in README.md docs/usage.md docs/report.md docs/licences.md; do
  [[ -s "$root/usr/share/doc/vertexmill/$doc" ]] || fail "/usr/share/doc/vertexmill/$doc is missing"
done

# Run from the installed place, with nothing of the build on the search paths.
run() { env -i PATH=/usr/bin:/bin HOME="$work" "$@"; }
[[ "$(run "$bin/vertexmill" --version)" == "vertexmill $version" ]] || fail "vertexmill --version: $(run "$bin/vertexmill" --version)"
for tool in geometry_inspect primitives_from_obj; do
  run "$bin/$tool" --help >/dev/null || fail "$tool --help failed"
  if shown=$(run "$bin/$tool" --version 2>/dev/null); then
    [[ "$shown" == "$tool $version" ]] || fail "$tool --version: $shown"
  else
    echo "   note: $tool has no --version"
  fi
done

# An example, converted and validated by the installed tools, byte-identical to the build's.
mkdir -p "$work/installed" "$work/built"
run "$bin/vertexmill" --tree examples "$work/installed" || fail "the installed vertexmill cannot convert the examples"
"$build/tools/vertexmill/vertexmill" --tree examples "$work/built"
diff -r "$work/built" "$work/installed" >/dev/null || fail "the installed vertexmill writes different files"
run "$bin/geometry_inspect" --validate "$work/installed/examples/props/crate.geometry" >/dev/null ||
  fail "the installed geometry_inspect does not find the converted crate sound"
run "$bin/primitives_from_obj" --procedural cube "$work/cube.primitives" >/dev/null || fail "the installed importer failed"
run "$bin/vertexmill" "$work/cube.primitives" "$work" || fail "the imported cube does not convert"
[[ -s "$work/cube.geometry" ]] || fail "no cube.geometry"
# The cache hashes with a library loaded only when it is needed: it must be found from here too.
run "$bin/vertexmill" --cache "$work/cache" "$work/cube.primitives" "$work" || fail "the installed vertexmill cannot use a cache"
[[ -n "$(find "$work/cache" -type f)" ]] || fail "the installed vertexmill kept nothing in its cache"
echo "   installed with dpkg into an empty root; the tools run from it and convert the examples"
