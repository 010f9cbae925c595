# The whole-corpus run: every corpus mesh through the vertexmill executable, through a process that
# makes only the bare meshoptimizer calls on the same data, and through gltfpack, each as a whole
# process (time and peak memory). `ninja bench_corpus` builds what it needs and runs corpus.sh;
# CTest does not run it.
include(${CMAKE_CURRENT_LIST_DIR}/gpu_mesh.cmake)

add_executable(bench_corpus_prepare ${CMAKE_CURRENT_LIST_DIR}/corpus_prepare.cpp)
target_link_libraries(bench_corpus_prepare PRIVATE bench_gpu_mesh_compiler cstdmf moo)

add_executable(bench_corpus_bare ${CMAKE_CURRENT_LIST_DIR}/corpus_bare.cpp)
target_link_libraries(bench_corpus_bare PRIVATE bench_gpu_mesh)

add_custom_target(bench_corpus
  COMMAND ${CMAKE_COMMAND} -E env VERTEXMILL_CORPUS=${VERTEXMILL_BENCH_CORPUS_DIR}
          ${CMAKE_CURRENT_LIST_DIR}/corpus.sh ${CMAKE_BINARY_DIR}
  WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
  USES_TERMINAL
  COMMENT "Whole-corpus run: vertexmill, bare meshoptimizer and gltfpack per mesh")
add_dependencies(bench_corpus vertexmill primitives_from_obj bench_corpus_prepare bench_corpus_bare)
if(TARGET bench_compile)
  add_dependencies(bench_corpus bench_compile)
endif()
