vertexmill_benchmark(mesh_data_optimizer
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/mesh_data_optimizer_bench.cpp
  DEPENDS mesh_data_optimizer)
# The generated test mesh is shared with the unit tests.
target_include_directories(bench_mesh_data_optimizer PRIVATE ${PROJECT_SOURCE_DIR}/tests)
