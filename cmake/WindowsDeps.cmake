# The dependencies of the Windows cross build, made from what Debian ships for the build host
# instead of from find_package (Debian has no MinGW packages for most of them):
#   fmt, nlohmann-json, xxHash  header-only, from the host's /usr/include
#   spdlog                      compiled from the host's /usr/include/spdlog headers
#   meshoptimizer, tinyxml2,    compiled from Debian's source packages of the versions the host
#   libpng, assimp              build links
#   GoogleTest                  compiled from /usr/src/googletest (libgtest-dev)
#   zlib                        libz-mingw-w64-dev, found in the MinGW sysroot
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
vertexmill_link_headers(xxhash.h /usr/include/xxhash.h)

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

add_library(xxHash::xxHash INTERFACE IMPORTED)
set_target_properties(xxHash::xxHash PROPERTIES INTERFACE_INCLUDE_DIRECTORIES ${VERTEXMILL_HEADER_DIR})

# zlib: the MinGW build of it, static so that no DLL has to travel with the executables.
find_path(VERTEXMILL_MINGW_ZLIB_INCLUDE zlib.h REQUIRED)
find_library(VERTEXMILL_MINGW_ZLIB NAMES libz.a z REQUIRED)
add_library(ZLIB::ZLIB STATIC IMPORTED)
set_target_properties(ZLIB::ZLIB PROPERTIES
  IMPORTED_LOCATION ${VERTEXMILL_MINGW_ZLIB}
  INTERFACE_INCLUDE_DIRECTORIES ${VERTEXMILL_MINGW_ZLIB_INCLUDE})

# meshoptimizer, tinyxml2 and libpng are compiled from Debian's source package of the version the
# host build links, with Debian's patches applied: scripts/windows-sources.sh chooses the version
# (and says why), scripts/install-deps.sh --windows keeps it one the archive serves. Each version is
# unpacked into a folder of its own, so that an upgraded package is fetched again.
# VERTEXMILL_<NAME>_SOURCE_DIR may name an unpacked tree instead (builds without network access).
function(vertexmill_debian_source name source_package out_dir)
  string(TOUPPER ${name} upper)
  set(VERTEXMILL_${upper}_SOURCE_DIR "" CACHE PATH "Unpacked ${name} source tree (empty: apt-get source)")
  if(VERTEXMILL_${upper}_SOURCE_DIR)
    set(${out_dir} ${VERTEXMILL_${upper}_SOURCE_DIR} PARENT_SCOPE)
    return()
  endif()
  execute_process(COMMAND ${PROJECT_SOURCE_DIR}/scripts/windows-sources.sh version ${source_package}
    OUTPUT_VARIABLE version OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_VARIABLE version_errors RESULT_VARIABLE version_result)
  if(NOT version_result EQUAL 0)
    message(FATAL_ERROR "no version of ${source_package} to build: ${version_errors}")
  endif()
  string(REGEX REPLACE "[^A-Za-z0-9.+~-]" "_" version_folder "${version}")
  set(work ${VERTEXMILL_DEPS_DIR}/${name}/${version_folder})
  file(GLOB dir LIST_DIRECTORIES true ${work}/${source_package}-* ${work}/${name}-*)
  if(NOT dir)
    message(STATUS "Unpacking Debian's source package ${source_package}=${version}")
    file(REMOVE_RECURSE ${work})
    file(MAKE_DIRECTORY ${work})
    execute_process(COMMAND apt-get source -qq ${source_package}=${version}
      WORKING_DIRECTORY ${work} RESULT_VARIABLE fetch OUTPUT_QUIET ERROR_VARIABLE errors)
    file(GLOB dir LIST_DIRECTORIES true ${work}/${source_package}-*)
    # A mirror may serve the upstream tarball but not a security update's Debian files; the
    # upstream tree is all this build needs.
    file(GLOB orig ${work}/${source_package}_*.orig.tar.*)
    if(NOT dir AND orig)
      list(GET orig 0 orig)
      execute_process(COMMAND ${CMAKE_COMMAND} -E tar xf ${orig} WORKING_DIRECTORY ${work})
      file(GLOB dir LIST_DIRECTORIES true ${work}/${source_package}-* ${work}/${name}-*)
    endif()
    if(NOT dir)
      execute_process(COMMAND ${PROJECT_SOURCE_DIR}/scripts/windows-sources.sh check ERROR_VARIABLE offer OUTPUT_QUIET)
      message(FATAL_ERROR "apt-get source ${source_package}=${version} failed: it needs deb-src entries and "
                          "dpkg-dev (scripts/install-deps.sh --windows adds both)\n${errors}\n${offer}")
    endif()
  endif()
  list(GET dir 0 dir)
  set(${out_dir} ${dir} PARENT_SCOPE)
