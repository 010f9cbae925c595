#!/usr/bin/env bash
# Whole-corpus run: bench/corpus.sh BUILD_DIR
#
# For every mesh of the corpus (VERTEXMILL_CORPUS, else ../shared/corpus beside the repository):
#   1. untimed: primitives_from_obj imports the OBJ to a .primitives file (format xyznuvtb), and
#      bench_corpus_prepare stores the converted data the compiler optimises (for step 3);
#   2. vertexmill --src-path MESH.primitives --dst-path DIR, the whole process;
#   3. bench_corpus_bare MESH.gpumesh: a process making only the five meshoptimizer calls on the
#      same data (vertex cache, overdraw, vertex fetch, vertex and index encoding);
#   4. gltfpack -c -i MESH.obj -o out.glb, the whole process (merged_scene is gunzipped first,
#      untimed).
# Steps 2 to 4 run one after another, REPEATS times (default 5); each figure is the median, and
# the ratios are medians of the per-round ratios, so both sides of a ratio saw about the same load.
# Times are wall-clock (and, beside the ratios, user + system CPU time, which a loaded machine
# disturbs less); peak memory is the maximum resident set size from /usr/bin/time.
# vertexmill's time does not include the OBJ import (step 1): its input is the .primitives file.
# Afterwards bench_compile (in-process figures) runs if it was built, unless COMPILE_BENCH=0.
#
# Environment: REPEATS, VERTEXMILL_CORPUS, COMPILE_BENCH, GLTFPACK (default: gltfpack on PATH),
# KEEP_WORK=1 keeps the temporary folder.

set -euo pipefail

bench_name=bench_corpus
source "$(dirname "$0")/common.sh"
bench_setup "$@"
repeats=${REPEATS:-5}
bench_corpus_tools
bare=$build/bench/bench_corpus_bare
compile_bench=$build/bench/bench_compile

bench_require "ninja vertexmill primitives_from_obj bench_corpus_prepare bench_corpus_bare" \
  "$vertexmill" "$importer" "$prepare" "$bare"
if [[ -z $gltfpack ]]; then
  echo "bench_corpus: gltfpack not found; its columns stay empty (apt-get install -y gltfpack)" >&2
fi

bench_work vertexmill_corpus

load_before=$(cut -d' ' -f1-3 /proc/loadavg)
echo "# vertexmill whole-corpus run"
echo
echo "date $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) cores ($(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')),"
echo "load average at start $load_before, $repeats rounds per mesh, medians shown."
echo "vertexmill's time excludes the .obj -> .primitives import; bare = the five meshoptimizer calls alone"
echo "on the same converted data, as a process; gltfpack = gltfpack -c on the .obj."
echo

