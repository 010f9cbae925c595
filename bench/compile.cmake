# bench_compile: GeometryCompiler::compile per corpus model beside the bare meshoptimizer calls on
# the same converted data (see compile_bench.cpp).
include(${CMAKE_CURRENT_LIST_DIR}/gpu_mesh.cmake)

vertexmill_benchmark(compile
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/compile_bench.cpp
  DEPENDS geometry_compiler bench_gpu_mesh_compiler primitives_from_obj_core cstdmf moo)
target_compile_definitions(bench_compile PRIVATE VERTEXMILL_CORPUS_DIR="${VERTEXMILL_BENCH_CORPUS_DIR}")
