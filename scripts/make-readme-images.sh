#!/usr/bin/env bash
# Regenerates the README's images under docs/images/ with the built tools: a before/after
# vertex-cache preview of the ring example and a screenshot of the examples' report page
# (headless Chromium).
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

mkdir -p "$work/out" docs/images
"$vertexmill" --tree --quiet --src-path examples --dst-path "$work/out" --report-html "$work/report.html"
"$inspect" --render docs/images/preview-ring-cache.png --render-mode cache --render-size 256 \
  --source examples/props/ring.primitives "$work/out/examples/props/ring.geometry"
chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking \
  --disable-component-update --disable-sync --user-data-dir="$work/profile" --hide-scrollbars \
  --window-size=1000,760 --virtual-time-budget=3000 --screenshot="$PWD/docs/images/report-page.png" \
  "file://$PWD/$work/report.html" 2>/dev/null
ls -l docs/images/
