# Cross build for 64-bit Windows with Debian's MinGW-w64 toolchain (posix threads variant, which
# std::thread and std::mutex need):
#   cmake -S . -B build-mingw -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64.cmake
# The executables are linked statically (no MinGW runtime DLLs to ship or to find under Wine), and
# the dependencies come from cmake/WindowsDeps.cmake. When Wine is installed, CTest runs the tests
# through it.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(VERTEXMILL_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${VERTEXMILL_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${VERTEXMILL_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${VERTEXMILL_MINGW_TRIPLE}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${VERTEXMILL_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Every executable in one folder, with the runtime libraries linked in.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")

set(VERTEXMILL_WINDOWS_DEPS ON CACHE BOOL "Dependencies from Debian's headers and source packages")
set(VERTEXMILL_BUILD_BENCH OFF CACHE BOOL "Build the benchmarks")

find_program(VERTEXMILL_WINE NAMES wine wine64)
if(VERTEXMILL_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${VERTEXMILL_WINE})
endif()
