#!/usr/bin/env bash
# Converts the bundled example tree with the freshly built tool.
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build}"
out="${2:-out}"
tool="$build/tools/vertexmill/vertexmill"
if [[ ! -x "$tool" ]]; then
  echo "vertexmill is not built yet ($tool)"; exit 1
fi
mkdir -p "$out"
"$tool" --tree --verbose --src-path examples --dst-path "$out"
echo
echo "Converted examples are in $out/examples/"
echo "Inspect one:   $build/tools/geometry_inspect/geometry_inspect $out/examples/props/crate.geometry"
echo "Validate:      $build/tools/geometry_inspect/geometry_inspect --validate $out/examples/creatures/spot.geometry"
echo "Look at it:    $build/tools/geometry_inspect/geometry_inspect --export-obj spot.obj $out/examples/creatures/spot.geometry"
echo "Statistics:    $build/tools/vertexmill/vertexmill --tree --report report.json --src-path examples --dst-path $out"
