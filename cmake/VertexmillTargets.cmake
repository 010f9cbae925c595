# Shared compile settings and the helpers every folder uses to declare its targets.

add_library(vertexmill_options INTERFACE)
target_compile_features(vertexmill_options INTERFACE cxx_std_20)
if(MSVC)
  target_compile_options(vertexmill_options INTERFACE /W4 /permissive- /utf-8)
  target_compile_definitions(vertexmill_options INTERFACE _CRT_SECURE_NO_WARNINGS NOMINMAX WIN32_LEAN_AND_MEAN)
  if(VERTEXMILL_WERROR)
    target_compile_options(vertexmill_options INTERFACE /WX)
  endif()
else()
  # C and C++ only: the resource compiler of the Windows build takes none of these.
  target_compile_options(vertexmill_options INTERFACE
    $<$<COMPILE_LANGUAGE:C,CXX>:-Wall -Wextra -Wpedantic -Wshadow -Wno-missing-field-initializers>)
  if(VERTEXMILL_WERROR)
    target_compile_options(vertexmill_options INTERFACE $<$<COMPILE_LANGUAGE:C,CXX>:-Werror>)
  endif()
endif()

if(VERTEXMILL_SANITIZE)
  target_compile_options(vertexmill_options INTERFACE -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  target_link_options(vertexmill_options INTERFACE -fsanitize=address,undefined)
endif()
if(VERTEXMILL_FUZZ)
  # Every library is instrumented for coverage; only the fuzz executables link libFuzzer's main.
  target_compile_options(vertexmill_options INTERFACE -fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
  target_link_options(vertexmill_options INTERFACE -fsanitize=address,undefined)
endif()

# vertexmill_library(NAME SOURCES ... DEPENDS ...): one static library per lib/ folder.
# Headers sit beside the sources and are included as "<folder>/<header>.hpp".
function(vertexmill_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS;PRIVATE_DEPENDS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/lib)
  target_link_libraries(${name} PUBLIC vertexmill_options ${ARG_DEPENDS} PRIVATE ${ARG_PRIVATE_DEPENDS})

  # Every header compiles on its own (it includes what it uses) and twice (it is guarded): one
  # generated source per header, built with the library by the normal build (target header_check).
  get_filename_component(folder ${CMAKE_CURRENT_SOURCE_DIR} NAME)
  set(checks)
  foreach(source IN LISTS ARG_SOURCES)
    if(source MATCHES "\\.hpp$")
      get_filename_component(stem ${source} NAME_WE)
      set(check ${CMAKE_CURRENT_BINARY_DIR}/header_check/${stem}.cpp)
      file(CONFIGURE OUTPUT ${check} CONTENT "#include \"${folder}/${source}\"\n#include \"${folder}/${source}\"\n")
      list(APPEND checks ${check})
    endif()
  endforeach()
  if(checks)
    add_library(header_check_${name} OBJECT ${checks})
    target_link_libraries(header_check_${name} PRIVATE ${name})
    if(NOT TARGET header_check)
      add_custom_target(header_check ALL)
    endif()
    add_dependencies(header_check header_check_${name})
  endif()
endfunction()

# vertexmill_test(NAME SOURCES ... DEPENDS ...): one GoogleTest executable, one CTest entry.
function(vertexmill_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;DEPENDS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 300)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE vertexmill_options ${ARG_DEPENDS} GTest::gtest GTest::gtest_main Threads::Threads)
  add_test(NAME ${name} COMMAND ${name})
  # Each test program gets a temporary directory of its own in the build tree, so that what the
  # tests leave there (the crash reports of the fatal-path tests among them) stays out of /tmp.
  set(test_tmp ${CMAKE_BINARY_DIR}/test-tmp/${name})
  file(MAKE_DIRECTORY ${test_tmp})
  # Writable by all: some tests run the tool as another user (an unreadable input), and its worker
  # processes keep their scratch files in the temporary directory.
  file(CHMOD ${test_tmp} PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_WRITE GROUP_EXECUTE
       WORLD_READ WORLD_WRITE WORLD_EXECUTE)
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT} ENVIRONMENT "TMPDIR=${test_tmp}")
endfunction()

# vertexmill_fuzzer(NAME SOURCES ... DEPENDS ... [SEEDS dir]): libFuzzer executable fuzz_<NAME>, and a
# short CTest run of it (fixed number of inputs) so the test command exercises it.
function(vertexmill_fuzzer name)
  cmake_parse_arguments(ARG "" "SEEDS;RUNS" "SOURCES;DEPENDS" ${ARGN})
  if(NOT ARG_RUNS)
    set(ARG_RUNS 20000)
  endif()
  add_executable(fuzz_${name} ${ARG_SOURCES})
  target_link_libraries(fuzz_${name} PRIVATE vertexmill_options ${ARG_DEPENDS})
  target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
  set(seed_args)
  if(ARG_SEEDS)
    set(seed_args ${ARG_SEEDS})
  endif()
  add_test(NAME fuzz_${name} COMMAND fuzz_${name} -runs=${ARG_RUNS} -max_len=65536 ${seed_args})
  set_tests_properties(fuzz_${name} PROPERTIES TIMEOUT 600)
endfunction()

# vertexmill_benchmark(NAME SOURCES ... DEPENDS ...): Google Benchmark executable bench_<NAME>.
function(vertexmill_benchmark name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  add_executable(bench_${name} ${ARG_SOURCES})
  target_include_directories(bench_${name} PRIVATE ${PROJECT_SOURCE_DIR}/bench)
  target_link_libraries(bench_${name} PRIVATE vertexmill_options ${ARG_DEPENDS} benchmark::benchmark Threads::Threads)
endfunction()
