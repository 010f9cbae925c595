# Tree mode at scale: a tree of 20+ corpus models converted with --jobs 1 and --jobs 2, and the
# largest model alone with --jobs 1 and --jobs 2 (wall time and peak memory of the whole process).
# `ninja bench_tree` builds what it needs and runs tree_bench.sh; CTest does not run it.
get_filename_component(VERTEXMILL_TREE_BENCH_CORPUS "${PROJECT_SOURCE_DIR}/../shared/corpus" ABSOLUTE)

add_custom_target(bench_tree
  COMMAND ${CMAKE_COMMAND} -E env VERTEXMILL_CORPUS=${VERTEXMILL_TREE_BENCH_CORPUS}
          ${CMAKE_CURRENT_LIST_DIR}/tree_bench.sh ${CMAKE_BINARY_DIR}
  WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
  USES_TERMINAL
  COMMENT "Tree mode: a corpus tree and merged_scene with --jobs 1 and --jobs 2")
add_dependencies(bench_tree vertexmill primitives_from_obj)
