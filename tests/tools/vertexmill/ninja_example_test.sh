#!/usr/bin/env bash
# The example content build (examples/ninja_build, cmake/VertexmillGeometry.cmake) with real
# CMake and Ninja, over a copy of the example models in a temporary folder:
#   - the first build converts every model, the second nothing;
#   - touching a companion file converts exactly its model again;
#   - with a bad model, `ninja -k 0` fails but still converts the other changed models.
# Usage: ninja_example_test.sh VERTEXMILL SOURCE_ROOT
set -uo pipefail

vertexmill=$1
root=$2
for tool in cmake ninja; do
  if ! command -v "$tool" >/dev/null; then
    echo "FAIL: $tool is not installed (scripts/install-deps.sh)"
    exit 1
  fi
done

work=$(mktemp -d "${TMPDIR:-/tmp}/vertexmill_ninja.XXXXXX")
trap 'rm -rf "$work"' EXIT
# shellcheck source=checks.sh
source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"

mkdir -p "$work/content"
for folder in creatures props ships; do
  cp -r "$root/examples/$folder" "$work/content/"
done
models=$(find "$work/content" -name '*.primitives' | wc -l)

if ! cmake -S "$root/examples/ninja_build" -B "$work/build" -G Ninja -DVERTEXMILL="$vertexmill" \
  -DCONTENT_DIR="$work/content" >"$work/configure.log" 2>&1; then
  cat "$work/configure.log"
  echo "FAIL: configure"
  exit 1
fi

# converted LOG: the models a build converted, one relative path per line, sorted.
converted() { grep -o 'vertexmill [^ ]*\.primitives' "$1" | cut -d' ' -f2 | sort; }
converted_includes() { converted "$1" | grep -qx "$2"; }

ninja -C "$work/build" >"$work/first.log" 2>&1
check "first build succeeds" test $? -eq 0
check "first build converts every model" test "$(converted "$work/first.log" | wc -l)" -eq "$models"
check "every output written" test "$(find "$work/build/geometry" -name '*.geometry' | wc -l)" -eq "$models"

ninja -C "$work/build" >"$work/second.log" 2>&1
check "second build converts nothing" test -z "$(converted "$work/second.log")"

touch "$work/content/props/crate.collision"
ninja -C "$work/build" >"$work/touched.log" 2>&1
check "touching a companion converts exactly its model" test "$(converted "$work/touched.log")" = "props/crate.primitives"

touch "$work/content/ships/buoy.primitives"
echo "not a section container" >"$work/content/props/broken.primitives"
ninja -C "$work/build" -k 0 >"$work/keep.log" 2>&1
status=$?
check "a bad model fails the build" test $status -ne 0
check "-k 0 goes past it" converted_includes "$work/keep.log" ships/buoy.primitives
check "the bad model has no output" test ! -e "$work/build/geometry/props/broken.geometry"
check "the bad model has no dependency file" test ! -e "$work/build/geometry/props/broken.geometry.d"

rm "$work/content/props/broken.primitives"
ninja -C "$work/build" >"$work/fixed.log" 2>&1
check "without the bad model the build succeeds" test $? -eq 0
check "and converts nothing more" test -z "$(converted "$work/fixed.log")"

if [[ $failures -ne 0 ]]; then
  for f in "$work"/*.log; do echo "--- $f"; cat "$f"; done
  echo "$failures check(s) failed"
  exit 1
fi
echo "all ninja example checks passed"
