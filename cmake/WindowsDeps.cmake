# The dependencies of the Windows cross build, made from what Debian ships for the build host
# instead of from find_package (Debian has no MinGW packages for most of them):
#   fmt, nlohmann-json          header-only, from the host's /usr/include
#   spdlog                      compiled from the host's /usr/include/spdlog headers
#   meshoptimizer, tinyxml2     compiled from Debian's source packages of the host's release
#   GoogleTest                  compiled from /usr/src/googletest (libgtest-dev)
#   zlib                        libz-mingw-w64-dev, found in the MinGW sysroot
#   libpng                      compiled from Debian's source package of the host's release
# It defines the same imported targets as the find_package calls of the normal build.

set(VERTEXMILL_DEPS_DIR ${CMAKE_BINARY_DIR}/_deps)

# The host's /usr/include must never be on the cross compiler's search path (its C library headers
# are glibc's), so each header-only library is reached through a link in a folder of its own.
set(VERTEXMILL_HEADER_DIR ${VERTEXMILL_DEPS_DIR}/include)
file(MAKE_DIRECTORY ${VERTEXMILL_HEADER_DIR})
function(vertexmill_link_headers name source)
  if(NOT EXISTS ${source})
    message(FATAL_ERROR "${source} not found: install the host's development package (scripts/install-deps.sh)")
  endif()
  if(NOT EXISTS ${VERTEXMILL_HEADER_DIR}/${name})
    file(CREATE_LINK ${source} ${VERTEXMILL_HEADER_DIR}/${name} SYMBOLIC)
  endif()
endfunction()
vertexmill_link_headers(fmt /usr/include/fmt)
vertexmill_link_headers(spdlog /usr/include/spdlog)
vertexmill_link_headers(nlohmann /usr/include/nlohmann)

add_library(fmt::fmt INTERFACE IMPORTED)
set_target_properties(fmt::fmt PROPERTIES
  INTERFACE_INCLUDE_DIRECTORIES ${VERTEXMILL_HEADER_DIR}
  INTERFACE_COMPILE_DEFINITIONS FMT_HEADER_ONLY)

# spdlog compiled once from its headers (see windows/spdlog_library.cpp): header-only, it would
# bring <windows.h> into every file that logs.
add_library(vertexmill_spdlog STATIC ${CMAKE_CURRENT_LIST_DIR}/windows/spdlog_library.cpp)
target_include_directories(vertexmill_spdlog SYSTEM PUBLIC ${VERTEXMILL_HEADER_DIR})
target_compile_definitions(vertexmill_spdlog PUBLIC SPDLOG_COMPILED_LIB SPDLOG_FMT_EXTERNAL)
target_compile_features(vertexmill_spdlog PUBLIC cxx_std_20)
target_link_libraries(vertexmill_spdlog PUBLIC fmt::fmt Threads::Threads)
add_library(spdlog::spdlog ALIAS vertexmill_spdlog)

add_library(nlohmann_json::nlohmann_json INTERFACE IMPORTED)
set_target_properties(nlohmann_json::nlohmann_json PROPERTIES INTERFACE_INCLUDE_DIRECTORIES ${VERTEXMILL_HEADER_DIR})

# zlib: the MinGW build of it, static so that no DLL has to travel with the executables.
find_path(VERTEXMILL_MINGW_ZLIB_INCLUDE zlib.h REQUIRED)
find_library(VERTEXMILL_MINGW_ZLIB NAMES libz.a z REQUIRED)
add_library(ZLIB::ZLIB STATIC IMPORTED)
set_target_properties(ZLIB::ZLIB PROPERTIES
  IMPORTED_LOCATION ${VERTEXMILL_MINGW_ZLIB}
  INTERFACE_INCLUDE_DIRECTORIES ${VERTEXMILL_MINGW_ZLIB_INCLUDE})

# meshoptimizer: the release the host build links (libmeshoptimizer-dev), unpacked from Debian's
# source package with its patches applied. VERTEXMILL_MESHOPTIMIZER_SOURCE_DIR may name an unpacked
# tree instead (builds without network access).
set(VERTEXMILL_MESHOPTIMIZER_SOURCE_DIR "" CACHE PATH "Unpacked meshoptimizer source tree (empty: apt-get source)")
set(meshopt_dir ${VERTEXMILL_MESHOPTIMIZER_SOURCE_DIR})
if(NOT meshopt_dir)
  file(GLOB meshopt_dir LIST_DIRECTORIES true ${VERTEXMILL_DEPS_DIR}/meshoptimizer/meshoptimizer-*)
  if(NOT meshopt_dir)
    execute_process(COMMAND dpkg-query -W -f=\${Version} libmeshoptimizer-dev
      OUTPUT_VARIABLE meshopt_version RESULT_VARIABLE meshopt_query ERROR_QUIET)
    set(meshopt_package meshoptimizer)
    if(meshopt_query EQUAL 0 AND meshopt_version)
      set(meshopt_package meshoptimizer=${meshopt_version})
    endif()
    message(STATUS "Unpacking Debian's source package ${meshopt_package}")
    file(MAKE_DIRECTORY ${VERTEXMILL_DEPS_DIR}/meshoptimizer)
    execute_process(COMMAND apt-get source -qq ${meshopt_package}
      WORKING_DIRECTORY ${VERTEXMILL_DEPS_DIR}/meshoptimizer
      RESULT_VARIABLE meshopt_fetch OUTPUT_QUIET ERROR_VARIABLE meshopt_errors)
    file(GLOB meshopt_dir LIST_DIRECTORIES true ${VERTEXMILL_DEPS_DIR}/meshoptimizer/meshoptimizer-*)
    if(NOT meshopt_fetch EQUAL 0 OR NOT meshopt_dir)
      message(FATAL_ERROR "apt-get source ${meshopt_package} failed: it needs deb-src entries and dpkg-dev "
                          "(scripts/install-deps.sh --windows adds both)\n${meshopt_errors}")
    endif()
  endif()
