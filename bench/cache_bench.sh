#!/usr/bin/env bash
# Converted-model cache: bench/cache_bench.sh BUILD_DIR
#
# The tree of bench/tree_bench.sh (corpus meshes imported in several vertex formats, 20 models,
# kept in TREE_CACHE, default BUILD_DIR/bench_tree_models) is rebuilt as a CI machine rebuilds it
# after a fresh checkout: the sources copied anew (every file time new, so --incremental would
# convert everything) into a new folder, and converted into an empty output folder. REPEATS rounds
# (default 5), each with:
#   convert  vertexmill --tree COPY OUT                      (no cache)
#   cold     vertexmill --tree --cache EMPTY_DIR COPY OUT    (converts and fills the cache)
#   warm     vertexmill --tree --cache FILLED_DIR COPY OUT   (every model a hit)
# every one with --jobs JOBS (default 1). TIER=http (default local) keeps the cache on an nginx
# WebDAV server on the loopback interface (--cache-url, no cache folder) instead of in a folder,
# so that every hit is downloaded. The warm output, its standard output and error and its
# status are compared with the converting run's: they must be identical. Figures are medians of
# wall-clock times; the speed-up is the median of the per-round ratios convert / warm. CPU time
# (user + sys) is shown too: on a loaded machine it is the steadier figure.
#
# Environment: REPEATS, JOBS, TIER, VERTEXMILL_CORPUS, TREE_CACHE, KEEP_WORK=1 keeps the work folder.

set -euo pipefail

bench_name=bench_cache
source "$(dirname "$0")/common.sh"
bench_setup "$@"
repeats=${REPEATS:-5}
jobs=${JOBS:-1}
tier=${TIER:-local}
if [[ $tier != local && $tier != http ]]; then
  echo "bench_cache: TIER must be local or http" >&2
  exit 1
fi
bench_require "ninja vertexmill primitives_from_obj" "$vertexmill" "$importer"
bench_tree_models "${TREE_CACHE:-$build/bench_tree_models}"
models=$(find "$tree" -name '*.primitives' | wc -l)
bytes=$(du -sb "$tree" | cut -f1)

work=$(mktemp -d "${TMPDIR:-/tmp}/vertexmill_cache_bench.XXXXXX")
# shellcheck source=../tests/tools/vertexmill/nginx_server.sh
[[ $tier == http ]] && source "$(dirname "$0")/../tests/tools/vertexmill/nginx_server.sh"
cleanup() {
  [[ $tier == http ]] && stop_nginx
  [[ ${KEEP_WORK:-0} == 1 ]] || rm -rf "$work"
}
trap cleanup EXIT
if [[ $tier == http ]]; then
  start_nginx
  cache_args=(--cache-url "http://127.0.0.1:$port/cache")
else
  cache_args=(--cache "$work/cache")
fi

# checkout NAME: a fresh copy of the tree (new file times) as $work/NAME/models, and an empty
# output folder $work/NAME/out. Written back to the disk before the run is timed, as a checkout
# long done is: the kernel writing 59 MiB back meanwhile would be timed with whichever run
# follows (the earlier runs' outputs likewise).
checkout() {
  rm -rf "$work/$1"
  mkdir -p "$work/$1/out"
  cp -r "$tree" "$work/$1/models"
  sync
}

# timed OUTFILE NAME ARGS...: runs vertexmill over checkout NAME, appends the wall microseconds to
# OUTFILE and the CPU microseconds (user + sys) to OUTFILE's .cpu.txt, keeps its streams and status
# in $work/NAME.{stdout,stderr,status}. Timed by the shell's own `time`: starting a helper such as
# date or /usr/bin/time takes about 8 ms here, which would be counted in a warm run of 40.
timed() {
  local out=$1 name=$2
  shift 2
  local status=0 TIMEFORMAT='%3R %3U %3S'
  { time { "$vertexmill" --jobs "$jobs" --tree "$@" "$work/$name/models" "$work/$name/out" \
    >"$work/$name.stdout" 2>"$work/$name.stderr" || status=$?; }; } 2>"$work/time.txt"
  echo "$status" >"$work/$name.status"
  awk '{ printf "%d\n", $1 * 1000000 }' "$work/time.txt" >>"$out"
  awk '{ printf "%d\n", ($2 + $3) * 1000000 }' "$work/time.txt" >>"${out%.txt}.cpu.txt"
}

median() {
  sort -g "$1" | awk '{ v[NR] = $1 } END { if (NR == 0) print "nan"; else if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

load_before=$(cut -d' ' -f1-3 /proc/loadavg)
: >"$work/convert.txt"
: >"$work/cold.txt"
: >"$work/warm.txt"
: >"$work/ratios.txt"
: >"$work/convert.cpu.txt"
: >"$work/warm.cpu.txt"
for ((round = 0; round < repeats; ++round)); do
  checkout convert
  timed "$work/convert.txt" convert
  rm -rf "$work/cache" "$work/store"
  mkdir -p "$work/store"
  checkout cold
  timed "$work/cold.txt" cold "${cache_args[@]}"
  checkout warm
  timed "$work/warm.txt" warm "${cache_args[@]}"
  for name in cold warm; do
    # The outputs and the console must not tell a hit from a conversion (the paths differ only
    # in the checkout's name).
    if ! diff -r "$work/convert/out" "$work/$name/out" >/dev/null; then
      echo "bench_cache: the $name run wrote a different tree" >&2
      exit 1
    fi
    for stream in stdout stderr status; do
      if ! diff <(sed "s|$work/convert/|X/|g" "$work/convert.$stream") <(sed "s|$work/$name/|X/|g" "$work/$name.$stream") >/dev/null; then
        echo "bench_cache: the $name run's $stream differs from the converting run's" >&2
        exit 1
      fi
    done
  done
  paste -d' ' <(tail -n 1 "$work/convert.txt") <(tail -n 1 "$work/warm.txt") | awk '{ print $1 / $2 }' >>"$work/ratios.txt"
done
load_after=$(cut -d' ' -f1-3 /proc/loadavg)

ms() { awk -v us="$1" 'BEGIN { printf "%.1f ms", us / 1000 }'; }
echo "bench_cache: $models models, $((bytes / 1024)) KiB of .primitives, $tier cache, --jobs $jobs, $repeats rounds (load $load_before -> $load_after)"
echo "  convert (no cache):     $(ms "$(median "$work/convert.txt")")"
echo "  cold cache (fill):      $(ms "$(median "$work/cold.txt")")"
echo "  warm cache (all hits):  $(ms "$(median "$work/warm.txt")")"
echo "  speed-up convert/warm:  $(median "$work/ratios.txt")x wall (median of per-round ratios)"
echo "  cpu (user + sys):       convert $(ms "$(median "$work/convert.cpu.txt")"), warm $(ms "$(median "$work/warm.cpu.txt")"), $(awk -v a="$(median "$work/convert.cpu.txt")" -v b="$(median "$work/warm.cpu.txt")" 'BEGIN { printf "%.1f", a / b }')x"
echo "  cache:                  $(du -sb "$work/cache" "$work/store" 2>/dev/null | awk '{ total += $1 } END { printf "%d KiB", total / 1024 }'), outputs and console identical"
