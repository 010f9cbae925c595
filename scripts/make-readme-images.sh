#!/usr/bin/env bash
# Regenerates the README's images under docs/images/ with the built tools: before/after previews of
# the ring example (vertex-cache and wireframe modes), and screenshots (headless Chromium) of the
# examples' report page at 1280 and 1920 pixels wide and of a page comparing a re-export with it.
#
#   scripts/make-readme-images.sh [BUILD_DIR]      (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build}"
inspect="$build/tools/geometry_inspect/geometry_inspect"
vertexmill="$build/tools/vertexmill/vertexmill"
# Inside the build folder and named relatively, so the page shows short paths.
work="$build/readme-images"
rm -rf "$work"
trap 'rm -rf "$work"' EXIT

mkdir -p "$work/out" "$work/again" docs/images
"$vertexmill" --tree --quiet --src-path examples --dst-path "$work/out" --report "$work/report.json" \
  --report-html "$work/report.html"
for mode in cache wireframe; do
  "$inspect" --render "docs/images/preview-ring-$mode.png" --render-mode "$mode" --render-size 256 \
    --source examples/props/ring.primitives "$work/out/examples/props/ring.geometry"
done
"$inspect" --render docs/images/preview-jumper-uv.png --render-mode uv --render-size 256 \
  "$work/out/examples/creatures/jumper.geometry"

# A re-export to compare with: one model gone, one broken, one added.
cp -r examples "$work/reexport"
rm "$work/reexport/props/ring.primitives"
head -c 64 /dev/urandom >"$work/reexport/ships/buoy.primitives"
cp "$work/reexport/creatures/spot.primitives" "$work/reexport/creatures/spot_variant.primitives"
"$vertexmill" --tree --quiet --keep-going --src-path "$work/reexport" --dst-path "$work/again" \
  --report-html "$work/compare.html" --compare "$work/report.json" || true

shot() { # PAGE WIDTH HEIGHT IMAGE
  chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking \
    --disable-component-update --disable-sync --user-data-dir="$work/profile" --hide-scrollbars \
    --window-size="$2,$3" --virtual-time-budget=3000 --screenshot="$PWD/docs/images/$4" \
    "file://$PWD/$work/$1" 2>/dev/null
}
shot report.html 1280 900 report-page-1280.png
shot report.html 1920 1000 report-page-1920.png
shot compare.html 1280 760 report-compare.png
# One model's detail, linked by its source path, with its texel density shown.
shot "report.html#model=$(python3 -c 'import sys, urllib.parse; print(urllib.parse.quote(sys.argv[1]))' \
  "$(sed -n 's/.*"source": "\([^"]*jumper.primitives\)".*/\1/p' "$work/report.json" | head -n1)")&mode=uv" \
  1280 1500 report-detail-uv.png
rm -f docs/images/report-page.png
ls -l docs/images/
