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
