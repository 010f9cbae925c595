# Seeds are the example models, passed as inputs so runs never write into the tree.
set(GEOMETRY_COMPILER_SEEDS ${CMAKE_CURRENT_SOURCE_DIR}/seeds/geometry_compiler)
vertexmill_fuzzer(geometry_compiler
  SOURCES geometry_compiler_fuzz.cpp
  DEPENDS geometry_compiler
  SEEDS -seed_inputs=${GEOMETRY_COMPILER_SEEDS}/crate.primitives,${GEOMETRY_COMPILER_SEEDS}/ring.primitives,${GEOMETRY_COMPILER_SEEDS}/buoy.primitives
  RUNS 5000)
