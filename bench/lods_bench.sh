#!/usr/bin/env bash
# Levels of detail per corpus mesh: bench/lods_bench.sh BUILD_DIR
#
# For every mesh of the corpus, after an untimed import (.obj -> .primitives, xyznuvtb) and
# preparation of the converted data (bench_corpus_prepare), REPEATS rounds (default 3) of:
#   plain   vertexmill without levels;
#   lods3   vertexmill --lods 3 --jobs 1, and lods3j2 the same with --jobs 2;
#   lods1   vertexmill --lods 1;
#   floor   bench_lod_floor: the simplifier calls of the three levels alone, on the same data;
#   gltf    gltfpack -si 0.5 on the .obj (one level), when gltfpack is installed.
# The LOD work is lods3 - plain; it is compared with the floor's in-process time of the calls. The
# chain's --jobs 2 speed-up is (lods3 - plain) / (lods3j2 - plain). Wall times, medians.

set -euo pipefail

bench_name=bench_lods
source "$(dirname "$0")/common.sh"
bench_setup "$@"
repeats=${REPEATS:-3}
bench_corpus_tools
floor=$build/bench/bench_lod_floor
bench_require "ninja vertexmill primitives_from_obj bench_corpus_prepare bench_lod_floor" \
  "$vertexmill" "$importer" "$prepare" "$floor"
bench_work vertexmill_lods

echo "# vertexmill levels of detail"
echo
echo "date $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) cores, load average at start $(cut -d' ' -f1-3 /proc/loadavg),"
echo "$repeats rounds per mesh, medians; times in seconds (wall)."
echo
echo "| mesh | triangles | plain | --lods 3 | LOD work | floor (calls alone) | LOD work / floor | --lods 3 -j2 | chain -j1/-j2 | --lods 1 | level-1 triangles | gltfpack -si 0.5 | gltfpack triangles | --lods 1 / gltfpack |"
echo "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|"
bench_corpus_objs
for obj in "${objs[@]}"; do
  bench_prepare_mesh "$obj"
  for kind in plain lods3 lods3j2 lods1 gltf; do : >"$dir/$kind.txt"; done
  : >"$dir/floor_us.txt"
  for ((round = 0; round < repeats; ++round)); do
    run_measured "$dir/plain.txt" "$vertexmill" --no-cache "$dir/$name.primitives" "$dir/out"
    run_measured "$dir/lods3.txt" "$vertexmill" --no-cache --lods 3 -j 1 "$dir/$name.primitives" "$dir/out"
    run_measured "$dir/lods3j2.txt" "$vertexmill" --no-cache --lods 3 -j 2 "$dir/$name.primitives" "$dir/out"
    run_measured "$dir/lods1.txt" "$vertexmill" --no-cache --lods 1 --stats "$dir/$name.primitives" "$dir/out"
    level1=$(sed -n 's/.*level 1 triangles=\([0-9]*\).*/\1/p' "$work/stdout.txt")
    "$floor" "$dir/$name.gpumesh" 3 0.5 0.01 | sed -n 's/.*floor_us=\([0-9]*\).*/\1/p' >>"$dir/floor_us.txt"
    if [[ -n $gltfpack ]]; then
      run_measured "$dir/gltf.txt" "$gltfpack" -v -si 0.5 -i "$gltf_input" -o "$dir/out.glb"
      gltf_triangles=$(sed -n 's/.*output: .* \([0-9]*\) triangles.*/\1/p' "$work/stdout.txt" | tail -n 1)
    fi
  done
  plain=$(median "$dir/plain.txt" 1)
  lods3=$(median "$dir/lods3.txt" 1)
  lods3j2=$(median "$dir/lods3j2.txt" 1)
  lods1=$(median "$dir/lods1.txt" 1)
  floor_us=$(median "$dir/floor_us.txt" 1)
  gltf=nan
  [[ -s $dir/gltf.txt ]] && gltf=$(median "$dir/gltf.txt" 1)
  awk -v n="$name" -v t="$triangles" -v p="$plain" -v l3="$lods3" -v l3j2="$lods3j2" -v l1="$lods1" -v f="$floor_us" \
      -v g="$gltf" -v t1="${level1:-0}" -v gt="${gltf_triangles:--}" 'BEGIN {
    work = l3 - p; work2 = l3j2 - p
    printf "| %s | %d | %.3f | %.3f | %.3f | %.3f | %.2f | %.3f | %.2f | %.3f | %s | %s | %s | %s |\n",
      n, t, p / 1e6, l3 / 1e6, work / 1e6, f / 1e6, (f > 0 ? work / f : 0), l3j2 / 1e6, (work2 > 0 ? work / work2 : 0),
      l1 / 1e6, t1, (g == "nan" ? "-" : sprintf("%.3f", g / 1e6)), gt, (g == "nan" ? "-" : sprintf("%.2f", l1 / g))
  }'
done
echo
echo "load average at end $(cut -d' ' -f1-3 /proc/loadavg)"
