# Shared by the benchmark scripts: sourced after `set -euo pipefail`, with bench_name set.
#
# bench_setup BUILD_DIR [ARGS...]: checks the arguments and sets build, script_dir, corpus (ends the
# script with status 0 when there is no corpus), vertexmill and importer.
bench_setup() {
  if [[ $# -ne 1 ]]; then
    echo "usage: $0 BUILD_DIR" >&2
    exit 1
  fi
  build=$(cd "$1" && pwd)
  script_dir=$(cd "$(dirname "$0")" && pwd)
  corpus=${VERTEXMILL_CORPUS:-$script_dir/../../shared/corpus}
  if [[ ! -d $corpus ]]; then
    echo "$bench_name: no mesh corpus at '$corpus' (set VERTEXMILL_CORPUS); nothing to measure."
    exit 0
  fi
  corpus=$(cd "$corpus" && pwd)
  vertexmill=$build/tools/vertexmill/vertexmill
  importer=$build/tools/primitives_from_obj/primitives_from_obj
}

# bench_corpus_tools: sets prepare (bench_corpus_prepare), gltfpack (GLTFPACK, else gltfpack on PATH,
# else empty) and gnu_time, and ends the script when /usr/bin/time is missing.
bench_corpus_tools() {
  prepare=$build/bench/bench_corpus_prepare
  gltfpack=${GLTFPACK:-$(command -v gltfpack || true)}
  gnu_time=/usr/bin/time
  bench_require "apt-get install -y time" "$gnu_time"
}

# bench_work PREFIX: a fresh scratch folder in `work`, removed when the script ends unless KEEP_WORK=1.
bench_work() {
  work=$(mktemp -d "${TMPDIR:-/tmp}/$1.XXXXXX")
  trap '[[ ${KEEP_WORK:-0} == 1 ]] || rm -rf "$work"' EXIT
}

# bench_require HINT PROGRAM...: ends the script when a program is missing; HINT says how to build
# or install it.
bench_require() {
  local hint=$1
  shift
  local tool
  for tool in "$@"; do
    if [[ ! -x $tool ]]; then
      echo "$bench_name: $tool is missing ($hint)" >&2
      exit 1
    fi
  done
}

# bench_tree_models CACHE: the benchmark tree FORMAT/MESH.primitives under CACHE/models, imported
# once (again when the importer is newer); sets tree.
bench_tree_models() {
  local cache=$1 format mesh
  local small_meshes=(spot_low_resolution spot_triangulated boat pizza nefertiti-lowres koala)
  local small_formats=(xyznuv xyznuvtb xyznuv2tb)
  local large_formats=(xyznuvtb xyznuv)
  tree=$cache/models
  if [[ ! -f $cache/complete || $importer -nt $cache/complete ]]; then
    echo "$bench_name: importing the corpus into $tree (once)..."
    rm -rf "$cache"
    for format in "${small_formats[@]}"; do
      mkdir -p "$tree/$format"
      for mesh in "${small_meshes[@]}"; do
        "$importer" "$corpus/$mesh.obj" "$tree/$format/$mesh.primitives" --format "$format" >/dev/null
      done
    done
    for format in "${large_formats[@]}"; do
      mkdir -p "$tree/$format"
      "$importer" "$corpus/merged_scene.obj.gz" "$tree/$format/merged_scene.primitives" --format "$format" >/dev/null
    done
    touch "$cache/complete"
  fi
}

# bench_corpus_objs: the corpus meshes (.obj and .obj.gz), smallest first, into the array objs.
bench_corpus_objs() {
  mapfile -t objs < <(find "$corpus" -maxdepth 1 -type f \( -name '*.obj' -o -name '*.obj.gz' \) -printf '%s %p\n' | sort -n | cut -d' ' -f2-)
}

# bench_prepare_mesh OBJ: the untimed preparation of one corpus mesh in its own folder under
# `work`: imported into .primitives, converted for the floor (`prepare`, its figures line in
# `figures`), and unpacked for gltfpack when compressed. Sets name, dir, figures, triangles and
# gltf_input.
bench_prepare_mesh() {
  local obj=$1 file
  file=$(basename "$obj")
  name=${file%.gz}
  name=${name%.obj}
  dir=$work/$name
  mkdir -p "$dir/out"
  "$importer" "$obj" "$dir/$name.primitives" >/dev/null
  figures=$("$prepare" "$dir/$name.primitives" "$dir/$name.gpumesh")
  triangles=$(sed -n 's/.*triangles=\([0-9]*\).*/\1/p' <<<"$figures")
  gltf_input=$obj
  if [[ $obj == *.gz ]]; then
    gltf_input=$dir/$name.obj
    gzip -dc "$obj" >"$gltf_input"
  fi
}

# The measuring helpers below need `work` (a scratch folder) and `gnu_time` (/usr/bin/time).

# cpu_us FILE: user + system CPU time of the reaped children in a `times` listing, in microseconds
# (bash prints milliseconds).
cpu_us() {
  tail -n 1 "$1" | awk '{
    total = 0
    for (i = 1; i <= 2; ++i) { split($i, p, "m"); sub("s", "", p[2]); total += p[1] * 60 + p[2] }
    printf "%d\n", total * 1e6
  }'
}

# run_measured OUTFILE COMMAND...: runs the command with its output discarded and appends
# "<wall microseconds> <peak KiB> <CPU microseconds>" to OUTFILE. Exits the script when the command
# fails. CPU time (user + system) is less sensitive to the load of a shared machine than wall time.
# Between the two snapshots nothing but the command is started: EPOCHREALTIME and `times` are
# read without a child process, so neither figure counts the script's own helpers.
run_measured() {
  local out=$1
  shift
  local start end
  start=$EPOCHREALTIME
  times >"$work/times_before.txt"
  if ! "$gnu_time" -f '%e %M' -o "$work/time.txt" "$@" >"$work/stdout.txt" 2>"$work/stderr.txt"; then
    echo "$bench_name: failed: $*" >&2
    cat "$work/stderr.txt" >&2
    exit 1
  fi
  times >"$work/times_after.txt"
  end=$EPOCHREALTIME
  local wall_us=$((${end/./} - ${start/./}))
  local cpu=$(($(cpu_us "$work/times_after.txt") - $(cpu_us "$work/times_before.txt")))
  echo "$wall_us $(tail -n 1 "$work/time.txt" | cut -d' ' -f2) $cpu" >>"$out"
}

# median FILE COLUMN: the median of one column of numbers.
median() {
  sort -g -k"$2,$2" "$1" | awk -v c="$2" '{ v[NR] = $c } END { if (NR == 0) print "nan"; else if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

# ratio_median A B COLUMN: the median of the per-round ratios of a column of A to the same column
# of B (1 wall time, 3 CPU time).
ratio_median() {
  paste -d' ' "$1" "$2" | awk -v c="$3" '{ print $c / $(c + 3) }' >"$work/ratios.txt"
  median "$work/ratios.txt" 1
}