# Corpus meshes, smallest file first.
bench_corpus_objs
if [[ ${#objs[@]} -eq 0 ]]; then
  echo "bench_corpus: no .obj or .obj.gz files in $corpus; nothing to measure."
  exit 0
fi

results=$work/results.txt
: >"$results"
for obj in "${objs[@]}"; do
  bench_prepare_mesh "$obj"
  raw_bytes=$(sed -n 's/.*raw_bytes=\([0-9]*\).*/\1/p' <<<"$figures")

  : >"$dir/tool.txt"
  : >"$dir/bare.txt"
  : >"$dir/gltf.txt"
  for ((round = 0; round < repeats; ++round)); do
    rm -f "$dir/out/$name.geometry" "$dir/out.glb"
    run_measured "$dir/tool.txt" "$vertexmill" --src-path "$dir/$name.primitives" --dst-path "$dir/out"
    run_measured "$dir/bare.txt" "$bare" "$dir/$name.gpumesh"
    if [[ -n $gltfpack ]]; then
      run_measured "$dir/gltf.txt" "$gltfpack" -c -i "$gltf_input" -o "$dir/out.glb"
    fi
  done

  geometry_bytes=$(stat -c %s "$dir/out/$name.geometry")
  tool_us=$(median "$dir/tool.txt" 1)
  tool_kib=$(median "$dir/tool.txt" 2)
  bare_us=$(median "$dir/bare.txt" 1)
  bare_kib=$(median "$dir/bare.txt" 2)
  tool_bare=$(ratio_median "$dir/tool.txt" "$dir/bare.txt" 1)
  tool_bare_cpu=$(ratio_median "$dir/tool.txt" "$dir/bare.txt" 3)
  if [[ -s $dir/gltf.txt ]]; then
    gltf_us=$(median "$dir/gltf.txt" 1)
    gltf_kib=$(median "$dir/gltf.txt" 2)
    tool_gltf=$(ratio_median "$dir/tool.txt" "$dir/gltf.txt" 1)
    tool_gltf_cpu=$(ratio_median "$dir/tool.txt" "$dir/gltf.txt" 3)
  else
    gltf_us=nan gltf_kib=nan tool_gltf=nan tool_gltf_cpu=nan
  fi
  echo "$name $triangles $tool_us $tool_kib $geometry_bytes $raw_bytes $bare_us $bare_kib $tool_bare $gltf_us $gltf_kib $tool_gltf $tool_bare_cpu $tool_gltf_cpu" >>"$results"
done
sort -k2,2n -o "$results" "$results"
load_after=$(cut -d' ' -f1-3 /proc/loadavg)

echo "| mesh | triangles | vertexmill s | Mtri/s | peak MiB | .geometry / raw | bare s | bare MiB | vertexmill / bare | (CPU) | gltfpack s | gltfpack MiB | vertexmill / gltfpack | (CPU) |"
echo "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|"
awk '
  function optional(value, scale, format) { return value == "nan" ? "-" : sprintf(format, value / scale) }
  {
    printf "| %s | %d | %.3f | %.2f | %.1f | %.3f | %.3f | %.1f | %.2f | %.2f | %s | %s | %s | %s |\n",
      $1, $2, $3 / 1e6, $2 / ($3 / 1e6) / 1e6, $4 / 1024, $5 / $6, $7 / 1e6, $8 / 1024, $9, $13,
      optional($10, 1e6, "%.3f"), optional($11, 1024, "%.1f"), optional($12, 1, "%.2f"), optional($14, 1, "%.2f")
  }' "$results"
echo
echo "Times are wall-clock medians; ratios are medians of per-round ratios of wall time, and (CPU) of"
echo "user + system CPU time. Peak = maximum resident set size. .geometry / raw = output file bytes over"
echo "the converted vertex bytes plus index bytes at the stored widths."
echo
echo "load average at end $load_after"
echo

# The aims, checked on this run's ratios.
echo "Aims:"
awk '
  $2 >= 30000 { verdict = ($9 <= 1.10) ? "met" : "MISSED"; printf "- %s: vertexmill / bare %.2f <= 1.10: %s (CPU time ratio %.2f)\n", $1, $9, verdict, $13; if (verdict == "MISSED") missed = 1 }
  ($1 == "koala" || $1 == "merged_scene") && $12 != "nan" { verdict = ($12 < 1.0) ? "met" : "MISSED"; printf "- %s: vertexmill / gltfpack time %.2f < 1: %s (CPU time ratio %.2f)\n", $1, $12, verdict, $14; if (verdict == "MISSED") missed = 1 }
  $1 == "merged_scene" && $11 != "nan" { verdict = ($4 < $11) ? "met" : "MISSED"; printf "- merged_scene: peak memory %.1f MiB < gltfpack %.1f MiB: %s\n", $4 / 1024, $11 / 1024, verdict; if (verdict == "MISSED") missed = 1 }
  END { if (missed) print "(some aims missed: see bench/README.md for where the time and memory go)" }
' "$results"

if [[ ${COMPILE_BENCH:-1} != 0 && -x $compile_bench ]]; then
  echo
  echo "In-process figures (bench_compile; compile = GeometryCompiler::compile, meshopt = the five calls):"
  echo
  VERTEXMILL_CORPUS=$corpus "$compile_bench" --benchmark_counters_tabular=true \
    --benchmark_repetitions="${COMPILE_REPEATS:-3}" --benchmark_display_aggregates_only=true \
    --benchmark_filter='.*' 2>&1 | grep -v '_mean\|_stddev\|_cv' || true
fi
