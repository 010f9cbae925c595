# BLAKE3, the hash of the cache's keys, compiled from the reference C sources Debian ships in
# librust-blake3-dev (the Rust crate builds the same files). Both the Linux and the Windows build
# compile them the same way, so a key is the same on every machine. The newest version installed is
# used; scripts/install-deps.sh installs the package.
file(GLOB VERTEXMILL_BLAKE3_DIRS LIST_DIRECTORIES true /usr/share/cargo/registry/blake3-*/c)
if(NOT VERTEXMILL_BLAKE3_DIRS)
  message(FATAL_ERROR "BLAKE3's C sources not found: install librust-blake3-dev (scripts/install-deps.sh)")
endif()
list(SORT VERTEXMILL_BLAKE3_DIRS COMPARE NATURAL ORDER DESCENDING)
list(GET VERTEXMILL_BLAKE3_DIRS 0 VERTEXMILL_BLAKE3_DIR)
message(STATUS "BLAKE3 from ${VERTEXMILL_BLAKE3_DIR}")

set(blake3_sources blake3.c blake3_dispatch.c blake3_portable.c)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
  # The SIMD kernels as assembly: the dispatcher picks the widest the processor has at run time.
  enable_language(ASM)
  if(WIN32)
    set(abi windows_gnu)
  else()
    set(abi unix)
  endif()
  foreach(kernel sse2 sse41 avx2 avx512)
    list(APPEND blake3_sources blake3_${kernel}_x86-64_${abi}.S)
  endforeach()
  set(blake3_definitions)
else()
  set(blake3_definitions BLAKE3_NO_SSE2 BLAKE3_NO_SSE41 BLAKE3_NO_AVX2 BLAKE3_NO_AVX512 BLAKE3_USE_NEON=0)
endif()
list(TRANSFORM blake3_sources PREPEND ${VERTEXMILL_BLAKE3_DIR}/)

add_library(vertexmill_blake3 STATIC ${blake3_sources})
target_include_directories(vertexmill_blake3 SYSTEM PUBLIC ${VERTEXMILL_BLAKE3_DIR})
target_compile_definitions(vertexmill_blake3 PRIVATE ${blake3_definitions})
set_target_properties(vertexmill_blake3 PROPERTIES POSITION_INDEPENDENT_CODE ON)
add_library(BLAKE3::blake3 ALIAS vertexmill_blake3)
