vertexmill_fuzzer(mesh_codec
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/mesh_codec_fuzz.cpp
  DEPENDS mesh_data_optimizer
  RUNS 200000)