endif()
list(GET meshopt_dir 0 meshopt_dir)
file(GLOB meshopt_sources ${meshopt_dir}/src/*.cpp)
if(NOT EXISTS ${meshopt_dir}/src/meshoptimizer.h OR NOT meshopt_sources)
  message(FATAL_ERROR "no meshoptimizer sources in ${meshopt_dir}")
endif()
add_library(vertexmill_meshoptimizer STATIC ${meshopt_sources})
target_include_directories(vertexmill_meshoptimizer SYSTEM PUBLIC ${meshopt_dir}/src)
add_library(meshoptimizer::meshoptimizer ALIAS vertexmill_meshoptimizer)

# tinyxml2: the release of the host's libtinyxml2-dev, from Debian's source package in the same
# way; VERTEXMILL_TINYXML2_SOURCE_DIR may name an unpacked tree instead.
set(VERTEXMILL_TINYXML2_SOURCE_DIR "" CACHE PATH "Unpacked tinyxml2 source tree (empty: apt-get source)")
set(tinyxml2_dir ${VERTEXMILL_TINYXML2_SOURCE_DIR})
if(NOT tinyxml2_dir)
  file(GLOB tinyxml2_dir LIST_DIRECTORIES true ${VERTEXMILL_DEPS_DIR}/tinyxml2/tinyxml2-*)
  if(NOT tinyxml2_dir)
    execute_process(COMMAND dpkg-query -W -f=\${source:Version} libtinyxml2-dev
      OUTPUT_VARIABLE tinyxml2_version RESULT_VARIABLE tinyxml2_query ERROR_QUIET)
    set(tinyxml2_package tinyxml2)
    if(tinyxml2_query EQUAL 0 AND tinyxml2_version)
      set(tinyxml2_package tinyxml2=${tinyxml2_version})
    endif()
    message(STATUS "Unpacking Debian's source package ${tinyxml2_package}")
    file(MAKE_DIRECTORY ${VERTEXMILL_DEPS_DIR}/tinyxml2)
    execute_process(COMMAND apt-get source -qq ${tinyxml2_package}
      WORKING_DIRECTORY ${VERTEXMILL_DEPS_DIR}/tinyxml2
      RESULT_VARIABLE tinyxml2_fetch OUTPUT_QUIET ERROR_VARIABLE tinyxml2_errors)
    file(GLOB tinyxml2_dir LIST_DIRECTORIES true ${VERTEXMILL_DEPS_DIR}/tinyxml2/tinyxml2-*)
    if(NOT tinyxml2_fetch EQUAL 0 OR NOT tinyxml2_dir)
      message(FATAL_ERROR "apt-get source ${tinyxml2_package} failed: it needs deb-src entries and dpkg-dev "
                          "(scripts/install-deps.sh --windows adds both)\n${tinyxml2_errors}")
    endif()
  endif()
endif()
list(GET tinyxml2_dir 0 tinyxml2_dir)
if(NOT EXISTS ${tinyxml2_dir}/tinyxml2.cpp OR NOT EXISTS ${tinyxml2_dir}/tinyxml2.h)
  message(FATAL_ERROR "no tinyxml2 sources in ${tinyxml2_dir}")
endif()
add_library(vertexmill_tinyxml2 STATIC ${tinyxml2_dir}/tinyxml2.cpp)
target_include_directories(vertexmill_tinyxml2 SYSTEM PUBLIC ${tinyxml2_dir})
add_library(tinyxml2::tinyxml2 ALIAS vertexmill_tinyxml2)
# libpng, compiled from Debian's source package (libpng1.6) of the host's release like meshoptimizer;
# VERTEXMILL_LIBPNG_SOURCE_DIR names an unpacked tree instead. The library's own prebuilt
# configuration header is used as it is.
set(VERTEXMILL_LIBPNG_SOURCE_DIR "" CACHE PATH "Unpacked libpng source tree (empty: apt-get source)")
set(libpng_dir ${VERTEXMILL_LIBPNG_SOURCE_DIR})
if(NOT libpng_dir)
  file(GLOB libpng_dir LIST_DIRECTORIES true ${VERTEXMILL_DEPS_DIR}/libpng/libpng1.6-* ${VERTEXMILL_DEPS_DIR}/libpng/libpng-*)
  if(NOT libpng_dir)
    execute_process(COMMAND dpkg-query -W -f=\${source:Version} libpng-dev
      OUTPUT_VARIABLE libpng_version RESULT_VARIABLE libpng_query ERROR_QUIET)
    set(libpng_package libpng1.6)
    if(libpng_query EQUAL 0 AND libpng_version)
      set(libpng_package libpng1.6=${libpng_version})
    endif()
    message(STATUS "Unpacking Debian's source package ${libpng_package}")
    file(MAKE_DIRECTORY ${VERTEXMILL_DEPS_DIR}/libpng)
    execute_process(COMMAND apt-get source -qq ${libpng_package}
      WORKING_DIRECTORY ${VERTEXMILL_DEPS_DIR}/libpng
      RESULT_VARIABLE libpng_fetch OUTPUT_QUIET ERROR_VARIABLE libpng_errors)
    file(GLOB libpng_dir LIST_DIRECTORIES true ${VERTEXMILL_DEPS_DIR}/libpng/libpng1.6-*)
    # A mirror may serve the upstream tarball but not a security update's Debian files; the
    # upstream tree is all this build needs.
    file(GLOB libpng_orig ${VERTEXMILL_DEPS_DIR}/libpng/libpng1.6_*.orig.tar.*)
    if(NOT libpng_dir AND libpng_orig)
      list(GET libpng_orig 0 libpng_orig)
      execute_process(COMMAND ${CMAKE_COMMAND} -E tar xf ${libpng_orig} WORKING_DIRECTORY ${VERTEXMILL_DEPS_DIR}/libpng
        RESULT_VARIABLE libpng_fetch)
      file(GLOB libpng_dir LIST_DIRECTORIES true ${VERTEXMILL_DEPS_DIR}/libpng/libpng-*)
    endif()
    if(NOT libpng_dir)
      message(FATAL_ERROR "apt-get source ${libpng_package} failed: it needs deb-src entries and dpkg-dev "
                          "(scripts/install-deps.sh --windows adds both)\n${libpng_errors}")
    endif()
  endif()
endif()
list(GET libpng_dir 0 libpng_dir)
set(libpng_sources)
foreach(name png pngerror pngget pngmem pngpread pngread pngrio pngrtran pngrutil pngset pngtrans pngwio pngwrite
             pngwtran pngwutil)
  list(APPEND libpng_sources ${libpng_dir}/${name}.c)
endforeach()
if(NOT EXISTS ${libpng_dir}/png.h OR NOT EXISTS ${libpng_dir}/scripts/pnglibconf.h.prebuilt)
  message(FATAL_ERROR "no libpng sources in ${libpng_dir}")
endif()
file(MAKE_DIRECTORY ${VERTEXMILL_DEPS_DIR}/libpng-config)
configure_file(${libpng_dir}/scripts/pnglibconf.h.prebuilt ${VERTEXMILL_DEPS_DIR}/libpng-config/pnglibconf.h COPYONLY)
add_library(vertexmill_libpng STATIC ${libpng_sources})
target_include_directories(vertexmill_libpng SYSTEM PUBLIC ${libpng_dir} ${VERTEXMILL_DEPS_DIR}/libpng-config)
# No hand-written SIMD paths: the portable code only.
target_compile_definitions(vertexmill_libpng PRIVATE PNG_ARM_NEON_OPT=0 PNG_INTEL_SSE_OPT=0)
target_link_libraries(vertexmill_libpng PUBLIC ZLIB::ZLIB)
add_library(PNG::PNG ALIAS vertexmill_libpng)

# GoogleTest from the sources libgtest-dev ships; the two amalgamation files are the whole library.
if(VERTEXMILL_BUILD_TESTS)
  set(gtest_dir /usr/src/googletest/googletest)
  if(NOT EXISTS ${gtest_dir}/src/gtest-all.cc)
    message(FATAL_ERROR "${gtest_dir} not found: install libgtest-dev")
  endif()
  find_package(Threads REQUIRED)
  add_library(vertexmill_gtest STATIC ${gtest_dir}/src/gtest-all.cc)
  target_include_directories(vertexmill_gtest SYSTEM PUBLIC ${gtest_dir}/include PRIVATE ${gtest_dir})
  target_link_libraries(vertexmill_gtest PUBLIC Threads::Threads)
  add_library(vertexmill_gtest_main STATIC ${gtest_dir}/src/gtest_main.cc)
  target_link_libraries(vertexmill_gtest_main PUBLIC vertexmill_gtest)
  add_library(GTest::gtest ALIAS vertexmill_gtest)
  add_library(GTest::gtest_main ALIAS vertexmill_gtest_main)
endif()
