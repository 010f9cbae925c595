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
