#!/usr/bin/env bash
# Regenerates the example models under examples/ with the importer. The output is
# deterministic: the same importer and inputs give byte-identical files.
#
#   scripts/make-examples.sh [BUILD_DIR]      (default: build)
#
# Spot is read from the mesh corpus (CORPUS_DIR, default ../shared/corpus), the skinned jumper from
# the assimp test models (ASSIMP_MODELS, default /usr/share/assimp/models, package
# assimp-testmodels); the other models are the importer's built-in shapes.
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build}"
corpus="${CORPUS_DIR:-../shared/corpus}"
models="${ASSIMP_MODELS:-/usr/share/assimp/models}"
tool="$build/tools/primitives_from_obj/primitives_import"

if [[ ! -f "$build/build.ninja" && ! -f "$build/Makefile" ]]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" --target primitives_import -j"${JOBS:-2}" >/dev/null

spot="$corpus/spot_low_resolution.obj"
if [[ ! -f "$spot" ]]; then
  echo "make-examples: $spot not found (set CORPUS_DIR to the mesh corpus)" >&2
  exit 1
fi
jumper="$models/X/BCN_Epileptic.X"
if [[ ! -f "$jumper" ]]; then
  echo "make-examples: $jumper not found (install assimp-testmodels or set ASSIMP_MODELS)" >&2
  exit 1
fi

mkdir -p examples/props examples/creatures examples/ships
"$tool" --procedural cube examples/props/crate.primitives --format xyznuvtb
"$tool" --procedural torus examples/props/ring.primitives --format xyznuv2tb
"$tool" --procedural sphere examples/ships/buoy.primitives --format xyznuviiiwwr
"$tool" "$spot" examples/creatures/spot.primitives --format xyznuviiiwwtb
"$tool" "$jumper" examples/creatures/jumper.primitives

# Companion collision models: opaque to the converter, which only carries them into the
# .geometry file. A fixed text padded with zeros to 256 bytes.
collision() {
  { printf '%s\n' "$@"; head -c 256 /dev/zero; } | head -c 256 >"$out"
}
out=examples/props/crate.collision collision "vertexmill example collision" "box" "min -0.5 -0.5 -0.5" "max 0.5 0.5 0.5"
out=examples/ships/buoy.collision collision "vertexmill example collision" "sphere" "centre 0 0 0" "radius 0.5"

echo "Examples regenerated:"
find examples -type f \( -name '*.primitives' -o -name '*.collision' \) | LC_ALL=C sort | while read -r f; do
  printf '  %-36s %8d bytes\n' "$f" "$(wc -c <"$f")"
done
