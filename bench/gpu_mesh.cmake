# The converted mesh data and the bare meshoptimizer calls that the compile and corpus benchmarks
# share. Included by both; defined once.
include_guard(GLOBAL)

# Only meshoptimizer: the bare-library process links nothing of the product.
add_library(bench_gpu_mesh STATIC
  ${CMAKE_CURRENT_LIST_DIR}/gpu_mesh.cpp ${CMAKE_CURRENT_LIST_DIR}/gpu_mesh.hpp)
target_include_directories(bench_gpu_mesh PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(bench_gpu_mesh PUBLIC vertexmill_options meshoptimizer::meshoptimizer)

# The same data taken from the geometry compiler's merged state.
add_library(bench_gpu_mesh_compiler STATIC
  ${CMAKE_CURRENT_LIST_DIR}/gpu_mesh_from_compiler.cpp ${CMAKE_CURRENT_LIST_DIR}/gpu_mesh_from_compiler.hpp)
target_link_libraries(bench_gpu_mesh_compiler PUBLIC bench_gpu_mesh geometry_compiler moo)

# Where the mesh corpus lives: beside the repository unless VERTEXMILL_CORPUS says otherwise.
get_filename_component(VERTEXMILL_BENCH_CORPUS_DIR "${PROJECT_SOURCE_DIR}/../shared/corpus" ABSOLUTE)
if(NOT IS_DIRECTORY "${VERTEXMILL_BENCH_CORPUS_DIR}")
  message(STATUS "Mesh corpus not found at ${VERTEXMILL_BENCH_CORPUS_DIR}: the corpus benchmarks will skip "
                 "unless VERTEXMILL_CORPUS names it when they run")
endif()
