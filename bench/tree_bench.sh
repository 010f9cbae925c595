#!/usr/bin/env bash
# Tree-mode run: bench/tree_bench.sh BUILD_DIR
#
# 1. untimed: primitives_from_obj imports every corpus mesh (VERTEXMILL_CORPUS, else
#    ../shared/corpus beside the repository) in several source formats into one tree,
#    FORMAT/MESH.primitives: the six small meshes in xyznuv, xyznuvtb and xyznuv2tb, merged_scene
#    in xyznuvtb and xyznuv (20 models). The tree is kept between runs in TREE_CACHE (default
#    BUILD_DIR/bench_tree_models) and rebuilt when the importer is newer.
# 2. vertexmill --tree TREE OUT with --jobs 1 and with --jobs 2, alternating, REPEATS rounds
#    (default 7). The two output trees are compared byte for byte after the first round.
# 3. vertexmill merged_scene.primitives OUT (default mode, 17 render sets) with --jobs 1 and
#    --jobs 2, alternating, REPEATS rounds.
# 4. once: peak memory of --jobs 2 over 40 and over 800 copies (hard links) of a small model, to
#    show that memory follows the models in flight, not the size of the tree.
# Figures are medians; a speed-up is the median of the per-round ratios, so both sides of a ratio
# saw about the same load, and also the ratio of the best times (least disturbed by other work).
# Times are wall-clock; "cpu" is user + system time, so cpu / wall shows how many cores the run
# kept busy whatever else the machine did. Peak memory is the maximum resident set size from
# /usr/bin/time. Other work on the machine distorts the figures: the load average is shown.
#
# Environment: REPEATS, VERTEXMILL_CORPUS, TREE_CACHE, KEEP_WORK=1 keeps the output folder.

set -euo pipefail

bench_name=bench_tree
source "$(dirname "$0")/common.sh"
bench_setup "$@"
repeats=${REPEATS:-7}
gnu_time=/usr/bin/time
bench_require "ninja vertexmill primitives_from_obj" "$vertexmill" "$importer"
bench_require "apt-get install -y time" "$gnu_time"
bench_tree_models "${TREE_CACHE:-$build/bench_tree_models}"
models=$(find "$tree" -name '*.primitives' | wc -l)
single=$tree/xyznuvtb/merged_scene.primitives

work=$(mktemp -d "${TMPDIR:-/tmp}/vertexmill_tree.XXXXXX")
cleanup() { [[ ${KEEP_WORK:-0} == 1 ]] || rm -rf "$work"; }
trap cleanup EXIT

# run_measured OUTFILE COMMAND...: runs the command with its output discarded and appends
# "<wall microseconds> <peak KiB> <cpu seconds>" to OUTFILE. Exits the script when the command
# fails.
run_measured() {
  local out=$1
  shift
  local start end
  start=$(date +%s%N)
  if ! "$gnu_time" -f '%M %U %S' -o "$work/time.txt" "$@" >"$work/stdout.txt" 2>"$work/stderr.txt"; then
    echo "bench_tree: failed: $*" >&2
    cat "$work/stderr.txt" >&2
    exit 1
  fi
  end=$(date +%s%N)
  echo "$(((end - start) / 1000)) $(tail -n 1 "$work/time.txt" | awk '{ print $1, $2 + $3 }')" >>"$out"
}