endfunction()

vertexmill_debian_source(meshoptimizer meshoptimizer meshopt_dir)
file(GLOB meshopt_sources ${meshopt_dir}/src/*.cpp)
if(NOT EXISTS ${meshopt_dir}/src/meshoptimizer.h OR NOT meshopt_sources)
  message(FATAL_ERROR "no meshoptimizer sources in ${meshopt_dir}")
endif()
add_library(vertexmill_meshoptimizer STATIC ${meshopt_sources})
target_include_directories(vertexmill_meshoptimizer SYSTEM PUBLIC ${meshopt_dir}/src)
add_library(meshoptimizer::meshoptimizer ALIAS vertexmill_meshoptimizer)

vertexmill_debian_source(tinyxml2 tinyxml2 tinyxml2_dir)
if(NOT EXISTS ${tinyxml2_dir}/tinyxml2.cpp OR NOT EXISTS ${tinyxml2_dir}/tinyxml2.h)
  message(FATAL_ERROR "no tinyxml2 sources in ${tinyxml2_dir}")
endif()
add_library(vertexmill_tinyxml2 STATIC ${tinyxml2_dir}/tinyxml2.cpp)
target_include_directories(vertexmill_tinyxml2 SYSTEM PUBLIC ${tinyxml2_dir})
add_library(tinyxml2::tinyxml2 ALIAS vertexmill_tinyxml2)

# libpng: the library's own prebuilt configuration header is used as it is.
vertexmill_debian_source(libpng libpng1.6 libpng_dir)
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

# assimp, for the importer's scene formats: built from Debian's source package by
# scripts/windows-assimp.sh once per version and toolchain, into a cache outside the build folder
# (a fresh machine spends about two minutes on it). VERTEXMILL_MINGW_ASSIMP_DIR may name a prefix
# built before.
set(VERTEXMILL_MINGW_ASSIMP_DIR "" CACHE PATH "assimp built for Windows (empty: scripts/windows-assimp.sh)")
set(assimp_prefix ${VERTEXMILL_MINGW_ASSIMP_DIR})
if(NOT assimp_prefix)
  # The toolchain file as the command line named it: relative to the build folder or the source.
  if(EXISTS ${CMAKE_BINARY_DIR}/${CMAKE_TOOLCHAIN_FILE})
    get_filename_component(toolchain ${CMAKE_TOOLCHAIN_FILE} ABSOLUTE BASE_DIR ${CMAKE_BINARY_DIR})
  else()
    get_filename_component(toolchain ${CMAKE_TOOLCHAIN_FILE} ABSOLUTE BASE_DIR ${PROJECT_SOURCE_DIR})
  endif()
  execute_process(COMMAND ${PROJECT_SOURCE_DIR}/scripts/windows-assimp.sh ${toolchain}
                          ${VERTEXMILL_DEPS_DIR}/mingw-assimp
    OUTPUT_VARIABLE assimp_prefix OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE assimp_result)
  if(NOT assimp_result EQUAL 0)
    message(FATAL_ERROR "assimp for Windows could not be built (scripts/windows-assimp.sh says why above)")
  endif()
endif()
if(NOT EXISTS ${assimp_prefix}/lib/libassimp.a OR NOT EXISTS ${assimp_prefix}/include/assimp/Importer.hpp)
  message(FATAL_ERROR "no assimp for Windows in ${assimp_prefix}")
endif()
add_library(assimp::assimp STATIC IMPORTED)
set_target_properties(assimp::assimp PROPERTIES
  IMPORTED_LOCATION ${assimp_prefix}/lib/libassimp.a
  INTERFACE_INCLUDE_DIRECTORIES ${assimp_prefix}/include
  INTERFACE_LINK_LIBRARIES ZLIB::ZLIB)
set(VERTEXMILL_MINGW_ASSIMP_LICENCES ${assimp_prefix}/share/licences)

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
