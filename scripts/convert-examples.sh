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
"$tool" --tree --verbose --src-path examples --dst-path "$out" --report-html "$out/report.html"
echo
echo "Converted examples are in $out/examples/"
echo "Report page:   $out/report.html (open it in a browser: $(cd "$out" && pwd)/report.html)"
echo "Inspect one:   $build/tools/geometry_inspect/geometry_inspect $out/examples/props/crate.geometry"
echo "Validate:      $build/tools/geometry_inspect/geometry_inspect --validate $out/examples/creatures/spot.geometry"
echo "Look at it:    $build/tools/geometry_inspect/geometry_inspect --export-obj spot.obj $out/examples/creatures/spot.geometry"
echo "Preview:       $build/tools/geometry_inspect/geometry_inspect --render ring.png --render-mode cache --source examples/props/ring.primitives $out/examples/props/ring.geometry"
echo "Check a tree:  $build/tools/geometry_inspect/geometry_inspect $out/examples"
echo "Statistics:    $build/tools/vertexmill/vertexmill --tree --report report.json --src-path examples --dst-path $out"