# median FILE COLUMN: the median of one column of numbers.
median() {
  sort -g -k"$2,$2" "$1" | awk -v c="$2" '{ v[NR] = $c } END { if (NR == 0) print "nan"; else if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

# speedup SLOW FAST: the median of the per-round ratios of column 1 of SLOW to column 1 of FAST.
speedup() {
  paste -d' ' "$1" "$2" | awk '{ print $1 / $4 }' >"$work/ratios.txt"
  median "$work/ratios.txt" 1
}

load_before=$(cut -d' ' -f1-3 /proc/loadavg)
: >"$work/tree1.txt"
: >"$work/tree2.txt"
: >"$work/single1.txt"
: >"$work/single2.txt"
for ((round = 0; round < repeats; ++round)); do
  for jobs in 1 2; do
    rm -rf "$work/out$jobs"
    mkdir -p "$work/out$jobs"
    run_measured "$work/tree$jobs.txt" "$vertexmill" --jobs "$jobs" --tree "$tree" "$work/out$jobs"
  done
  if ((round == 0)) && ! diff -r "$work/out1" "$work/out2" >/dev/null; then
    echo "bench_tree: --jobs 1 and --jobs 2 wrote different trees" >&2
    exit 1
  fi
  for jobs in 1 2; do
    rm -rf "$work/single$jobs"
    mkdir -p "$work/single$jobs"
    run_measured "$work/single$jobs.txt" "$vertexmill" --jobs "$jobs" "$single" "$work/single$jobs"
  done
  if ((round == 0)) && ! cmp -s "$work/single1/merged_scene.geometry" "$work/single2/merged_scene.geometry"; then
    echo "bench_tree: --jobs 1 and --jobs 2 wrote different merged_scene.geometry files" >&2
    exit 1
  fi
done
load_after=$(cut -d' ' -f1-3 /proc/loadavg)

# Many small models: the same model linked into 20 folders.
: >"$work/many40.txt"
: >"$work/many800.txt"
for count in 40 800; do
  dir=$work/many$count
  for ((i = 0; i < count; ++i)); do
    mkdir -p "$dir/tree/d$((i % 20))"
    ln "$tree/xyznuvtb/spot_low_resolution.primitives" "$dir/tree/d$((i % 20))/m$i.primitives" 2>/dev/null ||
      cp "$tree/xyznuvtb/spot_low_resolution.primitives" "$dir/tree/d$((i % 20))/m$i.primitives"
  done
  mkdir -p "$dir/out"
  run_measured "$work/many$count.txt" "$vertexmill" --jobs 2 --tree "$dir/tree" "$dir/out"
  rm -rf "$dir"
done

tree_speedup=$(speedup "$work/tree1.txt" "$work/tree2.txt")
single_speedup=$(speedup "$work/single1.txt" "$work/single2.txt")

echo "# vertexmill tree mode"
echo
echo "date $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) cores ($(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')),"
echo "load average $load_before at start, $load_after at end; $repeats rounds, medians shown."
echo "Outputs of --jobs 1 and --jobs 2 compared: identical."
echo
echo "| run | --jobs 1 s | cpu s | peak MiB | --jobs 2 s | cpu s | peak MiB | speed-up (median, best) | aim |"
echo "|---|---:|---:|---:|---:|---:|---:|---:|---:|"
best() { sort -g -k1,1 "$1" | head -n 1 | cut -d' ' -f1; }
row() {
  awk -v name="$1" -v t1="$(median "$2" 1)" -v m1="$(median "$2" 2)" -v c1="$(median "$2" 3)" \
    -v t2="$(median "$3" 1)" -v m2="$(median "$3" 2)" -v c2="$(median "$3" 3)" \
    -v b1="$(best "$2")" -v b2="$(best "$3")" -v s="$4" -v aim="$5" \
    'BEGIN { printf "| %s | %.3f | %.2f | %.1f | %.3f | %.2f | %.1f | %.2f, %.2f | %.1f |\n",
             name, t1 / 1e6, c1, m1 / 1024, t2 / 1e6, c2, m2 / 1024, s, b1 / b2, aim }'
}
row "tree ($models models)" "$work/tree1.txt" "$work/tree2.txt" "$tree_speedup" 1.8
row "merged_scene alone (17 render sets)" "$work/single1.txt" "$work/single2.txt" "$single_speedup" 1.6
awk -v a="$(median "$work/many40.txt" 2)" -v b="$(median "$work/many800.txt" 2)" \
  -v ta="$(median "$work/many40.txt" 1)" -v tb="$(median "$work/many800.txt" 1)" \
  'BEGIN { printf "\nMany small models, --jobs 2: 40 models %.3f s, peak %.1f MiB; 800 models %.3f s, peak %.1f MiB.\n", ta / 1e6, a / 1024, tb / 1e6, b / 1024 }'
echo
awk -v t="$tree_speedup" -v s="$single_speedup" 'BEGIN {
  printf "Aims: tree speed-up %.2f >= 1.8: %s; merged_scene speed-up %.2f >= 1.6: %s\n",
    t, (t >= 1.8 ? "met" : "MISSED"), s, (s >= 1.6 ? "met" : "MISSED")
}'
